#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "GainMapLog.h"
#include "HostPlatform.h"

namespace {

using qelcam::host::LogCapture;
using qelcam::host::LogRecord;
using Sink = LogRecord::Sink;

constexpr char kTag[] = "QelCam/GainMapPool";
constexpr uint32_t kAllDebugBits = 0x201000;

// Sets the gates a test needs and puts the process's own gates back afterwards.
class GainMapLog : public testing::Test {
 protected:
  void gates(uint32_t mode, uint32_t level, uint32_t mask) { mGates.set(mode, level, mask); }

  static std::vector<LogRecord> of(std::vector<LogRecord> const& records, Sink sink) {
    std::vector<LogRecord> picked;
    for (auto const& r : records) {
      if (r.sink == sink) {
        picked.push_back(r);
      }
    }
    return picked;
  }

  static std::vector<std::string> texts(std::vector<LogRecord> const& records, Sink sink) {
    std::vector<std::string> picked;
    for (auto const& r : of(records, sink)) {
      picked.push_back(r.text);
    }
    return picked;
  }

  // Counts how often a message's arguments were worked out.
  int mEvaluated = 0;
  int counted() {
    ++mEvaluated;
    return mEvaluated;
  }

 private:
  qelcam::host::LogGates mGates;
};

// Which sinks a message of each class reaches under the gates of the environment.
struct GateRow {
  uint32_t mode;
  uint32_t level;
  uint32_t mask;
  char cls;  // E, W, I or D
  bool logger;
  bool debugPrint;
  // Whether the message's arguments are worked out: its class gate passed, whatever the sinks.
  bool evaluated;
};

TEST_F(GainMapLog, EachClassReachesTheSinksItsGatesOpenAndIsOtherwiseNeverWorkedOut) {
  GateRow const rows[] = {
      {0x2, 4, kAllDebugBits, 'E', true, false, true},
      {0x2, 4, kAllDebugBits, 'W', true, false, true},
      {0x2, 4, kAllDebugBits, 'I', true, false, true},
      {0x2, 4, kAllDebugBits, 'D', false, false, false},
      {0x2, 1, kAllDebugBits, 'E', true, false, true},
      {0x2, 1, kAllDebugBits, 'W', false, false, false},
      {0x2, 2, kAllDebugBits, 'W', true, false, true},
      {0x2, 2, kAllDebugBits, 'I', false, false, false},
      {0x2, 3, kAllDebugBits, 'I', true, false, true},
      {0x3, 5, kAllDebugBits, 'D', true, true, true},
      {0x3, 5, kAllDebugBits & ~0x1000u, 'D', false, false, false},
      {0x3, 5, kAllDebugBits & ~0x200000u, 'D', false, false, false},
      {0x0, 5, kAllDebugBits, 'E', false, false, true},
      {0x0, 5, kAllDebugBits, 'D', false, false, true},
      {0x1, 4, 0, 'I', false, true, true},
      {0x8, 4, 0, 'I', true, false, true},
      {0x8, 4, 0, 'E', true, false, true},
  };
  for (GateRow const& row : rows) {
    gates(row.mode, row.level, row.mask);
    LogCapture capture;
    mEvaluated = 0;
    switch (row.cls) {
      case 'E':
        GMP_LOGE("[%s] %d", counted());
        break;
      case 'W':
        GMP_LOGW("[%s] %d", counted());
        break;
      case 'I':
        GMP_LOGI("[%s] %d", counted());
        break;
      default:
        GMP_LOGD("[%s] %d", counted());
        break;
    }
    std::string const which = std::string("class ") + row.cls + ", mode " +
                              std::to_string(row.mode) + ", level " + std::to_string(row.level);
    auto const logger = of(capture.records(), Sink::Logger);
    EXPECT_EQ(logger.size(), row.logger ? 1u : 0u) << which;
    EXPECT_EQ(of(capture.records(), Sink::DebugPrint).size(), row.debugPrint ? 1u : 0u) << which;
    EXPECT_EQ(mEvaluated, row.evaluated ? 1 : 0) << which;
    if (!logger.empty()) {
      int const level = row.cls == 'E' ? 1 : row.cls == 'W' ? 2 : row.cls == 'I' ? 3 : 5;
      EXPECT_EQ(logger[0].level, level) << which;
      EXPECT_EQ(logger[0].text, "[TestBody] 1") << which;
      EXPECT_EQ(logger[0].moduleId, 0x201004u) << which;
      EXPECT_EQ(logger[0].tag, kTag) << which;
    }
  }
}

TEST_F(GainMapLog, ADisabledDebugPrintLevelSkipsThatSinkOnly) {
  gates(0x3, 5, kAllDebugBits);
  qelcam::host::setDebugPrintLevelEnabled(CAM_DBG_WARN, false);
  LogCapture capture;
  int const line = __LINE__ + 2;
  GMP_LOGW("[%s] warning");
  GMP_LOGD("[%s] d %d", 1);
  auto records = capture.records();
  EXPECT_EQ(texts(records, Sink::DebugPrint),
            std::vector<std::string>{"D/[QelCam/GainMapPool] GainMapPool:" + std::to_string(line) +
                                     " TestBody() [TestBody] d 1"});
  EXPECT_EQ(of(records, Sink::DebugPrint)[0].level, CAM_DBG_DEBUG);
  EXPECT_EQ(texts(records, Sink::Logger),
            (std::vector<std::string>{"[TestBody] warning", "[TestBody] d 1"}));
}

TEST_F(GainMapLog, AnErrorCarriesItsSuffixOnTheDebugPrintSinkOnly) {
  gates(0x3, 4, 0);
  LogCapture capture;
  int const line = __LINE__ + 1;
  GMP_LOGE("[%s] [s:%d] bad slot %zu", 3, size_t{7});

  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  std::string const at = std::to_string(line);
  EXPECT_EQ(records[0].sink, Sink::DebugPrint);
  EXPECT_EQ(records[0].level, CAM_DBG_ERROR);
  EXPECT_EQ(records[0].tag, kTag);
  EXPECT_EQ(records[0].text, "E/[QelCam/GainMapPool] GainMapPool:" + at +
                                 " TestBody() [TestBody] [s:3] bad slot 7 (TestBody){#" + at +
                                 ":pipeline/utils/gainmap/GainMapPool}");
  EXPECT_EQ(records[1].sink, Sink::Logger);
  EXPECT_EQ(records[1].level, 1);
  EXPECT_EQ(records[1].text, "[TestBody] [s:3] bad slot 7");
  EXPECT_EQ(records[1].length, static_cast<int>(records[1].text.size()));
}

TEST_F(GainMapLog, ALongMessageReachesTheLoggerCutWithItsFullLength) {
  gates(0x2, 4, 0);
  LogCapture capture;
  std::string const body(1500, 'x');
  GMP_LOGI("[%s] %s", body.c_str());

  auto records = capture.records();
  ASSERT_EQ(records.size(), 1u);
  std::string const whole = "[TestBody] " + body;
  EXPECT_EQ(records[0].text, whole.substr(0, 1023));
  EXPECT_EQ(records[0].length, static_cast<int>(whole.size()));
}

TEST_F(GainMapLog, VerboseDebugNeedsTheOwnersLogLevel) {
  struct Owner {
    int mLogLevel;
  };
  gates(0x3, 5, kAllDebugBits);
  LogCapture capture;
  Owner quiet{0};
  GMP_LOGVD(&quiet, "[%s] v %d", counted());
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(mEvaluated, 0);

  Owner chatty{1};
  GMP_LOGVD(&chatty, "[%s] v %d", counted());
  EXPECT_EQ(texts(capture.records(), Sink::Logger), std::vector<std::string>{"[TestBody] v 1"});
  EXPECT_EQ(of(capture.records(), Sink::DebugPrint).size(), 1u);

  gates(0x3, 4, kAllDebugBits);
  capture.clear();
  GMP_LOGVD(&chatty, "[%s] v %d", counted());
  EXPECT_TRUE(capture.records().empty()) << "then the debug gate still applies";
  EXPECT_EQ(mEvaluated, 1);
}

std::string escaped(std::string const& text) {
  std::string out;
  for (char c : text) {
    if (std::strchr("[](){}.*+?^$|\\", c) != nullptr) {
      out += '\\';
    }
    out += c;
  }
  return out;
}

using GainMapLogDeathTest = GainMapLog;

TEST_F(GainMapLogDeathTest, AFatalMessageWritesBothTextsThenAborts) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  gates(0x2, 4, 0);
  int const line = __LINE__ + 1;
  auto fail = [] { GMP_LOGF("[%s:line-%d] [s:%d] create heap fail", 2); };
  std::string const at = std::to_string(line);
  std::string const plain = "[operator():line-" + at + "] [s:2] create heap fail";
  EXPECT_DEATH(
      fail(), escaped(plain) + "\n(.|\n)*fatal notification 1(.|\n)*" +
                  escaped(plain + " (operator()){#" + at + ":pipeline/utils/gainmap/GainMapPool}"));

  gates(0, 4, 0);
  EXPECT_DEATH(GMP_LOGF("[%s:line-%d] still fatal"), "still fatal \\(TestBody\\)");
}

}  // namespace
