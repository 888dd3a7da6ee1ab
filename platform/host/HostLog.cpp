#include <android/log.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <set>

#include "HostPlatform.h"
#include "camsys/ULog.h"

struct qelcam::host::LogCapture::State {
  std::vector<LogRecord> records;
};

namespace {

constexpr char kLogTag[] = "QelCam/HostLog";

// Every live capture; one lock guards the set and every capture's records.
struct Captures {
  std::mutex mutex;
  std::set<std::vector<qelcam::host::LogRecord>*> live;
};

Captures& captures() {
  static Captures* c = new Captures;  // loggers may run on detached threads at exit
  return *c;
}

void record(qelcam::host::LogRecord const& entry) {
  Captures& c = captures();
  std::lock_guard<std::mutex> lock(c.mutex);
  for (auto* records : c.live) {
    records->push_back(entry);
  }
}

uint32_t gateFromEnv(char const* name, uint32_t defaultValue) {
  char const* text = std::getenv(name);
  if (text == nullptr || *text == '\0') {
    return defaultValue;
  }
  char* end = nullptr;
  unsigned long long const value = std::strtoull(text, &end, 0);
  return end == text ? defaultValue : static_cast<uint32_t>(value);
}

// The gates filter on the host as on a device; liblog's own host filter (info and up) would
// otherwise hide the debug lines a person turned on.
NSCam::Utils::ULog::ULogger* makeDefaultLogger() {
  __android_log_set_minimum_priority(ANDROID_LOG_VERBOSE);
  return new NSCam::Utils::ULog::ULogger;
}

int loggerPriority(int level) {
  switch (level) {
    case 1:
      return ANDROID_LOG_ERROR;
    case 2:
      return ANDROID_LOG_WARN;
    case 3:
      return ANDROID_LOG_INFO;
    case 4:
    case 5:
      return ANDROID_LOG_DEBUG;
    default:
      return ANDROID_LOG_VERBOSE;
  }
}

int debugPrintPriority(cam_debug_level_t level) {
  switch (level) {
    case CAM_DBG_ERROR:
      return ANDROID_LOG_ERROR;
    case CAM_DBG_WARN:
      return ANDROID_LOG_WARN;
    case CAM_DBG_INFO:
      return ANDROID_LOG_INFO;
    case CAM_DBG_DEBUG:
      return ANDROID_LOG_DEBUG;
    default:
      return ANDROID_LOG_VERBOSE;
  }
}

}  // namespace

namespace NSCam {
namespace Utils {
namespace ULog {

uint32_t ULogger::sMode = gateFromEnv("QELCAM_ULOG_MODE", 2);
uint32_t ULogger::sDetailsLevel = gateFromEnv("QELCAM_ULOG_DETAILS_LEVEL", 4);
uint32_t ULogger::sNormalDetailsMask = gateFromEnv("QELCAM_ULOG_DETAILS_MASK", 0);
ULogger* ULogger::sULogger = makeDefaultLogger();

void ULogger::write(uint32_t moduleId, char const* tag, int level, char const* text, int length) {
  __android_log_write(loggerPriority(level), tag, text);
  record({qelcam::host::LogRecord::Sink::Logger, moduleId, tag != nullptr ? tag : "", level,
          text != nullptr ? text : "", length});
}

void ULogger::notifyFatal(int code) {
  __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] fatal notification %d, aborting", __func__,
                      code);
}

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam

cam_log_level_info_t g_logInfoLv[CAM_DBG_LEVEL_COUNT] = {
    {1, "D/"}, {1, "E/"}, {1, "W/"}, {1, "I/"}, {1, "V/"},
};

void log_dbg_print(char const* tag, cam_debug_level_t level, char const* format, ...) {
  char line[1024];
  va_list args;
  va_start(args, format);
  int const length = std::vsnprintf(line, sizeof(line), format, args);
  va_end(args);
  if (length < 0) {
    return;
  }
  __android_log_write(debugPrintPriority(level), tag, line);
  record({qelcam::host::LogRecord::Sink::DebugPrint, 0, tag != nullptr ? tag : "",
          static_cast<int>(level), line, length});
}

char const* get_filename_log_control(char const* path) {
  if (path == nullptr) {
    return "";
  }
  char const* slash = std::strrchr(path, '/');
  return slash != nullptr ? slash + 1 : path;
}

namespace qelcam {
namespace host {

LogCapture::LogCapture() : mState(std::make_shared<State>()) {
  Captures& c = captures();
  std::lock_guard<std::mutex> lock(c.mutex);
  c.live.insert(&mState->records);
}

LogCapture::~LogCapture() {
  Captures& c = captures();
  std::lock_guard<std::mutex> lock(c.mutex);
  c.live.erase(&mState->records);
}

std::vector<LogRecord> LogCapture::records() const {
  Captures& c = captures();
  std::lock_guard<std::mutex> lock(c.mutex);
  return mState->records;
}

void LogCapture::clear() {
  Captures& c = captures();
  std::lock_guard<std::mutex> lock(c.mutex);
  mState->records.clear();
}

void setDebugPrintLevelEnabled(int level, bool enabled) {
  if (level < 0 || level >= CAM_DBG_LEVEL_COUNT) {
    return;
  }
  if (enabled) {
    g_logInfoLv[level].enable |= 1u;
  } else {
    g_logInfoLv[level].enable &= ~1u;
  }
}

using NSCam::Utils::ULog::ULogger;

LogGates::LogGates()
    : mMode(ULogger::sMode),
      mLevel(ULogger::sDetailsLevel),
      mMask(ULogger::sNormalDetailsMask),
      mEnabled(CAM_DBG_LEVEL_COUNT) {
  for (int level = 0; level < CAM_DBG_LEVEL_COUNT; ++level) {
    mEnabled[static_cast<size_t>(level)] = g_logInfoLv[level].enable;
  }
}

LogGates::~LogGates() {
  ULogger::sMode = mMode;
  ULogger::sDetailsLevel = mLevel;
  ULogger::sNormalDetailsMask = mMask;
  for (int level = 0; level < CAM_DBG_LEVEL_COUNT; ++level) {
    g_logInfoLv[level].enable = mEnabled[static_cast<size_t>(level)];
  }
}

void LogGates::set(uint32_t mode, uint32_t level, uint32_t mask) {
  ULogger::sMode = mode;
  ULogger::sDetailsLevel = level;
  ULogger::sNormalDetailsMask = mask;
}

}  // namespace host
}  // namespace qelcam
