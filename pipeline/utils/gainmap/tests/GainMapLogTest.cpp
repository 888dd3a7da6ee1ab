// The log gates, and the two sinks and the forms each writes.

#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "GainMapLog.h"
#include "HostPlatform.h"

namespace {

using gainmap::log::Class;
using qelcam::host::LogCapture;
using Lines = std::vector<std::string>;

constexpr uint32_t kAllDebugBits = 0x201000;

// Each record as "L<level> text" (logger sink) or "P<level> text" (debug-print sink).
Lines seen(LogCapture const& capture) {
  Lines out;
  for (auto const& r : capture.records()) {
    bool const logger = r.sink == qelcam::host::LogRecord::Sink::Logger;
    out.push_back((logger ? "L" : "P") + std::to_string(r.level) + " " + r.text);
  }
  return out;
}

// Which sinks a message of each class reaches under the gates of the environment.
struct GateRow {
  uint32_t mode;
  uint32_t level;
  uint32_t mask;
  Class cls;
  Lines lines;
  // Whether the message's arguments are worked out: its class gate passed, whatever the sinks.
  bool evaluated;
};

TEST(GainMapLog, EachClassReachesTheSinksItsGatesOpenAndIsOtherwiseNeverWorkedOut) {
  GateRow const rows[] = {
      {0x2, 1, kAllDebugBits, Class::Error, {"L1 [TestBody] 1"}, true},
      {0x2, 1, kAllDebugBits, Class::Warning, {}, false},
      {0x2, 2, kAllDebugBits, Class::Warning, {"L2 [TestBody] 1"}, true},
      {0x2, 2, kAllDebugBits, Class::Info, {}, false},
      {0x2, 3, kAllDebugBits, Class::Info, {"L3 [TestBody] 1"}, true},
      {0x2, 4, kAllDebugBits, Class::Debug, {}, false},
      {0x3, 5, kAllDebugBits, Class::Debug, {"P0 D/[QelCam/GainMapPool]", "L5 [TestBody] 1"}, true},
      {0x3, 5, kAllDebugBits & ~0x1000u, Class::Debug, {}, false},
      {0x0, 5, kAllDebugBits, Class::Debug, {}, true},
      {0x1, 4, 0, Class::Info, {"P3 I/[QelCam/GainMapPool]"}, true},
      {0x8, 4, 0, Class::Info, {"L3 [TestBody] 1"}, true},
  };
  qelcam::host::LogGates gates;  // puts the process's own gates back after the test
  for (GateRow const& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << &row - rows);
    gates.set(row.mode, row.level, row.mask);
    LogCapture capture;
    int evaluated = 0;
    GMP_LOG_CLASS_AS(row.cls, "TestBody", "[%s] %d", ++evaluated);
    // The debug-print line is checked up to its tag; the next test checks the rest.
    Lines lines = seen(capture);
    for (std::string& line : lines) {
      line = line[0] == 'P' ? line.substr(0, line.find(' ', 3)) : line;
    }
    EXPECT_EQ(lines, row.lines);
    EXPECT_EQ(evaluated, row.evaluated ? 1 : 0);
  }
}

TEST(GainMapLog, EachSinkWritesItsOwnForm) {
  // An error carries its suffix on the debug-print sink only; a disabled debug-print level skips
  // that sink for that level only.
  qelcam::host::LogGates gates;
  gates.set(0x3, 5, kAllDebugBits);
  qelcam::host::setDebugPrintLevelEnabled(CAM_DBG_WARN, false);
  LogCapture capture;
  std::string const at = std::to_string(__LINE__ + 1);
  GMP_LOGE("[%s] [s:%d] bad slot %zu", 3, size_t{7});
  GMP_LOGW("[%s] warning");
  qelcam::host::setDebugPrintLevelEnabled(CAM_DBG_WARN, true);
  EXPECT_EQ(seen(capture), (Lines{"P1 E/[QelCam/GainMapPool] GainMapPool:" + at +
                                      " TestBody() [TestBody] [s:3] bad slot 7 (TestBody){#" + at +
                                      ":pipeline/utils/gainmap/GainMapPool}",
                                  "L1 [TestBody] [s:3] bad slot 7", "L2 [TestBody] warning"}));
}

}  // namespace
