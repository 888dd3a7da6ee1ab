#pragma once

#include <cstdint>

namespace NSCam {
namespace Utils {
namespace ULog {

class ULogger {
 public:
  // Gates read before every message, without locks, from any thread.
  static uint32_t sDetailsLevel;
  static uint32_t sNormalDetailsMask;
  // Bit 0: debug-print sink; bits 1 and 3: logger sink.
  static uint32_t sMode;
  // The logger every module writes to; a program may install its own.
  static ULogger* sULogger;

  virtual ~ULogger() = default;
  virtual void write(uint32_t moduleId, char const* tag, int level, char const* text, int length);
  // Called just before the process aborts on a fatal message.
  virtual void notifyFatal(int code);
};

}  // namespace ULog
}  // namespace Utils
}  // namespace NSCam

// Levels of the debug-print facility; each indexes g_logInfoLv.
enum cam_debug_level_t {
  CAM_DBG_DEBUG = 0,
  CAM_DBG_ERROR = 1,
  CAM_DBG_WARN = 2,
  CAM_DBG_INFO = 3,
  CAM_DBG_VERBOSE = 4,
  CAM_DBG_LEVEL_COUNT
};

struct cam_log_level_info_t {
  uint32_t enable;        // bit 0: the level is printed
  char const* levelText;  // printed at the head of each line of the level
};

extern cam_log_level_info_t g_logInfoLv[CAM_DBG_LEVEL_COUNT];

void log_dbg_print(char const* tag, cam_debug_level_t level, char const* format, ...)
    __attribute__((format(printf, 3, 4)));

// The file text printed in a debug-print line for a source path.
char const* get_filename_log_control(char const* path);
