#include <benchmark/benchmark.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "BenchSupport.h"

namespace gainmap_bench {
namespace {

constexpr int32_t kLendingSensor = 0;

// The lending protocol with nothing but its locks and reference counts: a producer cursor over a
// round-robin rotation under a pool mutex, a mutex per slot, atomics for the pool's state, slots
// handed out and taken back as shared pointers by value. A frame cycle costs the same 7 lock pairs
// and 12 reference-count changes as through the interface; it is the floor the pool is measured
// against.
class PlainModelPool {
 public:
  struct Slot {
    std::mutex lock;
    int32_t index = 0;
    int32_t validSize = 0;
    std::vector<std::shared_ptr<int>> buffers;
    bool producerUser = false;
    size_t consumerUserCount = 0;
    long key = 0;
  };

  PlainModelPool(int32_t slotCount, size_t batchSize) : mSlotCount(slotCount) {
    for (int32_t i = 0; i < slotCount; ++i) {
      auto slot = std::make_shared<Slot>();
      slot->index = i;
      for (size_t b = 0; b < batchSize; ++b) {
        slot->buffers.push_back(std::make_shared<int>(0));
      }
      mSlots.push_back(std::move(slot));
    }
  }

  __attribute__((noinline)) std::shared_ptr<Slot> getProducerBuffer() {
    if (!mbInitialized.load(std::memory_order_acquire) ||
        mbReleased.load(std::memory_order_acquire)) {
      return nullptr;
    }
    std::lock_guard<std::mutex> poolLock(mLock);
    std::shared_ptr<Slot> const& slot = mSlots[mCurrentIndex];
    std::lock_guard<std::mutex> slotLock(slot->lock);
    if (slot->producerUser || slot->consumerUserCount != 0) {
      return nullptr;
    }
    slot->producerUser = true;
    size_t next = mCurrentIndex + 1;
    mCurrentIndex =
        next < static_cast<size_t>(mSlotCount.load(std::memory_order_acquire)) ? next : 0;
    return slot;
  }

  __attribute__((noinline)) int setProducerBuffer(long const& key, int const& validSize,
                                                  std::shared_ptr<Slot> given) {
    Slot& slot = *mSlots[static_cast<size_t>(given->index)];
    std::lock_guard<std::mutex> slotLock(slot.lock);
    if (static_cast<size_t>(validSize) > slot.buffers.size() || !slot.producerUser ||
        slot.consumerUserCount != 0) {
      return -22;
    }
    slot.validSize = validSize;
    slot.producerUser = false;
    slot.key = key;
    return 0;
  }

  __attribute__((noinline)) std::shared_ptr<Slot> getConsumerBuffer(long const& key, int index) {
    if (!mbInitialized.load(std::memory_order_acquire) ||
        mbReleased.load(std::memory_order_acquire) || index < 0 ||
        index >= mSlotCount.load(std::memory_order_acquire)) {
      return nullptr;
    }
    std::shared_ptr<Slot> const& slot = mSlots[static_cast<size_t>(index)];
    std::lock_guard<std::mutex> slotLock(slot->lock);
    if (slot->producerUser || slot->key != key || slot->buffers.empty()) {
      return nullptr;
    }
    ++slot->consumerUserCount;
    return slot;
  }

  __attribute__((noinline)) int setConsumerBuffer(std::shared_ptr<Slot> given) {
    Slot& slot = *mSlots[static_cast<size_t>(given->index)];
    std::lock_guard<std::mutex> slotLock(slot.lock);
    if (slot.producerUser || slot.consumerUserCount == 0) {
      return -22;
    }
    --slot.consumerUserCount;
    return 0;
  }

