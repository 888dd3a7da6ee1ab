// Stories of a pool as its clients meet it, with the literal messages, dumps and memory they see.
// The reference model checks every step of random sequences; these pin the texts and numbers by
// hand, since the model shares its arithmetic with the code.

#include <gtest/gtest.h>

#include <condition_variable>
#include <cstring>
#include <functional>
#include <future>
#include <mutex>
#include <new>
#include <set>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using NSCam::v3::Utils::IGainMapBufPoolManager;

class GainMapStoryTest : public PoolTest {
 protected:
  static std::string dumpOf(bool released, std::string const& slots) {
    return "[s:3] released(" + std::to_string(released ? 1 : 0) + ") " + kDumpHeader + slots + "}";
  }
};

uint8_t patternByte(int64_t key, size_t buffer, size_t offset) {
  return static_cast<uint8_t>(key * 7 + buffer * 31 + offset);
}

TEST_F(GainMapStoryTest, AFrameTravelsFromTheProducerToTwoConsumersInRoundRobinSlots) {
  auto pool = createdPool(fourByThree(4, 3));
  clearLogs();
  auto produced = pool->getProducerBuffer();
  ASSERT_TRUE(produced);
  EXPECT_EQ(produced->index, 0);
  ASSERT_EQ(produced->buffers.size(), 4u);
  for (size_t b = 0; b < produced->buffers.size(); ++b) {
    auto const& buffer = produced->buffers[b];
    EXPECT_EQ(buffer->getImgSize(), MSize(576, 432));
    EXPECT_EQ(buffer->getImgFormat(), qelcam::host::kFormatGainMap8);
    EXPECT_EQ(buffer->getBufStridesInBytes(0), kStride8);
    ASSERT_EQ(buffer->getBufSizeInBytes(0), kMap4x3Bytes);
    uint8_t* bytes = bytesOf(buffer);
    ASSERT_NE(bytes, nullptr);
    for (size_t i = 0; i < kMap4x3Bytes; ++i) {
      bytes[i] = patternByte(1000, b, i);
    }
  }
  EXPECT_EQ(pool->setProducerBuffer(1000, 4, produced), 0);

  auto first = pool->getConsumerBuffer(1000, 0);
  auto second = pool->getConsumerBuffer(1000, 0);
  ASSERT_TRUE(first);
  ASSERT_EQ(first.get(), second.get());
  EXPECT_EQ(first->validSize, 4);
  EXPECT_EQ(dumpNow(*pool), dumpOf(false,
                                   "[0]: (0, 2, 4, 1000, 4), [1]: (0, 0, 4, 0, 4), "
                                   "[2]: (0, 0, 4, 0, 4), [3]: (0, 0, 4, 0, 0), "
                                   "[4]: (0, 0, 4, 0, 0), [5]: (0, 0, 4, 0, 0), "));
  for (size_t b = 0; b < 4; ++b) {
    uint8_t const* bytes = bytesOf(first->buffers[b]);
    size_t wrong = 0;
    for (size_t i = 0; i < kMap4x3Bytes; ++i) {
      wrong += bytes[i] != patternByte(1000, b, i) ? 1 : 0;
    }
    EXPECT_EQ(wrong, 0u) << "buffer " << b;
  }
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);

  // Frames nobody holds never make the rotation grow.
  std::vector<int> order;
  for (int frame = 1; frame < 7; ++frame) {
    order.push_back(produce(*pool, 1000 + frame));
  }
  EXPECT_EQ(order, (std::vector<int>{1, 2, 0, 1, 2, 0}));
  EXPECT_EQ(heapsAdded(), 3u);
  // Nothing went wrong, so nothing was dumped but what the test asked for.
  EXPECT_EQ(dumps().size(), 1u);
}

