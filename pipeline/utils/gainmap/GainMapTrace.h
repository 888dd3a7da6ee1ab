#pragma once

// The pool's trace points. Each runs only while someone records its kind (GMP_TRACE,
// GMP_TRACE_INSTANT), so a pool that nobody traces pays one relaxed load per point (a lending call
// pays one for the whole call) and no log line changes. The events themselves are cold code, kept
// out of the lending paths.

#include <cstdint>

#include "IGainMapBufPool.h"
#include "camsys/Trace.h"

// Runs `statement`, arguments included, only while the timeline is traced.
#define GMP_TRACE(statement)                                                                 \
  do {                                                                                       \
    if (__builtin_expect(NSCam::Utils::Trace::enabled(NSCam::Utils::Trace::kTimeline), 0)) { \
      statement;                                                                             \
    }                                                                                        \
  } while (0)

// Runs `statement` only while instants, such as refusals, are traced.
#define GMP_TRACE_INSTANT(statement)                                                         \
  do {                                                                                       \
    if (__builtin_expect(NSCam::Utils::Trace::enabled(NSCam::Utils::Trace::kInstants), 0)) { \
      statement;                                                                             \
    }                                                                                        \
  } while (0)

namespace gainmap {
namespace trace {

using Slot = NSCam::v3::Utils::IGainMapBufPool::BufSlot;

// Why a lending call was refused, as the refusal's instant event says it.
constexpr char kNotInitialized[] = "not initialised";
constexpr char kReleased[] = "released";
constexpr char kNoSlot[] = "no slot in the rotation";
constexpr char kNotReady[] = "not ready";
constexpr char kHeldByProducer[] = "held by the producer";
constexpr char kHeldByConsumers[] = "held by consumers";
constexpr char kRotationAtMax[] = "rotation at its maximum";
constexpr char kInvalidIndex[] = "invalid index";
constexpr char kStaleTimestamp[] = "stale timestamp";
constexpr char kBuffersReleased[] = "buffers released";
constexpr char kNoBuffersByDesign[] = "no buffers by design";
constexpr char kTooManyValid[] = "valid size exceeds buffers";
constexpr char kNotHeldByProducer[] = "not held by the producer";
constexpr char kNotHeldByConsumer[] = "not held by a consumer";

// A slice over a lending call or a queued step, named by the call and the sensor; it carries the
// slot index and the key once they are known.
class Slice {
 public:
  // A slice that `observed` false leaves out costs no load of the trace switch.
  Slice(char const* call, int32_t sensorId, bool observed = true)
      : mActive(observed && NSCam::Utils::Trace::enabled(NSCam::Utils::Trace::kTimeline)) {
    if (__builtin_expect(mActive, 0)) {
      begin(call, sensorId);
    }
  }
  ~Slice() {
    if (__builtin_expect(mActive, 0)) {
      end(mIndex, mHasKey, mKey);
    }
  }
  Slice(Slice const&) = delete;
  Slice& operator=(Slice const&) = delete;

  void slot(Slot const* lent) {
    if (mActive && lent != nullptr) {
      mIndex = lent->index;
    }
  }
  void slot(int index) {
    if (mActive) {
      mIndex = index;
    }
  }
  void key(long const& key) {
    if (mActive) {
      mKey = key;
      mHasKey = true;
    }
  }

 private:
  // Static, so that the slice's address never escapes: a slice that is never active compiles to
  // nothing.
  __attribute__((cold)) static void begin(char const* call, int32_t sensorId);
  __attribute__((cold)) static void end(int index, bool hasKey, int64_t key);

  bool const mActive;
  int mIndex = -1;
  bool mHasKey = false;
  int64_t mKey = 0;
};

// A refusal of `call`, with its reason and the slot index when there is one.
__attribute__((cold)) void refused(char const* call, int32_t sensorId, char const* reason,
                                   int index = -1);

// Occupancy of a slot: one track per slot for its producer and one for its consumers, who nest.
__attribute__((cold)) void producerTakes(int32_t sensorId, Slot const* slot);
__attribute__((cold)) void producerReturns(int32_t sensorId, Slot const* slot, long key);
__attribute__((cold)) void consumerTakes(int32_t sensorId, Slot const* slot, long key,
                                         size_t consumers);
__attribute__((cold)) void consumerReturns(int32_t sensorId, Slot const* slot,
                                           size_t consumersLeft);
// The pool goes while the slot is still held: its spans end here.
__attribute__((cold)) void holdsDropped(int32_t sensorId, Slot const* slot, bool producer,
                                        size_t consumers);

// The pool's counters: slots in the rotation, and the image bytes a slot holds.
__attribute__((cold)) void rotation(int32_t sensorId, uint32_t slots);
__attribute__((cold)) void slotBytes(int32_t sensorId, Slot const* slot, uint64_t bytes);

}  // namespace trace
}  // namespace gainmap
