// What the reference model and the interleaving explorer cannot show: a release that waits for
// the creation still queued, the process ending after our own fatal line, and concurrent first
// calls that make one manager.

#include <gtest/gtest.h>

#include <algorithm>
#include <condition_variable>
#include <cstdlib>
#include <future>
#include <mutex>
#include <set>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using NSCam::v3::Utils::IGainMapBufPoolManager;

class GainMapStoryTest : public PoolTest {};

TEST_F(GainMapStoryTest, AReleaseReturnsOnlyOnceTheCreationStillQueuedHasRun) {
  std::mutex mutex;
  std::condition_variable changed;
  bool begun = false;  // guarded by mutex
  qelcam::host::TraceListener listener([&](qelcam::host::TraceEvent const& event) {
    if (event.phase == 'B' && event.name.rfind("setPoolReleased", 0) == 0) {
      std::lock_guard<std::mutex> lock(mutex);
      begun = true;
      changed.notify_all();
    }
  });
  auto const before = qelcam::host::heapStats();
  holdQueues();
  auto pool = std::make_shared<Pool>(fourByThree(2, 3), false);
  auto released = std::async(std::launch::async, [&] {
    int const status = pool->setPoolReleased();
    // What the log held when the release returned.
    return std::make_pair(status, lines());
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait(lock, [&] { return begun; });
  }
  releaseQueues();
  auto const [status, logged] = released.get();
  EXPECT_EQ(status, 0);
  EXPECT_EQ(std::count(logged.begin(), logged.end(), "5 [operator()] [s:3] async create pool done"),
            1);
  waitQueuesIdle();
  // The creation's heaps, freed by the release that followed it.
  EXPECT_EQ(qelcam::host::heapStats().heapsAlive, before.heapsAlive);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, before.heapsCreated + 3);
}

struct FatalRow {
  void (*act)();
  // Our own last lines before the process ends: the plain text to the logger sink, the fatal
  // notification, then the suffixed text to the assertion.
  char const* lines;
};

TEST_F(GainMapStoryTest, WhatThePoolCannotGoOnWithoutEndsTheProcessAfterItsOwnLines) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FatalRow const rows[] = {
      {[] {
         qelcam::host::failHeapCreates(1);
         createdPool(fourByThree(1, 2));
       },
       "\\[allocSlotBuffersLocked:line-[0-9]+\\] \\[s:3\\]\\[i:0\\] create heap fail\n(.|\n)*"
       "fatal notification 1(.|\n)*create heap fail \\(allocSlotBuffersLocked\\)"
       "\\{#[0-9]+:pipeline/utils/gainmap/GainMapPool\\}"},
      {[] {
         qelcam::host::setGainMapFormats({});
         createdPool(fourByThree(1, 1));
       },
       "\\[determineBufferParams:line-[0-9]+\\] does not support gain map, should not reach here"},
      // With every sink closed, the assertion still ends the process.
      {[] {
         qelcam::host::LogGates closed;
         closed.set(0, 4, 0);
         qelcam::host::setGainMapFormats({});
         createdPool(fourByThree(1, 1));
       },
       "should not reach here \\(determineBufferParams\\)"},
  };
  for (FatalRow const& row : rows) {
    EXPECT_DEATH(row.act(), row.lines);
  }
}

TEST_F(GainMapStoryTest, ConcurrentFirstCallsConstructOneManager) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process, so that this is really the first call.
  EXPECT_EXIT(
      {
        qelcam::host::LogCapture capture;
        std::vector<std::future<IGainMapBufPoolManager*>> callers;
        for (int i = 0; i < 8; ++i) {
          callers.push_back(std::async(std::launch::async,
                                       [] { return IGainMapBufPoolManager::getInstance().get(); }));
        }
        std::set<IGainMapBufPoolManager*> seen;
        for (auto& caller : callers) {
          seen.insert(caller.get());
        }
        int constructions = 0;
        for (auto& record : capture.records()) {
          constructions += record.text.rfind("[GainMapBufPoolMgrImp] 0x", 0) == 0 ? 1 : 0;
        }
        std::exit(seen.size() == 1 && constructions == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

}  // namespace
}  // namespace gainmap_test