TEST_F(GainMapStoryTest, TheProducerIsRefusedAndTheStateDumpedWhenItCannotHaveTheSlot) {
  auto pool = createdPool(fourByThree(2, 1));
  clearLogs();
  auto held = pool->getProducerBuffer();
  ASSERT_TRUE(held);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has producer user", kError), 1);
  EXPECT_EQ(
      dumps(),
      (std::vector<std::string>{dumpOf(false, "[0]: (1, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 0), ")}));

  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(50, -1, held), -22);
  EXPECT_EQ(pool->setProducerBuffer(50, 3, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] user validSize(-1) exceeds slot buffer num(2)",
                  kError),
            1);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] user validSize(3) exceeds slot buffer num(2)",
                  kError),
            1);
  // The refusals changed nothing: the producer still holds the slot.
  EXPECT_EQ(dumps(), std::vector<std::string>(
                         2, dumpOf(false, "[0]: (1, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 0), ")));
  EXPECT_EQ(pool->setProducerBuffer(50, 2, held), 0);

  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(51, 2, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, c:0)", kError),
            1);
  auto consumer = pool->getConsumerBuffer(50, 0);
  ASSERT_TRUE(consumer);
  EXPECT_EQ(pool->setProducerBuffer(52, 0, held), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, c:1)", kError),
            1);
  EXPECT_EQ(lastDump(), dumpOf(false, "[0]: (0, 1, 2, 50, 2), [1]: (0, 0, 2, 0, 0), "));

  clearLogs();
  auto madeUp = std::make_shared<NSCam::v3::Utils::IGainMapBufPool::BufSlot>();
  madeUp->index = 1;
  EXPECT_EQ(pool->setProducerBuffer(53, 0, madeUp), -22);
  EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
  EXPECT_FALSE(pool->getConsumerBuffer(50, 1));
  EXPECT_FALSE(pool->getConsumerBuffer(49, 0));
  EXPECT_EQ(logs().size(), 4u + 4u);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3] invalid slot index(1). Number of slots(1)", kError),
            1);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3] invalid slot index(1). Number of slots(1)", kError),
            1);
  EXPECT_EQ(
      count("[onGetConsumerBuffer] [s:3] request invalid index(1). Number of slots(1)", kError), 1);
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:0] timestamp mismatch, slot timestamp: 50"
                  "consumer timestamp: 49",
                  kError),
            1);
  EXPECT_EQ(pool->setConsumerBuffer(consumer), 0);
  clearLogs();
  EXPECT_EQ(pool->setConsumerBuffer(consumer), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3][i:0] slot has no consumer user (p:0, c:0)", kError),
            1);

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_FALSE(pool->getConsumerBuffer(50, 0));
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has been marked released", kError), 1);
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3] pool has been marked released", kError), 1);
  EXPECT_EQ(dumps(), std::vector<std::string>(
                         2, dumpOf(true, "[0]: (0, 0, 2, 50, 0), [1]: (0, 0, 2, 0, 0), ")));
}

TEST_F(GainMapStoryTest, ABusySlotGrowsTheRotationByOneSlotAllocatedOnTheQueueUpToTheMaximum) {
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(produce(*pool, 101), 1);

  hold();
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_FALSE(pool->getProducerBuffer());
  // Slot 2 joined the rotation at once, and once only; its memory comes later.
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 2);
  EXPECT_EQ(lastDump(), dumpOf(false,
                               "[0]: (0, 1, 1, 100, 1), [1]: (0, 0, 1, 101, 1), "
                               "[2]: (0, 0, 1, 0, 0), [3]: (0, 0, 1, 0, 0), "));
  EXPECT_EQ(heapsAdded(), 2u);

  // The busy slot is not skipped: once free it is the next one lent, then slot 1, then slot 2.
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 102), 0);
  EXPECT_EQ(produce(*pool, 103), 1);
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:2] slot is not ready", kWarning), 1);
  // A consumer that reaches the slot meanwhile finds no buffers in it.
  EXPECT_FALSE(pool->getConsumerBuffer(0, 2));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:2] slot buffers has been released. mbReleased(0)",
                  kDebug),
            1);
  EXPECT_EQ(dumps().size(), 2u);
  release();
  waitIdle();
  EXPECT_EQ(heapsAdded(), 3u);

  // Slot 0 is busy again when the producer takes the last slot: the pool asks for slot 3, the
  // last one it may have, then says its rotation is full on every busy turn.
  reader = pool->getConsumerBuffer(102, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(produce(*pool, 104), 2);
  waitIdle();
  EXPECT_EQ(produce(*pool, 105), 3);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 4u);
  EXPECT_EQ(count("[preAllocOneSlotLocked] [s:3] slot count(4) reach max(4), stop alloc new slot",
                  kError),
            1);
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)", kWarning), 1);
  EXPECT_EQ(lastDump(), dumpOf(false,
                               "[0]: (0, 1, 1, 102, 1), [1]: (0, 0, 1, 103, 1), "
                               "[2]: (0, 0, 1, 104, 1), [3]: (0, 0, 1, 105, 1), "));
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(produce(*pool, 106), 0);
}

