#include <benchmark/benchmark.h>

#include "BenchSupport.h"

namespace gainmap_bench {
namespace {

constexpr int32_t kLifecycleSensor = 2;
// Each iteration creates or resumes a pool and waits, untimed, for its queue to allocate it and to
// free it again: a fixed count keeps the untimed part bounded.
constexpr int kLifecycleIterations = 300;

// The caller's wait in createPool: the allocation of every slot runs on the pool's queue after it.
void BM_CreatePoolCallerWait(benchmark::State& state) {
  auto manager = IGainMapBufPoolManager::getInstance();
  auto const params = poolParams(kLifecycleSensor, static_cast<uint32_t>(state.range(0)),
                                 static_cast<uint32_t>(state.range(1)));
  Samples waits(state);
  for (auto _ : state) {
    auto const start = Clock::now();
    manager->createPool(params, false);
    auto const waited = Clock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(waited).count());
    waits.add(waited);
    destroyPools();
  }
  waits.report(state, "wait_us", 1e-6);
}
BENCHMARK(BM_CreatePoolCallerWait)
    ->ArgNames({"batch", "slots"})
    ->Args({1, 1})
    ->Args({8, 10})
    ->Args({8, 100})
    ->Iterations(kLifecycleIterations)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

// The caller's wait in resumePool of a released pool: the allocation runs on the pool's queue.
void BM_ResumePoolCallerWait(benchmark::State& state) {
  auto manager = IGainMapBufPoolManager::getInstance();
  // Lagging allocation: the pool starts released, without memory.
  manager->createPool(poolParams(kLifecycleSensor, static_cast<uint32_t>(state.range(0)),
                                 static_cast<uint32_t>(state.range(1))),
                      true);
  qelcam::host::waitQueuesIdle();
  Samples waits(state);
  for (auto _ : state) {
    auto const start = Clock::now();
    int const status = manager->resumePool(kLifecycleSensor);
    auto const waited = Clock::now() - start;
    state.SetIterationTime(std::chrono::duration<double>(waited).count());
    waits.add(waited);
    qelcam::host::waitQueuesIdle();
    if (status != 0 || manager->releasePool(kLifecycleSensor) != 0) {
      state.SkipWithError("the manager refused the pool");
      break;
    }
    qelcam::host::waitQueuesIdle();
  }
  waits.report(state, "wait_us", 1e-6);
  destroyPools();
}
BENCHMARK(BM_ResumePoolCallerWait)
    ->ArgNames({"batch", "slots"})
    ->Args({1, 1})
    ->Args({8, 10})
    ->Args({8, 100})
    ->Iterations(kLifecycleIterations)
    ->UseManualTime()
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace gainmap_bench
