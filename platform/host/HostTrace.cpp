// The trace service on the host: events go to a Chrome JSON trace file (the object form, which
// the Perfetto UI and chrome://tracing both open) and to in-process listeners.
//
// The file always balances: an end whose begin was not written (tracing started in the middle of
// a slice or span) is left out, and whatever is still open when the trace stops is closed at the
// stop time with the argument "open at end": 1.

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "HostPlatform.h"
#include "camsys/Trace.h"

namespace NSCam {
namespace Utils {
namespace Trace {

std::atomic<uint32_t> gEnabled{0};

}  // namespace Trace
}  // namespace Utils
}  // namespace NSCam

namespace {

using NSCam::Utils::Trace::Arg;
using NSCam::Utils::Trace::Args;
using qelcam::host::TraceEvent;

using AsyncKey = std::pair<std::string, uint64_t>;

struct Tracer {
  std::mutex mutex;
  FILE* file = nullptr;
  bool firstEvent = true;
  std::set<int> namedThreads;
  // Slices and async spans written to the file and not yet closed, to keep it balanced.
  std::map<int, std::vector<std::string>> openSlices;
  std::map<AsyncKey, std::vector<std::string>> openSpans;
  std::map<std::string, std::map<int64_t, int64_t>> counterParts;
  std::set<qelcam::host::TraceListener*> listeners;
};

Tracer& tracer() {
  static Tracer* t = new Tracer;  // queue threads may still trace during exit
  return *t;
}

int threadId() {
  thread_local int const tid = static_cast<int>(syscall(SYS_gettid));
  return tid;
}

double nowUs() {
  static auto const start = std::chrono::steady_clock::now();
  return std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - start)
      .count();
}

// Called with the tracer's mutex held, after the file or the listeners changed.
void publishEnabled(Tracer& t) {
  uint32_t kinds = t.file != nullptr ? uint32_t{NSCam::Utils::Trace::kAllKinds} : 0u;
  for (auto* listener : t.listeners) {
    kinds |= listener->kinds();
  }
  NSCam::Utils::Trace::gEnabled.store(kinds, std::memory_order_relaxed);
}

uint32_t kindOf(TraceEvent const& event) {
  return event.phase == 'i' ? NSCam::Utils::Trace::kInstants : NSCam::Utils::Trace::kTimeline;
}

std::string jsonString(std::string const& text) {
  std::string out = "\"";
  for (char c : text) {
    auto const u = static_cast<unsigned char>(c);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += c;
    } else if (u < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04x", u);
      out += escaped;
    } else {
      out += c;
    }
  }
  return out + "\"";
}

std::string jsonArgs(std::vector<TraceEvent::Arg> const& args) {
  std::string out = "{";
  for (auto const& arg : args) {
    if (out.size() > 1) {
      out += ",";
    }
    out += jsonString(arg.name) + ":" +
           (arg.isText ? jsonString(arg.text) : std::to_string(arg.number));
  }
  return out + "}";
}

std::string hexId(uint64_t id) {
  char text[24];
  std::snprintf(text, sizeof text, "\"0x%" PRIx64 "\"", id);
  return text;
}

void writeLine(Tracer& t, std::string const& line) {
  std::fputs(t.firstEvent ? "\n" : ",\n", t.file);
  std::fputs(line.c_str(), t.file);
  t.firstEvent = false;
}

std::string head(char phase, std::string const& name, int pid, int tid, double ts) {
  char text[96];
  std::snprintf(text, sizeof text, "\"ph\":\"%c\",\"pid\":%d,\"tid\":%d,\"ts\":%.3f", phase, pid,
                tid, ts);
  return "{\"name\":" + jsonString(name) + "," + text;
}

void writeMetadata(Tracer& t, char const* what, int tid, std::string const& name) {
  writeLine(t,
            head('M', what, getpid(), tid, 0) + ",\"args\":{\"name\":" + jsonString(name) + "}}");
}