TEST_F(GainMapStoryTest, AMultiModePoolLendsViewsOfOneBlockBySensorSize) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)},
                                      {1, MSize(4000, 2250)},
                                      {2, MSize(1920, 1080)},
                                      {3, MSize(4000, 3000)}},
                                     2, 2));
  // One block per slot, sized for the tallest map, whatever the number of modes.
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(bytesAdded(), 2 * 2 * kMap4x3Bytes);

  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_TRUE(slot->useSizeMap);
  EXPECT_TRUE(slot->buffers.empty());
  std::vector<MSize> keys;
  for (auto const& [size, batch] : slot->buffersBySize) {
    keys.push_back(size);
    EXPECT_EQ(batch.size(), 2u);
  }
  // Wider first, then taller first.
  EXPECT_EQ(keys, (std::vector<MSize>{MSize(4000, 3000), MSize(4000, 2250), MSize(1920, 1080)}));
  auto const& tall = slot->buffersBySize.at(MSize(4000, 3000));
  auto const& wide = slot->buffersBySize.at(MSize(4000, 2250));
  EXPECT_EQ(tall[0]->getImgSize(), MSize(576, 432));
  EXPECT_EQ(wide[0]->getImgSize(), MSize(576, 324));
  EXPECT_EQ(slot->buffersBySize.at(MSize(1920, 1080))[0]->getImgSize(), MSize(576, 324));
  // The modes are views of one block: the first map of every mode starts at the block's start.
  EXPECT_NE(bytesOf(tall[0]), nullptr);
  EXPECT_EQ(bytesOf(tall[0]), bytesOf(wide[0]));
  EXPECT_EQ(bytesOf(tall[1]) - bytesOf(tall[0]), static_cast<long>(kMap4x3Bytes));
  EXPECT_EQ(bytesOf(wide[1]) - bytesOf(wide[0]), static_cast<long>(kMap16x9Bytes));
  std::memset(bytesOf(wide[0]), 0x5a, kMap16x9Bytes);
  EXPECT_EQ(bytesOf(tall[0])[kMap16x9Bytes - 1], 0x5a);
  EXPECT_EQ(pool->setProducerBuffer(500, 0, slot), 0);

  // The slot the client holds keeps its size map past the pool; the other slot's heap goes.
  pool.reset();
  EXPECT_EQ(slot->buffersBySize.size(), 3u);
  EXPECT_EQ(heapsAdded(), 1u);
  slot.reset();
  EXPECT_EQ(heapsAdded(), 0u);
}

TEST_F(GainMapStoryTest, IdleSlotsLoseTheirMemoryAtOnceHeldSlotsWhenTheirLastUserLeaves) {
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  auto kept = pool->getConsumerBuffer(100, 0)->buffers[0];
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(bytesAdded(), 2 * 2 * kMap4x3Bytes);
  EXPECT_EQ(lockedAdded(), 4u);
  EXPECT_EQ(dumpNow(*pool), dumpOf(true,
                                   "[0]: (0, 1, 2, 100, 2), [1]: (1, 0, 2, 0, 2), "
                                   "[2]: (0, 0, 2, 0, 0), [3]: (0, 0, 2, 0, 0), "
                                   "[4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), "));

  EXPECT_EQ(pool->setProducerBuffer(101, 2, writing), 0);
  EXPECT_TRUE(writing->buffers.empty());
  EXPECT_EQ(writing->validSize, 2);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(lockedAdded(), 0u);
  // A buffer the client still references keeps its heap past the release.
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(bytesAdded(), 2 * kMap4x3Bytes);
  kept.reset();
  EXPECT_EQ(heapsAdded(), 0u);

  // Resuming brings every slot of the rotation its memory back; the keys stay.
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(bytesAdded(), 3 * 2 * kMap4x3Bytes);
  EXPECT_EQ(dumpNow(*pool), dumpOf(false,
                                   "[0]: (0, 0, 2, 100, 2), [1]: (0, 0, 2, 101, 2), "
                                   "[2]: (0, 0, 2, 0, 2), [3]: (0, 0, 2, 0, 0), "
                                   "[4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), "));
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
  hold();
  auto pool = std::make_shared<Pool>(fourByThree(2, 3), false);
  auto released = std::async(std::launch::async, [&] {
    int const status = pool->setPoolReleased();
    // What the log held when the release returned.
    return std::make_pair(status, count("[operator()] [s:3] async create pool done", kDebug));
  });
  {
    std::unique_lock<std::mutex> lock(mutex);
    waitUntil(
        changed, lock, [&] { return begun; }, "the release to begin");
  }
  release();
  auto const [status, creations] = getWithin(released, "setPoolReleased");
  EXPECT_EQ(status, 0);
  EXPECT_EQ(creations, 1);
  waitIdle();
  // The creation's heaps, freed by the release that followed it.
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 3);
}

