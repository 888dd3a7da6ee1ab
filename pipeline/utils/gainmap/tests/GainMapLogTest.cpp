#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "GainMapLog.h"
#include "HostPlatform.h"

namespace {

using NSCam::Utils::ULog::ULogger;
using qelcam::host::LogCapture;
using qelcam::host::LogRecord;
using Sink = LogRecord::Sink;

constexpr char kTag[] = "QelCam/GainMapPool";
constexpr uint32_t kAllDebugBits = 0x201000;

// Sets the gates a test needs and puts the process's own gates back afterwards.
class GainMapLog : public testing::Test {
 protected:
  void SetUp() override {
    mMode = ULogger::sMode;
    mLevel = ULogger::sDetailsLevel;
    mMask = ULogger::sNormalDetailsMask;
    for (int level = 0; level < CAM_DBG_LEVEL_COUNT; ++level) {
      mEnabled[level] = g_logInfoLv[level].enable;
    }
  }
  void TearDown() override {
    ULogger::sMode = mMode;
    ULogger::sDetailsLevel = mLevel;
    ULogger::sNormalDetailsMask = mMask;
    for (int level = 0; level < CAM_DBG_LEVEL_COUNT; ++level) {
      g_logInfoLv[level].enable = mEnabled[level];
    }
  }

  static void gates(uint32_t mode, uint32_t level, uint32_t mask) {
    ULogger::sMode = mode;
    ULogger::sDetailsLevel = level;
    ULogger::sNormalDetailsMask = mask;
  }

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
  uint32_t mMode = 0;
  uint32_t mLevel = 0;
  uint32_t mMask = 0;
  uint32_t mEnabled[CAM_DBG_LEVEL_COUNT] = {};
};

TEST_F(GainMapLog, DetailsLevelFourLetsWarningsAndInfoThroughButNotDebug) {
  gates(0x2, 4, kAllDebugBits);
  LogCapture capture;

  GMP_LOGE("[%s] e %d", counted());
  GMP_LOGW("[%s] w %d", counted());
  GMP_LOGI("[%s] i %d", counted());
  GMP_LOGD("[%s] d %d", counted());

  EXPECT_EQ(mEvaluated, 3) << "the debug message's arguments are never worked out";
  auto records = capture.records();
  ASSERT_EQ(records.size(), 3u);
  EXPECT_EQ(texts(records, Sink::Logger),
            (std::vector<std::string>{"[TestBody] e 1", "[TestBody] w 2", "[TestBody] i 3"}));
  for (int i = 0; i < 3; ++i) {
    auto const& record = records[static_cast<size_t>(i)];
    EXPECT_EQ(record.level, i + 1);
    EXPECT_EQ(record.moduleId, 0x201004u);
    EXPECT_EQ(record.tag, kTag);
  }

  gates(0x2, 1, kAllDebugBits);
  capture.clear();
  GMP_LOGW("[%s] w %d", counted());
  GMP_LOGI("[%s] i %d", counted());
  GMP_LOGE("[%s] e %d", counted());
  EXPECT_EQ(texts(capture.records(), Sink::Logger), std::vector<std::string>{"[TestBody] e 4"});
}

TEST_F(GainMapLog, DebugNeedsLevelFiveAndEveryModuleBit) {
  gates(0x3, 5, kAllDebugBits & ~0x1000u);
  LogCapture capture;
  GMP_LOGD("[%s] d %d", counted());
  gates(0x3, 5, kAllDebugBits & ~0x200000u);
  GMP_LOGD("[%s] d %d", counted());
  EXPECT_TRUE(capture.records().empty());
  EXPECT_EQ(mEvaluated, 0);

  gates(0x3, 5, 0xffffffff);
  int const line = __LINE__ + 1;
  GMP_LOGD("[%s] d %d", counted());
  auto records = capture.records();
  ASSERT_EQ(records.size(), 2u);
  EXPECT_EQ(records[0].sink, Sink::DebugPrint);
  EXPECT_EQ(records[0].level, CAM_DBG_DEBUG);
  EXPECT_EQ(records[0].text, "D/[QelCam/GainMapPool] GainMapPool:" + std::to_string(line) +
                                 " TestBody() [TestBody] d 1");
  EXPECT_EQ(records[1].sink, Sink::Logger);
  EXPECT_EQ(records[1].level, 5);
  EXPECT_EQ(records[1].text, "[TestBody] d 1");
}

TEST_F(GainMapLog, ModeZeroWritesNothingNotEvenErrors) {
  gates(0, 5, kAllDebugBits);
  LogCapture capture;
  GMP_LOGE("[%s] e");
  GMP_LOGW("[%s] w");
  GMP_LOGI("[%s] i");
  GMP_LOGD("[%s] d");
  EXPECT_TRUE(capture.records().empty());
}

TEST_F(GainMapLog, SinksFollowTheModeBitsAndADisabledLevelSkipsOnlyTheDebugPrintSink) {
  gates(0x1, 4, 0);
  LogCapture capture;
  GMP_LOGI("[%s] debug-print only");
  EXPECT_EQ(of(capture.records(), Sink::DebugPrint).size(), 1u);
  EXPECT_TRUE(of(capture.records(), Sink::Logger).empty());

  gates(0x8, 4, 0);
  capture.clear();
  GMP_LOGI("[%s] logger only");
  EXPECT_TRUE(of(capture.records(), Sink::DebugPrint).empty());
  EXPECT_EQ(texts(capture.records(), Sink::Logger),
            std::vector<std::string>{"[TestBody] logger only"});

  gates(0x3, 4, 0);
  qelcam::host::setDebugPrintLevelEnabled(CAM_DBG_WARN, false);
  capture.clear();
  GMP_LOGW("[%s] warning");
  GMP_LOGI("[%s] info");
  auto records = capture.records();
  ASSERT_EQ(of(records, Sink::DebugPrint).size(), 1u);
  EXPECT_EQ(of(records, Sink::DebugPrint)[0].level, CAM_DBG_INFO);
  EXPECT_EQ(texts(records, Sink::Logger),
            (std::vector<std::string>{"[TestBody] warning", "[TestBody] info"}));
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

TEST_F(GainMapLog, EveryLiveCaptureRecordsAndNoneAfterItsEnd) {
  gates(0x2, 4, 0);
  LogCapture outer;
  {
    LogCapture inner;
    GMP_LOGI("[%s] both");
    EXPECT_EQ(inner.records().size(), 1u);
  }
  GMP_LOGI("[%s] outer only");
  EXPECT_EQ(texts(outer.records(), Sink::Logger),
            (std::vector<std::string>{"[TestBody] both", "[TestBody] outer only"}));
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