void nameThread(Tracer& t, int tid) {
  if (!t.namedThreads.insert(tid).second) {
    return;
  }
  char name[32] = {};
  if (pthread_getname_np(pthread_self(), name, sizeof name) != 0 || name[0] == '\0') {
    std::snprintf(name, sizeof name, "thread %d", tid);
  }
  writeMetadata(t, "thread_name", tid, name);
}

// Whether the event belongs in the file, updating what is open there; an end takes the name of
// the slice it closes.
bool balance(Tracer& t, TraceEvent& event) {
  switch (event.phase) {
    case 'B':
      t.openSlices[event.tid].push_back(event.name);
      return true;
    case 'E': {
      auto& open = t.openSlices[event.tid];
      if (open.empty()) {
        return false;
      }
      event.name = open.back();
      open.pop_back();
      return true;
    }
    case 'b':
      t.openSpans[{event.category, event.id}].push_back(event.name);
      return true;
    case 'e': {
      auto& open = t.openSpans[{event.category, event.id}];
      if (open.empty() || open.back() != event.name) {
        return false;
      }
      open.pop_back();
      return true;
    }
    default:
      return true;
  }
}

void writeEvent(Tracer& t, TraceEvent event) {
  nameThread(t, event.tid);
  if (!balance(t, event)) {
    return;
  }
  std::string line = head(event.phase, event.name, getpid(), event.tid, event.tsUs);
  if (!event.category.empty()) {
    line += ",\"cat\":" + jsonString(event.category);
  }
  switch (event.phase) {
    case 'b':
    case 'e':
    case 's':
    case 'f':
      line += ",\"id\":" + hexId(event.id);
      break;
    case 'i':
      line += ",\"s\":\"t\"";
      break;
    default:
      break;
  }
  if (event.phase == 'f') {
    line += ",\"bp\":\"e\"";
  }
  writeLine(t, line + ",\"args\":" + jsonArgs(event.args) + "}");
}

void emitLocked(Tracer& t, TraceEvent event) {
  event.tid = threadId();
  event.tsUs = nowUs();
  if (t.file != nullptr) {
    writeEvent(t, event);
  }
  for (auto* listener : t.listeners) {
    if ((listener->kinds() & kindOf(event)) != 0) {
      listener->onEvent(event);
    }
  }
}

void emit(TraceEvent event) {
  Tracer& t = tracer();
  std::lock_guard<std::mutex> lock(t.mutex);
  emitLocked(t, std::move(event));
}

TraceEvent makeEvent(char phase, char const* category, std::string const& name, uint64_t id,
                     Args args) {
  TraceEvent event;
  event.phase = phase;
  event.category = category;
  event.name = name;
  event.id = id;
  for (auto const& arg : args) {
    event.args.push_back(arg.text != nullptr ? TraceEvent::Arg{arg.name, true, 0, arg.text}
                                             : TraceEvent::Arg{arg.name, false, arg.number, ""});
  }
  return event;
}

// Closes, at the stop time, what is still open in the file.
void closeOpen(Tracer& t) {
  double const ts = nowUs();
  for (auto& [tid, open] : t.openSlices) {
    for (; !open.empty(); open.pop_back()) {
      writeLine(t, head('E', open.back(), getpid(), tid, ts) + ",\"args\":{\"open at end\":1}}");
    }
  }
  for (auto& [key, open] : t.openSpans) {
    for (; !open.empty(); open.pop_back()) {
      writeLine(t, head('e', open.back(), getpid(), threadId(), ts) +
                       ",\"cat\":" + jsonString(key.first) + ",\"id\":" + hexId(key.second) +
                       ",\"args\":{\"open at end\":1}}");
    }
  }
  t.openSlices.clear();
  t.openSpans.clear();
}

