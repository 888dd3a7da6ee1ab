#pragma once

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"

namespace gainmap_bench {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Clock = std::chrono::steady_clock;

// Every pool of the benchmarks is created with this key, and destroyed with it at the end of the
// benchmark that made it.
constexpr int32_t kUniKey = 99;

inline IGainMapBufPoolManager::PoolParameters poolParams(int32_t sensorId, uint32_t batchSize,
                                                         uint32_t slotCount) {
  IGainMapBufPoolManager::PoolParameters params;
  params.sensorId = sensorId;
  params.sensorSizes = {{0, NSCam::MSize(4000, 3000)}};
  params.batchSize = batchSize;
  params.slotCount = slotCount;
  params.uniKey = kUniKey;
  return params;
}

// A pool of one 4000x3000 sensor mode whose creation has run.
inline std::shared_ptr<IGainMapBufPool> createReadyPool(int32_t sensorId, uint32_t batchSize = 1,
                                                        uint32_t slotCount = 3) {
  auto manager = IGainMapBufPoolManager::getInstance();
  manager->createPool(poolParams(sensorId, batchSize, slotCount), false);
  qelcam::host::waitQueuesIdle();
  return manager->getPool(sensorId);
}

inline void destroyPools() {
  IGainMapBufPoolManager::getInstance()->destroyAllPools(kUniKey);
  qelcam::host::waitQueuesIdle();
}

// Durations of single calls, reported as percentiles: a mean hides the waits a caller can meet.
class Samples {
 public:
  explicit Samples(benchmark::State const& state) {
    mValues.reserve(static_cast<size_t>(state.max_iterations));
  }

  void add(Clock::duration value) { mValues.push_back(value); }

  // Counters `<name>_p50`, `_p99`, `_p99.9` and `_max`, in `unit` (seconds per unit).
  void report(benchmark::State& state, std::string const& name, double unit) {
    if (mValues.empty()) {
      return;
    }
    for (auto [suffix, fraction] : {std::pair<char const*, double>{"_p50", 0.50},
                                    {"_p99", 0.99},
                                    {"_p99.9", 0.999},
                                    {"_max", 1.0}}) {
      auto at = mValues.begin() +
                static_cast<std::ptrdiff_t>(fraction * static_cast<double>(mValues.size() - 1));
      std::nth_element(mValues.begin(), at, mValues.end());
      state.counters[name + suffix] = std::chrono::duration<double>(*at).count() / unit;
    }
  }

 private:
  std::vector<Clock::duration> mValues;
};

}  // namespace gainmap_bench
