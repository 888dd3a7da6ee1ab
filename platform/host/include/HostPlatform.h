#pragma once

// Controls of the host platform, for tests and tools. Nothing in the library uses them.

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "camsys/Trace.h"

namespace qelcam {
namespace host {

// Properties: a process-wide store, also filled at start-up from QELCAM_PROPERTIES
// ("key=value;key=value").
void setProperty(std::string const& key, std::string const& value);
void clearProperty(std::string const& key);

// Image formats known to the host's format table.
constexpr int32_t kFormatGainMap8 = 0x20203859;
constexpr int32_t kFormatGainMap16 = 0x20363159;
constexpr int32_t kFormatBlob = 0x21;
// The sensor-information service's answer to the gain-map format query; {kFormatGainMap8} at start.
void setGainMapFormats(std::vector<int32_t> const& formats);
std::vector<int32_t> gainMapFormats();

struct LogRecord {
  enum class Sink { DebugPrint, Logger };
  Sink sink;
  uint32_t moduleId;  // logger sink only
  std::string tag;
  int level;         // the sink's own level value
  std::string text;  // debug-print: the whole formatted line; logger: the text as written
  int length;        // logger sink: the length argument it was given
};

// While one is alive, every line that either sink writes is recorded.
class LogCapture {
 public:
  LogCapture();
  ~LogCapture();
  LogCapture(LogCapture const&) = delete;
  LogCapture& operator=(LogCapture const&) = delete;

  std::vector<LogRecord> records() const;
  void clear();

 private:
  struct State;
  std::shared_ptr<State> mState;
};

// The enable bit of g_logInfoLv[level].
void setDebugPrintLevelEnabled(int level, bool enabled);

// Keeps the process's log gates (the logger's mode, details level and mask, and every
// debug-print level's enable bit) as they were at its construction, and puts them back when it
// goes; set() changes the first three meanwhile.
class LogGates {
 public:
  LogGates();
  ~LogGates();
  LogGates(LogGates const&) = delete;
  LogGates& operator=(LogGates const&) = delete;

  void set(uint32_t mode, uint32_t level, uint32_t mask);

 private:
  uint32_t mMode;
  uint32_t mLevel;
  uint32_t mMask;
  std::vector<uint32_t> mEnabled;
};

struct HeapStats {
  uint64_t heapsCreated;   // since process start
  uint64_t heapsAlive;     // heaps whose memory is still mapped
  uint64_t bytesAlive;     // bytes of those heaps
  uint64_t buffersLocked;  // image buffers locked now
  // image buffers destroyed while still locked, since process start: memory dropped under a
  // lock nobody undid
  uint64_t buffersDroppedLocked;
};
HeapStats heapStats();
// The next `count` heap creations return an empty pointer.
void failHeapCreates(int count);
// lockBuf fails for the buffer at this index of every batch cut; -1 = never.
void failLockBufAt(int bufferIndex);

// Workers start no new task of any queue until releaseQueues().
void holdQueues();
void releaseQueues();
// Returns once every live queue has run every task posted so far. Not to be called while the
// queues are held.
void waitQueuesIdle();

// Driving the queues from one thread (a simulation in virtual time). Every task of the process is
// numbered in posting order, from 1; this is the newest number.
uint64_t tasksPosted();
// While the queues are held: runs on the calling thread the task numbered `number`, after the
// tasks posted before it to the same queue that have not run. False when it has already run (or
// the queues are not held).
bool runHeldTask(uint64_t number);
// While on and the queues are held, a caller that takes a task's future to wait for it runs that
// task (and its queue's earlier ones) itself first, so that a barrier does not wait for workers
// that are held. Off at start.
void setWaitRunsHeldTasks(bool on);

// The shared workers that run every queue's tasks.
struct TaskWorkerStats {
  uint64_t workersStarted;  // since process start
  uint64_t workersAlive;    // starting ones included
  uint64_t workersKept;     // never end, even when idle
  uint64_t queuesAlive;     // queues with an owner or tasks left
};
TaskWorkerStats taskWorkerStats();
// How long a worker beyond the kept ones waits idle before it ends; 5 s at start.
void setTaskWorkerLinger(std::chrono::milliseconds linger);
// Returns once no more than `count` workers are alive.
void waitTaskWorkersAtMost(uint64_t count);

// Tracing. The trace service of camsys/Trace.h records while a trace file is being written or a
// listener is alive; QELCAM_TRACE=path in the environment traces the whole process into `path`.
struct TraceEvent {
  struct Arg {
    std::string name;
    bool isText;
    int64_t number;
    std::string text;
  };
  // 'B'/'E' slice, 'b'/'e' async span, 'C' counter, 'i' instant, 's'/'f' flow
  char phase = 0;
  std::string category;
  std::string name;  // empty for a slice's end
  uint64_t id = 0;   // async spans and flows
  int tid = 0;
  double tsUs = 0;
  std::vector<Arg> args;

  Arg const* find(std::string const& argName) const;
};

// Starts a Chrome JSON trace (the object form, timestamps in microseconds, process and thread
// names as metadata events) in `path`. False when a trace is already being written or the file
// cannot be created.
bool startTrace(std::string const& path);
// Closes what is still open, completes the file and stops recording into it.
void stopTrace();

// While alive, every event of the kinds asked for (NSCam::Utils::Trace::Kind) is handed to the
// callback on the thread that made it, under the trace service's lock: the callback must not
// trace. Trace points of the other kinds stay off unless a trace file is being written.
class TraceListener {
 public:
  explicit TraceListener(std::function<void(TraceEvent const&)> onEvent,
                         uint32_t kinds = NSCam::Utils::Trace::kAllKinds);
  ~TraceListener();
  TraceListener(TraceListener const&) = delete;
  TraceListener& operator=(TraceListener const&) = delete;

  void onEvent(TraceEvent const& event);
  uint32_t kinds() const { return mKinds; }

 private:
  std::function<void(TraceEvent const&)> mOnEvent;
  uint32_t const mKinds;
};

}  // namespace host
}  // namespace qelcam