// QELCAM_TRACE=path traces the whole process; the file is completed at exit.
struct TraceFromEnvironment {
  TraceFromEnvironment() {
    char const* path = std::getenv("QELCAM_TRACE");
    if (path != nullptr && *path != '\0' && qelcam::host::startTrace(path)) {
      std::atexit(qelcam::host::stopTrace);
    }
  }
};
TraceFromEnvironment const gTraceFromEnvironment;

}  // namespace

namespace NSCam {
namespace Utils {
namespace Trace {

void beginSlice(std::string const& name, Args args) {
  emit(makeEvent('B', "", name, 0, args));
}

void endSlice(Args args) {
  emit(makeEvent('E', "", "", 0, args));
}

void asyncBegin(char const* category, std::string const& name, uint64_t id, Args args) {
  emit(makeEvent('b', category, name, id, args));
}

void asyncEnd(char const* category, std::string const& name, uint64_t id, Args args) {
  emit(makeEvent('e', category, name, id, args));
}

void counter(std::string const& name, char const* series, int64_t value) {
  emit(makeEvent('C', "", name, 0, {Arg(series, value)}));
}

void counterPart(std::string const& name, char const* series, int64_t part, int64_t value) {
  Tracer& t = tracer();
  // One lock for the parts and the event, so that sums reach the file in the order they were made.
  std::lock_guard<std::mutex> lock(t.mutex);
  auto& parts = t.counterParts[name];
  auto const it = parts.find(part);
  if ((it == parts.end() ? 0 : it->second) == value) {
    return;  // nothing changed
  }
  if (value == 0) {
    parts.erase(it);
  } else {
    parts[part] = value;
  }
  int64_t sum = 0;
  for (auto const& [key, partValue] : parts) {
    sum += partValue;
  }
  emitLocked(t, makeEvent('C', "", name, 0, {Arg(series, sum)}));
}

void instant(std::string const& name, Args args) {
  emit(makeEvent('i', "", name, 0, args));
}

void flowBegin(char const* category, std::string const& name, uint64_t id) {
  emit(makeEvent('s', category, name, id, {}));
}

void flowEnd(char const* category, std::string const& name, uint64_t id) {
  emit(makeEvent('f', category, name, id, {}));
}

}  // namespace Trace
}  // namespace Utils
}  // namespace NSCam

namespace qelcam {
namespace host {

TraceEvent::Arg const* TraceEvent::find(std::string const& argName) const {
  for (auto const& arg : args) {
    if (arg.name == argName) {
      return &arg;
    }
  }
  return nullptr;
}

bool startTrace(std::string const& path) {
  Tracer& t = tracer();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.file != nullptr) {
    return false;
  }
  t.file = std::fopen(path.c_str(), "w");
  if (t.file == nullptr) {
    return false;
  }
  std::fputs("{\"displayTimeUnit\":\"ms\",\"traceEvents\":[", t.file);
  t.firstEvent = true;
  t.namedThreads.clear();
  // Each trace sums only the parts set while it runs, so that its file stands on its own.
  t.counterParts.clear();
  writeMetadata(t, "process_name", threadId(), program_invocation_short_name);
  publishEnabled(t);
  return true;
}

void stopTrace() {
  Tracer& t = tracer();
  std::lock_guard<std::mutex> lock(t.mutex);
  if (t.file == nullptr) {
    return;
  }
  closeOpen(t);
  std::fputs("\n]}\n", t.file);
  std::fclose(t.file);
  t.file = nullptr;
  publishEnabled(t);
}

TraceListener::TraceListener(std::function<void(TraceEvent const&)> onEventFn, uint32_t kinds)
    : mOnEvent(std::move(onEventFn)), mKinds(kinds) {
  Tracer& t = tracer();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.listeners.insert(this);
  publishEnabled(t);
}

TraceListener::~TraceListener() {
  Tracer& t = tracer();
  std::lock_guard<std::mutex> lock(t.mutex);
  t.listeners.erase(this);
  publishEnabled(t);
}

void TraceListener::onEvent(TraceEvent const& event) {
  mOnEvent(event);
}

}  // namespace host
}  // namespace qelcam