TEST_F(GainMapStoryTest, BusySlotsAreReportedAndOutliveThePoolWithoutBuffers) {
  auto pool = createdPool(fourByThree(1, 3));
  EXPECT_EQ(produce(*pool, 10), 0);
  auto firstReader = pool->getConsumerBuffer(10, 0);
  auto secondReader = pool->getConsumerBuffer(10, 0);
  ASSERT_TRUE(firstReader);
  auto writer = pool->getProducerBuffer();
  ASSERT_TRUE(writer);

  clearLogs();
  pool.reset();
  EXPECT_EQ(logs().size(), 1u);
  EXPECT_EQ(count("[~GainMapBufPoolImp] [s:3] buffer slots still have users while destructing "
                  "{[0]: (p: 0 c:2), [1]: (p: 1 c:0), }",
                  kInfo),
            1);
  // The buffers were freed under the users' hands; the slots themselves live on.
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  EXPECT_TRUE(writer->buffers.empty());
  EXPECT_EQ(stateOf(writer).producerUser, true);
  EXPECT_EQ(stateOf(firstReader).consumerUserCount, 2u);
  EXPECT_EQ(stateOf(firstReader).key, 10);

  // A pool with nothing lent says nothing as it goes.
  pool = createdPool(fourByThree(1, 2));
  clearLogs();
  pool.reset();
  EXPECT_TRUE(logs().empty());
}

// Stands in for the platform's logger and throws once the creation task has begun, as an
// allocation that cannot be had would.
class ThrowingLogger : public NSCam::Utils::ULog::ULogger {
 public:
  explicit ThrowingLogger(ULogger* previous) : mPrevious(previous) {}
  void write(uint32_t moduleId, char const* tag, int level, char const* text, int length) override {
    mPrevious->write(moduleId, tag, level, text, length);
    if (std::string(text) == "[operator()] [s:3] async create pool start") {
      throw std::bad_alloc();
    }
  }

 private:
  ULogger* const mPrevious;
};

struct FatalRow {
  char const* what;
  std::function<void()> act;
  // Our own last line before the process ends.
  char const* line;
};

TEST_F(GainMapStoryTest, WhatThePoolCannotGoOnWithoutEndsTheProcessAfterItsOwnLine) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FatalRow const rows[] = {
      {"a heap that cannot be had",
       [] {
         qelcam::host::failHeapCreates(1);
         auto pool = std::make_shared<Pool>(fourByThree(1, 2), false);
         waitIdle();
       },
       "\\[allocSlotBuffersLocked:line-[0-9]+\\] \\[s:3\\]\\[i:0\\] create heap fail"},
      {"no gain-map format",
       [] {
         qelcam::host::setGainMapFormats({});
         auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
       },
       "\\[determineBufferParams:line-[0-9]+\\] does not support gain map, should not reach here"},
      {"a failure inside a queued step",
       [] {
         NSCam::Utils::ULog::ULogger::sULogger =
             new ThrowingLogger(NSCam::Utils::ULog::ULogger::sULogger);
         auto pool = std::make_shared<Pool>(fourByThree(1, 2), false);
         waitIdle();
       },
       "\\[operator\\(\\)\\] \\[s:3\\] async create pool start"},
  };
  for (FatalRow const& row : rows) {
    EXPECT_DEATH(row.act(), row.line) << row.what;
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
