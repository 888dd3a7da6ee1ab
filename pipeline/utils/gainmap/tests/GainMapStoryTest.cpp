// Stories of a pool as its clients meet it, with the literal messages and dumps they see. The
// reference model checks every step of random sequences; these pin the texts by hand, since the
// model shares its arithmetic with the code.

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
using Lines = std::vector<std::string>;

std::string dumpOf(bool released, std::string const& slots) {
  return "D [s:3] released(" + std::to_string(released ? 1 : 0) + ") " + kDumpHeader + slots + "}";
}

class GainMapStoryTest : public PoolTest {};

TEST_F(GainMapStoryTest, EveryRefusalNamesItsCauseAndDumpsThePool) {
  auto pool = createdPool(fourByThree(2, 1));
  clearLogs();
  auto held = pool->getProducerBuffer();
  ASSERT_TRUE(held);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(pool->setProducerBuffer(50, 3, held), -22);
  // The refusals changed nothing: the producer still holds the slot.
  std::string const writing = dumpOf(false, "[0]: (1, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 0), ");
  EXPECT_EQ(
      lines(),
      (Lines{"1 [onGetProducerBuffer] [s:3][i:0] still has producer user", writing,
             "1 [onSetProducerBuffer] [s:3][i:0] user validSize(3) exceeds slot buffer num(2)",
             writing}));

  EXPECT_EQ(pool->setProducerBuffer(50, 2, held), 0);
  auto reader = pool->getConsumerBuffer(50, 0);
  ASSERT_TRUE(reader);
  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(52, 0, held), -22);
  auto madeUp = std::make_shared<NSCam::v3::Utils::IGainMapBufPool::BufSlot>();
  madeUp->index = 1;
  EXPECT_EQ(pool->setProducerBuffer(53, 0, madeUp), -22);
  EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
  EXPECT_FALSE(pool->getConsumerBuffer(50, 1));
  EXPECT_FALSE(pool->getConsumerBuffer(49, 0));
  std::string const reading = dumpOf(false, "[0]: (0, 1, 2, 50, 2), [1]: (0, 0, 2, 0, 0), ");
  EXPECT_EQ(
      lines(),
      (Lines{"1 [onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, c:1)", reading,
             "1 [onSetProducerBuffer] [s:3] invalid slot index(1). Number of slots(1)", reading,
             "1 [onSetConsumerBuffer] [s:3] invalid slot index(1). Number of slots(1)", reading,
             "1 [onGetConsumerBuffer] [s:3] request invalid index(1). Number of slots(1)", reading,
             "1 [onGetConsumerBuffer] [s:3][i:0] timestamp mismatch, slot timestamp: "
             "50consumer timestamp: 49",
             reading}));

  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitQueuesIdle();
  clearLogs();
  EXPECT_EQ(pool->setConsumerBuffer(reader), -22);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_FALSE(pool->getConsumerBuffer(50, 0));
  std::string const released = dumpOf(true, "[0]: (0, 0, 2, 50, 0), [1]: (0, 0, 2, 0, 0), ");
  EXPECT_EQ(
      lines(),
      (Lines{"1 [onSetConsumerBuffer] [s:3][i:0] slot has no consumer user (p:0, c:0)", released,
             "1 [onGetProducerBuffer] [s:3] pool has been marked released", released,
             "1 [onGetConsumerBuffer] [s:3] pool has been marked released", released}));
}

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
  // Our own last line before the process ends.
  char const* line;
};

TEST_F(GainMapStoryTest, WhatThePoolCannotGoOnWithoutEndsTheProcessAfterItsOwnLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FatalRow const rows[] = {
      {[] {
         qelcam::host::failHeapCreates(1);
         auto pool = std::make_shared<Pool>(fourByThree(1, 2), false);
         waitQueuesIdle();
       },
       "\\[allocSlotBuffersLocked:line-[0-9]+\\] \\[s:3\\]\\[i:0\\] create heap fail"},
      {[] {
         qelcam::host::setGainMapFormats({});
         auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
       },
       "\\[determineBufferParams:line-[0-9]+\\] does not support gain map, should not reach here"},
  };
  for (FatalRow const& row : rows) {
    EXPECT_DEATH(row.act(), row.line);
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
