#pragma once

// The library's log macros. Every message passes its class's gate before any argument is
// evaluated, then goes to the debug-print sink and/or the logger sink as ULogger::sMode selects.
// Formats are checked like printf's.

#include <android/log.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "camsys/ULog.h"

namespace gainmap {
namespace log {

constexpr char kTag[] = "QelCam/GainMapPool";
constexpr char kSourcePath[] = "pipeline/utils/gainmap/GainMapPool";
constexpr uint32_t kModuleId = 0x201004;
constexpr uint32_t kDebugModuleBits = 0x201000;
constexpr size_t kTextBufSize = 1024;

enum class Class { Error, Warning, Info, Debug };

constexpr cam_debug_level_t debugPrintLevel(Class c) {
  return c == Class::Error     ? CAM_DBG_ERROR
         : c == Class::Warning ? CAM_DBG_WARN
         : c == Class::Info    ? CAM_DBG_INFO
                               : CAM_DBG_DEBUG;
}

constexpr int loggerLevel(Class c) {
  return c == Class::Error ? 1 : c == Class::Warning ? 2 : c == Class::Info ? 3 : 5;
}

inline bool gatePasses(Class c) {
  using NSCam::Utils::ULog::ULogger;
  switch (c) {
    case Class::Error:
      return true;
    case Class::Warning:
      return ULogger::sDetailsLevel >= 2;
    case Class::Info:
      return ULogger::sDetailsLevel >= 3;
    case Class::Debug:
      return ULogger::sDetailsLevel >= 5 &&
             (ULogger::sNormalDetailsMask & kDebugModuleBits) == kDebugModuleBits;
  }
  return false;
}

inline bool debugPrintTaken(Class c) {
  return (NSCam::Utils::ULog::ULogger::sMode & 0x1) != 0 &&
         (g_logInfoLv[debugPrintLevel(c)].enable & 0x1) != 0;
}

inline bool loggerTaken() {
  return (NSCam::Utils::ULog::ULogger::sMode & 0xa) != 0;
}

// Never called: lets the compiler check a message's arguments against its format.
inline void checkFormat(char const*, ...) __attribute__((format(printf, 1, 2)));
inline void checkFormat(char const*, ...) {}

// The plain text, cut to the buffer, with the formatter's full length.
template <class... A>
void writeLogger(int level, char const* format, A... args) {
  auto* logger = NSCam::Utils::ULog::ULogger::sULogger;
  std::unique_ptr<char[]> text(new char[kTextBufSize]);
  int length = std::snprintf(text.get(), kTextBufSize, format, args...);
  if (length < 0 || logger == nullptr) {
    return;
  }
  text[kTextBufSize - 1] = '\0';
  logger->write(kModuleId, kTag, level, text.get(), length);
}

// The debug-print line: a prefix, then the message format (suffixed for errors) filled by the
// platform with the arguments.
template <class... A>
void writeDebugPrint(Class c, int line, char const* func, char const* format, A... args) {
  cam_debug_level_t level = debugPrintLevel(c);
  char line_format[kTextBufSize] = {};
  int n = std::snprintf(line_format, sizeof(line_format), "%s[%s] %s:%d %s() %s",
                        g_logInfoLv[level].levelText, kTag, get_filename_log_control(kSourcePath),
                        line, func, format);
  if (n < 0 || static_cast<size_t>(n) >= sizeof(line_format)) {
    std::abort();
  }
  if (c == Class::Error) {
    log_dbg_print(kTag, level, line_format, args..., func, line, kSourcePath);
  } else {
    log_dbg_print(kTag, level, line_format, args...);
  }
}

// Cold: a message is the exception on the lending paths, so its code stays out of their way.
template <class... A>
__attribute__((cold, noinline)) void emit(Class c, int line, char const* func, char const* plain,
                                          char const* suffixed, A... args) {
  if (debugPrintTaken(c)) {
    writeDebugPrint(c, line, func, c == Class::Error ? suffixed : plain, args...);
  }
  if (loggerTaken()) {
    writeLogger(loggerLevel(c), plain, args...);
  }
}

template <class... A>
__attribute__((cold, noinline)) void fatalToLogger(char const* plain, A... args) {
  if (loggerTaken()) {
    writeLogger(1, plain, args...);
    if (auto* logger = NSCam::Utils::ULog::ULogger::sULogger) {
      logger->notifyFatal(1);
    }
  }
}

}  // namespace log
}  // namespace gainmap

#define GMP_ERROR_SUFFIX " (%s){#%d:%s}"

// `func` fills the message's leading "[%s]" and names the function in the error suffix.
#define GMP_LOG_CLASS_AS(cls, func, fmt, ...)                                                    \
  do {                                                                                           \
    if (::gainmap::log::gatePasses(cls)) {                                                       \
      if (false)                                                                                 \
        ::gainmap::log::checkFormat(fmt, func, ##__VA_ARGS__);                                   \
      ::gainmap::log::emit(cls, __LINE__, func, fmt, fmt GMP_ERROR_SUFFIX, func, ##__VA_ARGS__); \
    }                                                                                            \
  } while (0)

// Each format begins with "[%s]", which the macro fills with the calling function's name.
#define GMP_LOGE_AS(func, fmt, ...) \
  GMP_LOG_CLASS_AS(::gainmap::log::Class::Error, func, fmt, ##__VA_ARGS__)
#define GMP_LOGD_AS(func, fmt, ...) \
  GMP_LOG_CLASS_AS(::gainmap::log::Class::Debug, func, fmt, ##__VA_ARGS__)
#define GMP_LOGW_AS(func, fmt, ...) \
  GMP_LOG_CLASS_AS(::gainmap::log::Class::Warning, func, fmt, ##__VA_ARGS__)
#define GMP_LOGI_AS(func, fmt, ...) \
  GMP_LOG_CLASS_AS(::gainmap::log::Class::Info, func, fmt, ##__VA_ARGS__)
#define GMP_LOGE(fmt, ...) GMP_LOGE_AS(__func__, fmt, ##__VA_ARGS__)
#define GMP_LOGW(fmt, ...) GMP_LOGW_AS(__func__, fmt, ##__VA_ARGS__)
#define GMP_LOGI(fmt, ...) GMP_LOGI_AS(__func__, fmt, ##__VA_ARGS__)
#define GMP_LOGD(fmt, ...) GMP_LOGD_AS(__func__, fmt, ##__VA_ARGS__)

// Verbose debug: only when the owner (a pool) was created with the debug property set.
#define GMP_LOGVD(owner, fmt, ...)  \
  do {                              \
    if ((owner)->mLogLevel != 0) {  \
      GMP_LOGD(fmt, ##__VA_ARGS__); \
    }                               \
  } while (0)

// Fatal: the format begins with "[%s:line-%d] "; the process aborts.
#define GMP_LOGF_AS(func, fmt, ...)                                                           \
  do {                                                                                        \
    ::gainmap::log::fatalToLogger(fmt, func, __LINE__, ##__VA_ARGS__);                        \
    __android_log_assert(nullptr, ::gainmap::log::kTag, fmt GMP_ERROR_SUFFIX, func, __LINE__, \
                         ##__VA_ARGS__, func, __LINE__, ::gainmap::log::kSourcePath);         \
  } while (0)
#define GMP_LOGF(fmt, ...) GMP_LOGF_AS(__func__, fmt, ##__VA_ARGS__)
