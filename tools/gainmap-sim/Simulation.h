#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <vector>

#include "Options.h"

namespace gainmapsim {

// What the simulator counts per sensor.
enum class Counter {
  FramesDue,            // frame times that passed while the producer ran, at the target rate
  Produced,             // frames handed back with setProducerBuffer and published
  ProducerEmptySlot,    // a slot lent to the producer with nothing in `buffers`
  Consumed,             // successful getConsumerBuffer calls
  ProducerSetFailed,    // setProducerBuffer answered -22
  ConsumerSetFailed,    // setConsumerBuffer answered -22
  NoPool,               // getPool answered empty while the pools should exist
  NoPoolAfterTeardown,  // getPool answered empty after the client tore its pools down
  ManagerRefused,       // releasePool or resumePool answered -22
  Releases,             // release and resume cycles of the schedule
  Corrupted,            // buffer checks that found bytes of another frame, or no address
  FreshUnderOldKey,     // a frame lent after a resume on memory made afresh: zeroes, not its bytes
};
constexpr size_t kCounterCount = 12;

// Why getProducerBuffer or getConsumerBuffer lent nothing, as the pool's trace gives it.
enum class Refusal {
  NotInitialized,
  Released,
  NotReady,
  HeldByProducer,
  HeldByConsumers,
  RotationAtMax,
  StaleTimestamp,
  BuffersReleased,
  NoBuffersByDesign,
  InvalidIndex,
  NoSlot,
  Unexplained,  // no reason was traced
};
constexpr size_t kRefusalCount = 12;

// The reason's text in the trace, and the name of its figure.
char const* refusalText(Refusal refusal);
Refusal refusalOf(std::string const& text);

// The lending calls whose latency the simulator measures.
enum class Call { GetPool, GetProducer, SetProducer, GetConsumer, SetConsumer };
constexpr size_t kCallCount = 5;

struct SensorReport {
  int32_t id = 0;
  size_t modes = 1;
  std::array<uint64_t, kCounterCount> counts{};
  std::array<uint64_t, kRefusalCount> producerRefusals{};
  std::array<uint64_t, kRefusalCount> consumerRefusals{};
  // One more than the largest slot index lent to the producer, and the most the rotation may
  // grow to.
  uint32_t slotsUsed = 0;
  uint32_t maxSlots = 0;
  // Virtual time only: frames due from the warm-up on, and the producer's refusals for busy slots
  // among them, while the rotation grew (or a grown slot was still being allocated) and at its
  // maximum.
  uint64_t dueAfterWarmUp = 0;
  uint64_t droppedGrowing = 0;
  uint64_t droppedAtMax = 0;
  // Nanoseconds per call, and per consumer hold (borrowed until handed back); sorted at the end.
  std::array<std::vector<int64_t>, kCallCount> latencies;
  std::vector<int64_t> holds;

  uint64_t& operator[](Counter counter) { return counts[static_cast<size_t>(counter)]; }
  uint64_t operator[](Counter counter) const { return counts[static_cast<size_t>(counter)]; }
  uint64_t lostSlots() const {
    return (*this)[Counter::ProducerSetFailed] + (*this)[Counter::ConsumerSetFailed];
  }
  uint64_t dropped() const {
    uint64_t const due = (*this)[Counter::FramesDue];
    return due > (*this)[Counter::Produced] ? due - (*this)[Counter::Produced] : 0;
  }
  // Producer refusals because the slot under the cursor was busy or not yet allocated: the
  // rotation is too small for the consumers' holds.
  uint64_t starved() const;
};

// What the optional scenarios saw.
struct ScenarioReport {
  bool reconfigured = false;
  uint64_t producedAfterReconfigure = 0;
  uint64_t replacedPoolsAlive = 0;  // replaced pools still alive once every thread was joined
  bool tornDown = false;
  uint64_t heldAtTeardown = 0;  // slots that consumers held when destroyAllPools ran
  uint64_t producedAfterTeardown = 0;
};

struct Report {
  std::vector<SensorReport> sensors;
  ScenarioReport scenarios;
  // Process-wide: the largest image memory in a sample, and what outlived the pools.
  uint64_t peakImageBytes = 0;
  uint64_t heapsLeft = 0;
  uint64_t bytesLeft = 0;
};

// Real time: threads at the frame rate, buffers written and checked whole.
Report runSimulation(Options const& options);
// Virtual time: one thread, a virtual clock, a few words of each buffer written and checked; the
// same options give the same report. Latencies are not measured.
Report runVirtualSimulation(Options const& options);

}  // namespace gainmapsim
