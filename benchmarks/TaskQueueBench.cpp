#include <benchmark/benchmark.h>

#include <future>
#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "camsys/TaskMgr.h"

namespace gainmap_bench {
namespace {

using NSCam::CTM::CentralTaskMgr;
using NSCam::CTM::TaskQueue;

std::shared_ptr<TaskQueue> makeQueue() {
  CentralTaskMgr::QueueParam param;
  param.name = "bench";
  param.priority = 1;
  return CentralTaskMgr::createQueue(param);
}

// What a pool pays for its queue: creating it and, at the end, dropping it unused.
void BM_TaskQueueCreateAndDrop(benchmark::State& state) {
  for (auto _ : state) {
    benchmark::DoNotOptimize(makeQueue());
  }
}
BENCHMARK(BM_TaskQueueCreateAndDrop);

// A post to an idle queue and the wait for its task to have run: one wake-up of a worker and one
// of the poster.
void BM_TaskQueuePostAndWait(benchmark::State& state) {
  auto queue = makeQueue();
  for (auto _ : state) {
    std::promise<void> ran;
    CentralTaskMgr::asyncPost(queue, 1, [&ran] { ran.set_value(); });
    ran.get_future().wait();
  }
  qelcam::host::waitQueuesIdle();
}
BENCHMARK(BM_TaskQueuePostAndWait)->UseRealTime();

}  // namespace
}  // namespace gainmap_bench
