#include <benchmark/benchmark.h>

#include "BenchSupport.h"

namespace gainmap_bench {
namespace {

constexpr int32_t kLifecycleSensor = 2;
// Each iteration creates or resumes a pool and waits, untimed, for its queue to allocate it and to
// free it again: a fixed count keeps the untimed part bounded.
constexpr int kLifecycleIterations = 300;

// Both caller waits over the same pool shapes, timed call by call.
void callerWaitRuns(benchmark::internal::Benchmark* runs) {
  runs->ArgNames({"batch", "slots"})
      ->Args({1, 1})
      ->Args({8, 10})
      ->Args({8, 100})
      ->Iterations(kLifecycleIterations)
      ->UseManualTime()
      ->Unit(benchmark::kMicrosecond);
}

// Times `call` as the iteration's manual time and keeps the sample; returns what it returned.
template <class Call>
auto timedWait(benchmark::State& state, Samples& waits, Call call) {
  auto const start = Clock::now();
  auto const result = call();
  auto const waited = Clock::now() - start;
  state.SetIterationTime(std::chrono::duration<double>(waited).count());
  waits.add(waited);
  return result;
}

// The caller's wait in createPool: the allocation of every slot runs on the pool's queue after it.
void BM_CreatePoolCallerWait(benchmark::State& state) {
  auto manager = IGainMapBufPoolManager::getInstance();
  auto const params = poolParams(kLifecycleSensor, static_cast<uint32_t>(state.range(0)),
                                 static_cast<uint32_t>(state.range(1)));
  Samples waits(state);
  for (auto _ : state) {
    timedWait(state, waits, [&] { return manager->createPool(params, false); });
    destroyPools();
  }
  waits.report(state, "wait_us", 1e-6);
}
BENCHMARK(BM_CreatePoolCallerWait)->Apply(callerWaitRuns);

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
    int const status =
        timedWait(state, waits, [&] { return manager->resumePool(kLifecycleSensor); });
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
BENCHMARK(BM_ResumePoolCallerWait)->Apply(callerWaitRuns);

}  // namespace
}  // namespace gainmap_bench
