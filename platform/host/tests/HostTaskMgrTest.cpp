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

TEST(HostTaskQueue, ABarrierIsReadyOnlyAfterEveryEarlierTaskOnAThreadNamedAfterItsQueue) {
  auto queue = makeQueue("GMP_0");
  std::vector<std::string> ran;
  qelcam::host::holdQueues();
  for (char const* name : {"a", "b", "c"}) {
    CentralTaskMgr::asyncPost(queue, 1, [&ran, name] { ran.push_back(name); });
  }
  auto barrier = postStep(queue, [&ran] {
                   char name[32] = {};
                   pthread_getname_np(pthread_self(), name, sizeof name);
                   ran.push_back(name);
                 })->getFuture();
  EXPECT_EQ(barrier.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  qelcam::host::releaseQueues();
  barrier.wait();
  EXPECT_EQ(ran, (std::vector<std::string>{"a", "b", "c", "GMP_0"}));
}

TEST(HostCentralTaskMgr, ManyQueuesKeepEachPostersOrderAndRunOneTaskAtATime) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 40;
  struct Record {
    std::shared_ptr<TaskQueue> queue = makeQueue("many");
    std::vector<std::pair<int, int>> ran;  // written only by the queue's tasks
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
  };
  qelcam::host::waitQueuesIdle();
  auto const before = qelcam::host::taskWorkerStats();
  std::vector<Record> records(64);
  // Creating a queue starts no thread.
  EXPECT_EQ(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);
  EXPECT_EQ(qelcam::host::taskWorkerStats().queuesAlive, before.queuesAlive + 64);

  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&records, p] {
      for (int n = 0; n < kTasksEach; ++n) {
        for (auto& record : records) {
          CentralTaskMgr::asyncPost(record.queue, 1, [&record, p, n] {
            if (record.running.fetch_add(1) != 0) {
              record.overlapped = true;
            }
            record.ran.emplace_back(p, n);
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
    EXPECT_FALSE(record.overlapped);
    std::vector<int> next(kPosters, 0);
    for (auto const& [poster, n] : record.ran) {
      EXPECT_EQ(n, next[static_cast<size_t>(poster)]++) << "poster " << poster;
    }
    EXPECT_EQ(next, std::vector<int>(kPosters, kTasksEach));
  }
}

// Parks a task on each of `count` new queues and returns once all of them run at once, which
// takes as many workers; they go on once `unpark` is ready.
std::vector<std::shared_ptr<TaskQueue>> park(size_t count, std::shared_future<void> unpark) {
  std::vector<std::shared_ptr<TaskQueue>> queues;
  std::vector<std::future<void>> entered;
  for (size_t n = 0; n < count; ++n) {
    auto running = std::make_shared<std::promise<void>>();
    entered.push_back(running->get_future());
    queues.push_back(makeQueue("parked"));
    CentralTaskMgr::asyncPost(queues.back(), 1, [running, unpark] {
      running->set_value();
      unpark.wait();
    });
  }
  for (auto& task : entered) {
    task.wait();
  }
  return queues;
}

TEST(HostCentralTaskMgr, BlockedTasksNeverStarveAnotherQueueAndSurplusWorkersEndOnceIdle) {
  qelcam::host::setTaskWorkerLinger(std::chrono::milliseconds(10));
  auto probe = makeQueue("probe");
  postStep(probe, [] {})->getFuture().wait();
  auto const before = qelcam::host::taskWorkerStats();
  std::promise<void> unpark;
  {
    // One more parked task than there are workers: they all run only if another worker starts.
    auto const parked = park(before.workersAlive + 1, unpark.get_future().share());
    EXPECT_GT(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);
    // With every worker blocked another queue still runs, even a task that waits on a third
    // queue's barrier, as a pool does when its last reference goes inside another queue's task.
    auto other = makeQueue("other");
    postStep(probe, [&other] { postStep(other, [] {})->getFuture().wait(); })->getFuture().wait();
    unpark.set_value();
  }
  qelcam::host::waitQueuesIdle();
  qelcam::host::waitTaskWorkersAtMost(before.workersKept);
  EXPECT_EQ(qelcam::host::taskWorkerStats().workersAlive, before.workersKept);
  postStep(probe, [] {})->getFuture().wait();  // the kept workers still serve
  qelcam::host::setTaskWorkerLinger(std::chrono::seconds(5));
}

// One thread drives held queues: it runs a chosen task after its queue's earlier ones, and a wait
// for a held task runs that task on the waiting thread.
TEST(HostCentralTaskMgr, ACallerRunsHeldTasksItChoosesOrWaitsFor) {
  auto first = makeQueue("driven-a");
  auto second = makeQueue("driven-b");
  std::vector<std::string> ran;  // "?" marks a task run on another thread
  pthread_t const self = pthread_self();
  auto const step = [&ran, self](std::string name) {
    return [&ran, self, name] {
      ran.push_back(name + (pthread_equal(pthread_self(), self) ? "" : "?"));
    };
  };
  qelcam::host::holdQueues();
  postStep(first, step("a1"));
  uint64_t const a2 = qelcam::host::tasksPosted() + 1;
  postStep(first, step("a2"));
  postStep(second, step("b1"));
  auto const a3 = postStep(first, step("a3"));

  EXPECT_TRUE(qelcam::host::runHeldTask(a2));
  EXPECT_FALSE(qelcam::host::runHeldTask(a2));
  EXPECT_EQ(ran, (std::vector<std::string>{"a1", "a2"}));
  qelcam::host::setWaitRunsHeldTasks(true);
  a3->getFuture().wait();
  qelcam::host::setWaitRunsHeldTasks(false);
  EXPECT_EQ(ran, (std::vector<std::string>{"a1", "a2", "a3"}));
  qelcam::host::releaseQueues();
  qelcam::host::waitQueuesIdle();
  EXPECT_EQ(ran.back(), "b1?");
}

}  // namespace
