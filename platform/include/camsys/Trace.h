#pragma once

// The camera stack's trace service: slices, async spans, counters, instant events and flows that a
// system trace shows beside the scheduler's tracks. Every call site first asks enabled(), one
// relaxed load, and builds names and arguments only when someone records.

#include <atomic>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace NSCam {
namespace Utils {
namespace Trace {

// What a recorder asks for. Refusals and other instants are cheap and rare, so a tool may follow
// them alone without paying for the timeline of every call.
enum Kind : uint32_t {
  kTimeline = 1u << 0,  // slices, async spans, counters and flows
  kInstants = 1u << 1,
  kAllKinds = kTimeline | kInstants,
};

// The kinds some recorder wants now. Relaxed is enough: a trace point that misses the switch by a
// few instructions only loses or gains one event, and every recorder synchronises its own state
// under its own lock.
extern std::atomic<uint32_t> gEnabled;

inline bool enabled(uint32_t kinds = kAllKinds) {
  return (gEnabled.load(std::memory_order_relaxed) & kinds) != 0;
}

// One named argument of an event: a number, or a text when `text` is not null.
struct Arg {
  char const* name;
  int64_t number;
  char const* text;

  Arg(char const* argName, int64_t value) : name(argName), number(value), text(nullptr) {}
  Arg(char const* argName, char const* value) : name(argName), number(0), text(value) {}
};
using Args = std::initializer_list<Arg>;

// A slice on the calling thread; slices of one thread nest. Arguments given at the end are
// merged into the slice's.
void beginSlice(std::string const& name, Args args = {});
void endSlice(Args args = {});

// A span that may begin and end on different threads. Spans of one `id` in one `category` share a
// track and nest: an end closes the latest open span of that name.
void asyncBegin(char const* category, std::string const& name, uint64_t id, Args args = {});
void asyncEnd(char const* category, std::string const& name, uint64_t id, Args args = {});

// A counter track's value; `series` names what it counts ("slots", "bytes").
void counter(std::string const& name, char const* series, int64_t value);
// A counter whose value is the sum of its parts, each set on its own (one part per slot, say);
// setting a part to the value it has records nothing.
void counterPart(std::string const& name, char const* series, int64_t part, int64_t value);

// A point in time on the calling thread.
void instant(std::string const& name, Args args = {});

// An arrow from the slice open on the thread that calls flowBegin to the slice open on the thread
// that calls flowEnd with the same id.
void flowBegin(char const* category, std::string const& name, uint64_t id);
void flowEnd(char const* category, std::string const& name, uint64_t id);

}  // namespace Trace
}  // namespace Utils
}  // namespace NSCam
