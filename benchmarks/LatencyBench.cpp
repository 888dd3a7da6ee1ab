#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <thread>

#include "BenchSupport.h"

namespace gainmap_bench {
namespace {

constexpr int32_t kLatencySensor = 4;
constexpr int32_t kAllocatingSensor = 5;
// 50 slots of eight 576x432 gain maps: about 100 MB per resume.
constexpr uint32_t kAllocatingBatch = 8;
constexpr uint32_t kAllocatingSlots = 50;

// Another pool of the process that allocates all its memory on its queue and frees it again, over
// and over, until stopped.
class AllocatingNeighbour {
 public:
  AllocatingNeighbour() {
    auto manager = IGainMapBufPoolManager::getInstance();
    // Lagging allocation: created released, without memory.
    manager->createPool(poolParams(kAllocatingSensor, kAllocatingBatch, kAllocatingSlots), true);
    qelcam::host::waitQueuesIdle();
    // One round alone, to know how much memory each round takes and gives back.
    uint64_t const bytesBefore = qelcam::host::heapStats().bytesAlive;
    manager->resumePool(kAllocatingSensor);
    qelcam::host::waitQueuesIdle();
    mBytesPerRound = qelcam::host::heapStats().bytesAlive - bytesBefore;
    manager->releasePool(kAllocatingSensor);
    qelcam::host::waitQueuesIdle();
    mThread = std::thread([this, manager] {
      while (!mStop.load(std::memory_order_relaxed)) {
        manager->resumePool(kAllocatingSensor);
        // Waits for the resume's allocation to finish, then frees it on the queue.
        manager->releasePool(kAllocatingSensor);
        mCycles.fetch_add(1, std::memory_order_relaxed);
      }
    });
  }
  ~AllocatingNeighbour() {
    mStop.store(true, std::memory_order_relaxed);
    mThread.join();
  }
  AllocatingNeighbour(AllocatingNeighbour const&) = delete;
  AllocatingNeighbour& operator=(AllocatingNeighbour const&) = delete;

  uint64_t cycles() const { return mCycles.load(std::memory_order_relaxed); }
  uint64_t bytesPerRound() const { return mBytesPerRound; }

 private:
  // Relaxed: a flag and a counter read on their own, ordered by the join.
  std::atomic<bool> mStop{false};
  std::atomic<uint64_t> mCycles{0};
  uint64_t mBytesPerRound = 0;
  std::thread mThread;
};

// Latency of getProducerBuffer on one thread, alone (0) or while another pool of the process
// allocates and frees about 100 MB on its queue (1); the producer hands every slot back at once.
void BM_ProducerGetLatency(benchmark::State& state) {
  auto pool = createReadyPool(kLatencySensor);
  std::unique_ptr<AllocatingNeighbour> neighbour;
  if (state.range(0) != 0) {
    neighbour = std::make_unique<AllocatingNeighbour>();
  }
  Samples latencies(state);
  long key = 1;
  for (auto _ : state) {
    auto const start = Clock::now();
    auto slot = pool->getProducerBuffer();
    auto const end = Clock::now();
    latencies.add(end - start);
    if (!slot || pool->setProducerBuffer(key++, 1, slot) != 0) {
      state.SkipWithError("the producer was refused");
      break;
    }
  }
  if (neighbour) {
    state.counters["neighbour_cycles"] = static_cast<double>(neighbour->cycles());
    state.counters["neighbour_MB"] = static_cast<double>(neighbour->bytesPerRound()) / 1e6;
    neighbour.reset();
  }
  latencies.report(state, "get_ns", 1e-9);
  pool.reset();
  destroyPools();
}
BENCHMARK(BM_ProducerGetLatency)->ArgName("neighbour_allocates")->Arg(0)->Arg(1)->UseRealTime();

}  // namespace
}  // namespace gainmap_bench
