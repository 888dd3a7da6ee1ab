#include <benchmark/benchmark.h>

#include <memory>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"

namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;

constexpr int32_t kUniKey = 99;
constexpr int32_t kSensorId = 0;

// A ready pool of one 4000x3000 sensor mode, three slots of one buffer.
std::shared_ptr<IGainMapBufPool> createReadyPool() {
  auto manager = IGainMapBufPoolManager::getInstance();
  IGainMapBufPoolManager::PoolParameters params;
  params.sensorId = kSensorId;
  params.sensorSizes = {{0, NSCam::MSize(4000, 3000)}};
  params.batchSize = 1;
  params.slotCount = 3;
  params.uniKey = kUniKey;
  manager->createPool(params, false);
  qelcam::host::waitQueuesIdle();
  return manager->getPool(kSensorId);
}

void destroyPools() {
  IGainMapBufPoolManager::getInstance()->destroyAllPools(kUniKey);
  qelcam::host::waitQueuesIdle();
}

void BM_ProducerCycle(benchmark::State& state) {
  auto pool = createReadyPool();
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
    gConsumerPool = createReadyPool();
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
BENCHMARK(BM_ConsumerCycle)->Threads(1)->Threads(2);

void BM_ManagerGetPool(benchmark::State& state) {
  auto manager = IGainMapBufPoolManager::getInstance();
  createReadyPool();
  for (auto _ : state) {
    benchmark::DoNotOptimize(manager->getPool(kSensorId));
  }
  destroyPools();
}
BENCHMARK(BM_ManagerGetPool);

}  // namespace

BENCHMARK_MAIN();
