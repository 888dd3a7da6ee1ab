#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "HostPlatform.h"
#include "camsys/TaskMgr.h"

namespace {

using NSCam::CTM::CentralTaskMgr;
using NSCam::CTM::TaskQueue;

std::shared_ptr<TaskQueue> makeQueue(char const* name) {
  CentralTaskMgr::QueueParam param;
  param.name = name;
  param.priority = 1;
  return CentralTaskMgr::createQueue(param);
}

// Posts `step` the way the library does and hands back the handle that carries its future.
std::shared_ptr<NSCam::CTM::TaskHandle> postStep(std::shared_ptr<TaskQueue>& queue,
                                                 std::function<void()> step) {
  auto task = std::make_shared<std::packaged_task<void()>>(std::move(step));
  auto handle = CentralTaskMgr::asyncPost(queue, 1, [task] { (*task)(); });
  handle->setFuture(task->get_future().share());
  return handle;
}

TEST(HostCentralTaskMgr, ManyQueuesKeepEachPostersOrderAndRunOneTaskAtATime) {
  constexpr int kPosters = 4;
  struct Record {
    std::shared_ptr<TaskQueue> queue = makeQueue("many");
    std::vector<std::vector<int>> ran{kPosters};  // per poster; written only by the queue's tasks
    std::atomic<int> running{0};
  };
  qelcam::host::waitQueuesIdle();
  auto const before = qelcam::host::taskWorkerStats();
  std::vector<Record> records(64);
  auto const created = qelcam::host::taskWorkerStats();
  EXPECT_EQ(created.workersStarted, before.workersStarted) << "creating a queue starts no thread";
  EXPECT_EQ(created.queuesAlive, before.queuesAlive + 64);

  std::vector<int> const numbers = {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15};
  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&records, &numbers, p] {
      for (int n : numbers) {
        for (auto& record : records) {
          CentralTaskMgr::asyncPost(record.queue, 1, [&record, p, n] {
            EXPECT_EQ(record.running++, 0) << "two tasks of one queue at once";
            record.ran[static_cast<size_t>(p)].push_back(n);
            record.running.fetch_sub(1);
          });
        }
      }
    });
  }
  for (auto& poster : posters) {
    poster.join();
  }
  qelcam::host::waitQueuesIdle();
  for (auto const& record : records) {
    EXPECT_EQ(record.ran, std::vector<std::vector<int>>(kPosters, numbers));
  }
}

// One thread drives held queues: it runs a chosen task after its queue's earlier ones, and a wait
// for a held task runs that task on the waiting thread. The rest run on release, a barrier's
// future ready once its queue's earlier tasks have run, on a thread named after the queue.
TEST(HostCentralTaskMgr, HeldQueuesRunWhatACallerChoosesOrWaitsForAndTheRestOnRelease) {
  auto first = makeQueue("driven");
  auto second = makeQueue("GMP_0");
  std::vector<std::string> ran;  // each task's name, "@" and the thread's name if not this one
  auto const step = [&ran, self = pthread_self()](std::string name) {
    return [&ran, self, name] {
      char thread[32] = {};
      if (!pthread_equal(pthread_self(), self)) {
        pthread_getname_np(pthread_self(), thread, sizeof thread);
      }
      ran.push_back(name + "@" + thread);
    };
  };
  qelcam::host::holdQueues();
  postStep(first, step("a1"));
  uint64_t const a2 = qelcam::host::tasksPosted() + 1;
  postStep(first, step("a2"));
  postStep(second, step("b1"));
  auto const a3 = postStep(first, step("a3"));
  auto const b2 = postStep(second, step("b2"))->getFuture();

  EXPECT_TRUE(qelcam::host::runHeldTask(a2));
  EXPECT_FALSE(qelcam::host::runHeldTask(a2));
  EXPECT_EQ(ran, (std::vector<std::string>{"a1@", "a2@"}));
  qelcam::host::setWaitRunsHeldTasks(true);
  a3->getFuture().wait();
  qelcam::host::setWaitRunsHeldTasks(false);
  EXPECT_EQ(b2.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  qelcam::host::releaseQueues();
  b2.wait();
  EXPECT_EQ(ran, (std::vector<std::string>{"a1@", "a2@", "a3@", "b1@GMP_0", "b2@GMP_0"}));
}

// A blocked task keeps its worker: one more blocked task than there are workers runs only if the
// platform starts another, and a task that waits on another queue's barrier still gets it run, as
// a pool's destruction does when its last reference goes inside another queue's task.
TEST(HostCentralTaskMgr, BlockedTasksNeverStarveAnotherQueue) {
  auto const before = qelcam::host::taskWorkerStats();
  size_t const count = before.workersAlive + 1;
  std::promise<void> unpark;
  std::shared_future<void> gate = unpark.get_future().share();
  std::atomic<size_t> entered{0};
  std::promise<void> allEntered;
  std::vector<std::shared_ptr<TaskQueue>> parked;
  for (size_t n = 0; n < count; ++n) {
    parked.push_back(makeQueue("parked"));
    CentralTaskMgr::asyncPost(parked.back(), 1, [&, gate] {
      if (entered.fetch_add(1) + 1 == count) {
        allEntered.set_value();
      }
      gate.wait();
    });
  }
  allEntered.get_future().wait();
  EXPECT_GT(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);

  auto probe = makeQueue("probe");
  auto other = makeQueue("other");
  postStep(probe, [&other] { postStep(other, [] {})->getFuture().wait(); })->getFuture().get();
  unpark.set_value();
  qelcam::host::waitQueuesIdle();
}

}  // namespace
