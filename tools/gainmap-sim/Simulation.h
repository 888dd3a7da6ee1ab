#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "Options.h"

namespace gainmapsim {

// What the simulator counts per sensor.
enum class Counter {
  Produced,              // frames handed back with setProducerBuffer and published
  Consumed,              // successful getConsumerBuffer calls
  ProducerNoSlot,        // getProducerBuffer empty while the pool was active
  ProducerReleased,      // getProducerBuffer empty while the schedule had the pool released
  ProducerEmptySlot,     // a slot lent to the producer with nothing in `buffers`
  ProducerSetFailed,     // setProducerBuffer answered -22
  ConsumerRefused,       // getConsumerBuffer empty while the pool was active
  ConsumerReleased,      // getConsumerBuffer empty while the schedule had the pool released
  ConsumerSetFailed,     // setConsumerBuffer answered -22
  NoPool,                // getPool answered empty
  ManagerRefused,        // releasePool or resumePool answered -22
  Releases,              // release and resume cycles of the schedule
  VerificationFailures,  // buffer checks that found another frame's bytes or no address
};
constexpr size_t kCounterCount = 13;

// The lending calls whose latency the simulator measures.
enum class Call { GetPool, GetProducer, SetProducer, GetConsumer, SetConsumer };
constexpr size_t kCallCount = 5;

struct SensorReport {
  int32_t id = 0;
  std::array<uint64_t, kCounterCount> counts{};
  // One more than the largest slot index lent to the producer.
  uint32_t slotsUsed = 0;
  uint32_t maxSlots = 0;
  // Nanoseconds per call; sorted once the run is over.
  std::array<std::vector<int64_t>, kCallCount> latencies;

  uint64_t& operator[](Counter counter) { return counts[static_cast<size_t>(counter)]; }
  uint64_t operator[](Counter counter) const { return counts[static_cast<size_t>(counter)]; }
  // Slots lent and never taken back by the pool.
  uint64_t lostSlots() const {
    return (*this)[Counter::ProducerSetFailed] + (*this)[Counter::ConsumerSetFailed];
  }
};

struct Report {
  std::vector<SensorReport> sensors;
  // Largest image memory alive at any sample taken during the run.
  uint64_t peakImageBytes = 0;
  // Image heaps still alive once every pool was destroyed and the queues ran dry.
  uint64_t heapsLeft = 0;
  uint64_t bytesLeft = 0;
};

Report runSimulation(Options const& options);

}  // namespace gainmapsim
