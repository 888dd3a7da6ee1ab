#include <gtest/gtest.h>
#include <pthread.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <future>
#include <thread>
#include <string>
#include <vector>

#include "HostPlatform.h"
#include "LiblogCapture.h"
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
  std::shared_future<void> future = task->get_future().share();
  auto handle = CentralTaskMgr::asyncPost(queue, 1, [task] { (*task)(); });
  handle->setFuture(future);
  return handle;
}

TEST(HostTaskQueue, BarrierFutureIsReadyOnlyAfterEveryEarlierTask) {
  auto queue = makeQueue("barrier");
  std::vector<int> ran;
  size_t ranBeforeBarrier = 0;

  qelcam::host::holdQueues();
  for (int n = 0; n < 3; ++n) {
    CentralTaskMgr::asyncPost(queue, 1, [&ran, n] { ran.push_back(n); });
  }
  auto barrier = postStep(queue, [&] { ranBeforeBarrier = ran.size(); });
  std::shared_future<void> future = barrier->getFuture();
  ASSERT_TRUE(future.valid());
  EXPECT_EQ(future.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  qelcam::host::releaseQueues();

  future.wait();
  EXPECT_EQ(ranBeforeBarrier, 3u);
  EXPECT_EQ(ran, (std::vector<int>{0, 1, 2}));
}

TEST(HostTaskQueue, DroppingTheLastReferenceFinishesWhatWasPosted) {
  auto queue = makeQueue("drain");
  int ran = 0;
  for (int n = 0; n < 100; ++n) {
    CentralTaskMgr::asyncPost(queue, 1, [&ran] { ++ran; });
  }
  queue.reset();
  EXPECT_EQ(ran, 100);
}

TEST(HostTaskQueue, DroppingTheQueueOnItsOwnThreadNeitherDeadlocksNorStopsItsWork) {
  auto queue = makeQueue("self-drop");
  std::promise<void> laterTaskRan;

  qelcam::host::holdQueues();
  // The first task's callable holds the last reference, so the queue is destroyed on its own
  // thread when that callable goes; the task posted after it still runs.
  std::shared_ptr<TaskQueue> keep = queue;
  CentralTaskMgr::asyncPost(queue, 1, [keep] {});
  CentralTaskMgr::asyncPost(queue, 1, [&laterTaskRan] { laterTaskRan.set_value(); });
  keep.reset();
  queue.reset();
  qelcam::host::releaseQueues();

  laterTaskRan.get_future().wait();
  qelcam::host::waitQueuesIdle();
}

TEST(HostTaskQueue, PostingToNoQueueDropsTheTaskAndBreaksItsPromise) {
  std::shared_ptr<TaskQueue> none;
  bool ran = false;
  LiblogCapture liblog;

  auto handle = postStep(none, [&ran] { ran = true; });
  ASSERT_NE(handle, nullptr);
  std::shared_future<void> future = handle->getFuture();
  future.wait();

  EXPECT_FALSE(ran);
  try {
    future.get();
    ADD_FAILURE() << "a dropped task's future must carry broken_promise";
  } catch (std::future_error const& e) {
    EXPECT_EQ(e.code(), std::future_errc::broken_promise);
  }
  auto lines = liblog.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(lines[0].tag, "QelCam/HostTaskMgr");
  EXPECT_EQ(lines[0].text, "[_asyncPost] no queue, task dropped");
}

// Threads of this process, as the kernel lists them.
size_t threadCount() {
  size_t count = 0;
  for (auto const& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    (void)entry;
    ++count;
  }
  return count;
}

// Runs a task on `queue` and returns once it has run: the workers exist from then on.
void runOnce(std::shared_ptr<TaskQueue>& queue) {
  std::promise<void> ran;
  CentralTaskMgr::asyncPost(queue, 1, [&ran] { ran.set_value(); });
  ran.get_future().wait();
}

TEST(HostCentralTaskMgr, CreatingQueuesStartsNoThread) {
  auto first = makeQueue("first");
  runOnce(first);
  qelcam::host::waitQueuesIdle();
  auto before = qelcam::host::taskWorkerStats();
  size_t threadsBefore = threadCount();

  std::vector<std::shared_ptr<TaskQueue>> queues;
  for (int n = 0; n < 256; ++n) {
    queues.push_back(makeQueue("many"));
  }

  auto after = qelcam::host::taskWorkerStats();
  EXPECT_EQ(after.workersStarted, before.workersStarted);
  EXPECT_LE(threadCount(), threadsBefore);
  EXPECT_EQ(after.queuesAlive, before.queuesAlive + 256);
  queues.clear();
  EXPECT_EQ(qelcam::host::taskWorkerStats().queuesAlive, before.queuesAlive);
}

TEST(HostCentralTaskMgr, ATaskRunsOnAThreadNamedAfterItsQueue) {
  auto first = makeQueue("GMP_0");
  auto second = makeQueue("a-queue-name-longer-than-fifteen");
  auto nameSeenOn = [](std::shared_ptr<TaskQueue>& queue) {
    std::promise<std::string> name;
    CentralTaskMgr::asyncPost(queue, 1, [&name] {
      char buffer[32] = {};
      pthread_getname_np(pthread_self(), buffer, sizeof buffer);
      name.set_value(buffer);
    });
    return name.get_future().get();
  };

  EXPECT_EQ(nameSeenOn(first), "GMP_0");
  EXPECT_EQ(nameSeenOn(second), "a-queue-name-lo");
  EXPECT_EQ(nameSeenOn(first), "GMP_0");
}

TEST(HostCentralTaskMgr, ManyQueuesKeepEachPostersOrderAndRunOneTaskAtATime) {
  constexpr int kQueues = 64;
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 40;
  struct Record {
    std::shared_ptr<TaskQueue> queue;
    // Written only by the queue's tasks, read after waitQueuesIdle.
    std::vector<std::pair<int, int>> ran;
    std::atomic<int> running{0};
    std::atomic<bool> overlapped{false};
  };
  std::vector<Record> records(kQueues);
  for (auto& record : records) {
    record.queue = makeQueue("many");
  }
  std::promise<void> start;
  std::shared_future<void> go = start.get_future().share();

  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      go.wait();
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
  start.set_value();
  for (auto& t : posters) {
    t.join();
  }
  qelcam::host::waitQueuesIdle();

  for (int q = 0; q < kQueues; ++q) {
    auto const& record = records[static_cast<size_t>(q)];
    EXPECT_FALSE(record.overlapped) << "queue " << q;
    ASSERT_EQ(record.ran.size(), static_cast<size_t>(kPosters * kTasksEach)) << "queue " << q;
    std::vector<int> next(kPosters, 0);
    for (auto const& [poster, n] : record.ran) {
      EXPECT_EQ(n, next[static_cast<size_t>(poster)]) << "queue " << q << " poster " << poster;
      next[static_cast<size_t>(poster)] = n + 1;
    }
  }
}

TEST(HostCentralTaskMgr, TasksOfDifferentQueuesRunAtTheSameTime) {
  // Each task waits until every other has started: they can only all finish together.
  constexpr int kQueues = 6;
  std::vector<std::shared_ptr<TaskQueue>> queues;
  std::vector<std::promise<void>> started(kQueues);
  std::vector<std::shared_future<void>> startedFutures;
  for (int q = 0; q < kQueues; ++q) {
    queues.push_back(makeQueue("parallel"));
    startedFutures.push_back(started[static_cast<size_t>(q)].get_future().share());
  }
  std::vector<std::shared_ptr<NSCam::CTM::TaskHandle>> handles;
  for (int q = 0; q < kQueues; ++q) {
    handles.push_back(postStep(queues[static_cast<size_t>(q)], [&, q] {
      started[static_cast<size_t>(q)].set_value();
      for (auto const& other : startedFutures) {
        other.wait();
      }
    }));
  }
  for (auto const& handle : handles) {
    handle->getFuture().get();
  }
}

// One task per queue, each blocked until unpark(); the constructor returns once all of them run,
// which takes as many workers at once.
class ParkedTasks {
 public:
  explicit ParkedTasks(size_t count) : mCount(count), mGate(mUnpark.get_future().share()) {
    for (size_t n = 0; n < count; ++n) {
      mQueues.push_back(makeQueue("parked"));
      CentralTaskMgr::asyncPost(mQueues.back(), 1, [this, gate = mGate] {
        if (mEntered.fetch_add(1) + 1 == mCount) {
          mAllEntered.set_value();
        }
        gate.wait();
      });
    }
    mAllEntered.get_future().wait();
  }
  ~ParkedTasks() {
    unpark();
    mQueues.clear();
  }
  ParkedTasks(ParkedTasks const&) = delete;
  ParkedTasks& operator=(ParkedTasks const&) = delete;

  void unpark() {
    if (!mUnparked) {
      mUnparked = true;
      mUnpark.set_value();
    }
  }

 private:
  size_t const mCount;
  std::atomic<size_t> mEntered{0};
  std::promise<void> mAllEntered;
  std::promise<void> mUnpark;
  std::shared_future<void> mGate;
  bool mUnparked = false;
  std::vector<std::shared_ptr<TaskQueue>> mQueues;
};

TEST(HostCentralTaskMgr, BlockedTasksNeverStarveAnotherQueue) {
  auto probe = makeQueue("probe");
  runOnce(probe);
  auto const before = qelcam::host::taskWorkerStats();
  // One more parked task than there are workers: they all run only if another worker starts.
  ParkedTasks parked(before.workersAlive + 1);
  EXPECT_GT(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);

  // With every worker blocked, another queue still runs, including a task that itself waits on a
  // third queue's barrier, as a pool does when its last reference goes inside another queue's task.
  auto other = makeQueue("other");
  auto waited = postStep(probe, [&other] {
    auto barrier = postStep(other, [] {});
    barrier->getFuture().wait();
  });
  waited->getFuture().get();
}

TEST(HostCentralTaskMgr, SurplusWorkersEndOnceIdleAndTheKeptOnesStillServe) {
  qelcam::host::setTaskWorkerLinger(std::chrono::milliseconds(10));
  auto probe = makeQueue("probe");
  runOnce(probe);
  auto const kept = qelcam::host::taskWorkerStats().workersKept;
  {
    ParkedTasks parked(kept + 2);
    EXPECT_GE(qelcam::host::taskWorkerStats().workersAlive, kept + 2);
  }
  qelcam::host::waitQueuesIdle();

  qelcam::host::waitTaskWorkersAtMost(kept);
  EXPECT_EQ(qelcam::host::taskWorkerStats().workersAlive, kept);
  runOnce(probe);
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
