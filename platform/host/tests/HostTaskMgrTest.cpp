#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <thread>
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

TEST(HostTaskQueue, RunsEachPostersTasksInPostingOrderOneAtATime) {
  constexpr int kPosters = 4;
  constexpr int kTasksEach = 250;
  auto queue = makeQueue("order");
  // Written only by the queue's tasks, read after waitQueuesIdle.
  std::vector<std::pair<int, int>> ran;
  std::atomic<int> running{0};
  std::atomic<bool> overlapped{false};
  std::promise<void> start;
  std::shared_future<void> go = start.get_future().share();

  std::vector<std::thread> posters;
  for (int p = 0; p < kPosters; ++p) {
    posters.emplace_back([&, p] {
      go.wait();
      for (int n = 0; n < kTasksEach; ++n) {
        CentralTaskMgr::asyncPost(queue, 1, [&, p, n] {
          if (running.fetch_add(1) != 0) {
            overlapped = true;
          }
          ran.emplace_back(p, n);
          running.fetch_sub(1);
        });
      }
    });
  }
  start.set_value();
  for (auto& t : posters) {
    t.join();
  }
  qelcam::host::waitQueuesIdle();

  EXPECT_FALSE(overlapped);
  ASSERT_EQ(ran.size(), static_cast<size_t>(kPosters * kTasksEach));
  std::vector<int> next(kPosters, 0);
  for (auto const& [poster, n] : ran) {
    EXPECT_EQ(n, next[poster]) << "poster " << poster;
    next[poster] = n + 1;
  }
  for (int p = 0; p < kPosters; ++p) {
    EXPECT_EQ(next[p], kTasksEach);
  }
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

TEST(HostTaskQueue, WaitQueuesIdleReturnsAfterEveryQueueRanWhatWasPosted) {
  auto first = makeQueue("idle-1");
  auto second = makeQueue("idle-2");
  std::vector<int> firstRan;
  std::vector<int> secondRan;

  qelcam::host::holdQueues();
  for (int n = 0; n < 500; ++n) {
    CentralTaskMgr::asyncPost(first, 1, [&firstRan, n] { firstRan.push_back(n); });
    CentralTaskMgr::asyncPost(second, 1, [&secondRan, n] { secondRan.push_back(n); });
  }
  qelcam::host::releaseQueues();
  qelcam::host::waitQueuesIdle();

  EXPECT_EQ(firstRan.size(), 500u);
  EXPECT_EQ(secondRan.size(), 500u);
}

}  // namespace
