#pragma once

#include <android/log.h>

#include <mutex>
#include <string>
#include <vector>

// Records what the platform writes through liblog while alive; liblog's host logger (stderr)
// comes back afterwards. One at a time.
class LiblogCapture {
 public:
  struct Line {
    int priority;
    std::string tag;
    std::string text;
  };

  LiblogCapture() {
    {
      std::lock_guard<std::mutex> lock(state().mutex);
      state().lines.clear();
    }
    __android_log_set_logger(&LiblogCapture::capture);
  }
  ~LiblogCapture() { __android_log_set_logger(__android_log_stderr_logger); }
  LiblogCapture(LiblogCapture const&) = delete;
  LiblogCapture& operator=(LiblogCapture const&) = delete;

  std::vector<Line> lines() const {
    std::lock_guard<std::mutex> lock(state().mutex);
    return state().lines;
  }

 private:
  struct State {
    std::mutex mutex;
    std::vector<Line> lines;
  };
  static State& state() {
    static State s;
    return s;
  }
  static void capture(__android_logger_data const* data, char const* message) {
    std::lock_guard<std::mutex> lock(state().mutex);
    state().lines.push_back({data->priority, data->tag != nullptr ? data->tag : "", message});
  }
};