 private:
  std::mutex mLock;  // guards mCurrentIndex; taken before a slot's lock
  size_t mCurrentIndex = 0;
  std::vector<std::shared_ptr<Slot>> mSlots;  // never resized after construction
  // Read without the pool mutex on every call; acquire pairs with the writers' release.
  std::atomic<int32_t> mSlotCount;
  std::atomic<bool> mbInitialized{true};
  std::atomic<bool> mbReleased{false};
};

// One frame: the producer takes a slot and hands it back stamped, two consumers borrow the frame
// and then return it.
template <class Pool>
bool frameCycle(Pool& pool, long key) {
  auto slot = pool.getProducerBuffer();
  if (!slot || pool.setProducerBuffer(key, 1, slot) != 0) {
    return false;
  }
  int const index = slot->index;
  slot.reset();
  auto first = pool.getConsumerBuffer(key, index);
  auto second = pool.getConsumerBuffer(key, index);
  if (!first || !second) {
    return false;
  }
  return pool.setConsumerBuffer(first) == 0 && pool.setConsumerBuffer(second) == 0;
}

void BM_FrameCycle(benchmark::State& state) {
  auto pool = createReadyPool(kLendingSensor);
  long key = 1;
  for (auto _ : state) {
    if (!frameCycle(*pool, key++)) {
      state.SkipWithError("a lending call was refused");
      break;
    }
  }
  pool.reset();
  destroyPools();
}
BENCHMARK(BM_FrameCycle);

void BM_FrameCyclePlainModel(benchmark::State& state) {
  PlainModelPool pool(3, 1);
  long key = 1;
  for (auto _ : state) {
    if (!frameCycle(pool, key++)) {
      state.SkipWithError("a lending call was refused");
      break;
    }
  }
}
BENCHMARK(BM_FrameCyclePlainModel);

// Nanoseconds per frame cycle over `cycles` cycles on `pool`; none when a call was refused.
template <class Pool>
std::optional<double> timeFrameCycles(Pool& pool, long& key, int cycles) {
  bool lent = true;
  auto const start = Clock::now();
  for (int i = 0; i < cycles; ++i) {
    lent &= frameCycle(pool, key++);
  }
  auto const elapsed = Clock::now() - start;
  if (!lent) {
    return std::nullopt;
  }
  return std::chrono::duration<double, std::nano>(elapsed).count() / cycles;
}

double medianOf(std::vector<double> values) {
  auto middle = values.begin() + static_cast<std::ptrdiff_t>(values.size() / 2);
  std::nth_element(values.begin(), middle, values.end());
  return *middle;
}

// Both frame cycles in one loop: each iteration times a burst through the interface and a burst
// through the plain model, in alternating order. On a shared host the neighbours' load moves
// either figure by more than the gap between them from one second to the next; paired bursts meet
// the same machine. Counters: the median of the bursts' ratios, and each side's median time per
// frame cycle in nanoseconds.
void BM_FrameCycleBesidePlainModel(benchmark::State& state) {
  constexpr int kBurst = 200;
  auto pool = createReadyPool(kLendingSensor);
  PlainModelPool plain(3, 1);
  long key = 1;
  std::vector<double> ratios;
  std::vector<double> poolTimes;
  std::vector<double> plainTimes;
  bool poolFirst = true;
  for (auto _ : state) {
    std::optional<double> poolNs;
    std::optional<double> plainNs;
    if (poolFirst) {
      poolNs = timeFrameCycles(*pool, key, kBurst);
      plainNs = timeFrameCycles(plain, key, kBurst);
    } else {
      plainNs = timeFrameCycles(plain, key, kBurst);
      poolNs = timeFrameCycles(*pool, key, kBurst);
    }
    if (!poolNs || !plainNs) {
      state.SkipWithError("a lending call was refused");
      break;
    }
    poolFirst = !poolFirst;
    ratios.push_back(*poolNs / *plainNs);
    poolTimes.push_back(*poolNs);
    plainTimes.push_back(*plainNs);
  }
  pool.reset();
  destroyPools();
  if (!ratios.empty()) {
    state.counters["ratio"] = medianOf(ratios);
    state.counters["pool_ns"] = medianOf(poolTimes);
    state.counters["plain_ns"] = medianOf(plainTimes);
  }
}
BENCHMARK(BM_FrameCycleBesidePlainModel);

void BM_ProducerCycle(benchmark::State& state) {
  auto pool = createReadyPool(kLendingSensor);
  long key = 1;
  for (auto _ : state) {
    auto slot = pool->getProducerBuffer();
    if (!slot || pool->setProducerBuffer(key++, 1, slot) != 0) {
      state.SkipWithError("the producer was refused");
      break;
    }
  }
  pool.reset();
  destroyPools();
}
BENCHMARK(BM_ProducerCycle);

// Shared by the threads of one consumer run: set up and torn down by thread 0 outside the
// timed loop, whose start and end every thread passes together.
std::shared_ptr<IGainMapBufPool> gConsumerPool;
long const kConsumerKey = 42;
int gConsumerIndex = 0;

void BM_ConsumerCycle(benchmark::State& state) {
  if (state.thread_index() == 0) {
    gConsumerPool = createReadyPool(kLendingSensor);
    auto slot = gConsumerPool->getProducerBuffer();
    gConsumerIndex = slot->index;
    gConsumerPool->setProducerBuffer(kConsumerKey, 1, slot);
  }
  for (auto _ : state) {
    auto slot = gConsumerPool->getConsumerBuffer(kConsumerKey, gConsumerIndex);
    if (!slot || gConsumerPool->setConsumerBuffer(slot) != 0) {
      state.SkipWithError("the consumer was refused");
      break;
    }
  }
  if (state.thread_index() == 0) {
    gConsumerPool.reset();
    destroyPools();
  }
}
// Several threads on one pool contend for the one slot they all borrow.
BENCHMARK(BM_ConsumerCycle)->Threads(1)->Threads(2)->Threads(4)->UseRealTime();

// Consumers of different frames on one pool: each thread borrows its own slot.
std::shared_ptr<IGainMapBufPool> gSpreadPool;

void BM_ConsumerCycleOwnSlot(benchmark::State& state) {
  if (state.thread_index() == 0) {
    gSpreadPool = createReadyPool(kLendingSensor, 1, 4);
    for (long key = 0; key < 4; ++key) {
      gSpreadPool->setProducerBuffer(key, 1, gSpreadPool->getProducerBuffer());
    }
  }
  long const key = state.thread_index();
  int const index = state.thread_index();
  for (auto _ : state) {
    auto slot = gSpreadPool->getConsumerBuffer(key, index);
    if (!slot || gSpreadPool->setConsumerBuffer(slot) != 0) {
      state.SkipWithError("the consumer was refused");
      break;
    }
  }
  if (state.thread_index() == 0) {
    gSpreadPool.reset();
    destroyPools();
  }
}
BENCHMARK(BM_ConsumerCycleOwnSlot)->Threads(2)->Threads(4)->UseRealTime();

// A consumer quoting another frame's timestamp: refused, with every log gate closed.
void BM_RefusedConsumerGet(benchmark::State& state) {
  auto pool = createReadyPool(kLendingSensor);
  pool->setProducerBuffer(7, 1, pool->getProducerBuffer());
  for (auto _ : state) {
    auto slot = pool->getConsumerBuffer(8, 0);
    if (slot) {
      state.SkipWithError("the consumer was lent a slot of another frame");
      break;
    }
  }
  pool.reset();
  destroyPools();
}
BENCHMARK(BM_RefusedConsumerGet);

void BM_ManagerGetPool(benchmark::State& state) {
  auto manager = IGainMapBufPoolManager::getInstance();
  createReadyPool(kLendingSensor);
  for (auto _ : state) {
    benchmark::DoNotOptimize(manager->getPool(kLendingSensor));
  }
  destroyPools();
}
BENCHMARK(BM_ManagerGetPool);

}  // namespace
}  // namespace gainmap_bench
