#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapReleaseResumeTest : public PoolTest {};

TEST_F(GainMapReleaseResumeTest, IdleSlotsLoseTheirMemoryAtOnceHeldSlotsWhenTheirLastUserLeaves) {
  verbose();
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  EXPECT_EQ(writing->index, 1);
  clearLogs();

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(bytesAdded(), 2 * 2 * kMap4x3Bytes);
  EXPECT_EQ(lockedAdded(), 4u);
  EXPECT_EQ(count("[operator()] Wait for CTM createPool/resumePool done", kDebug), 1);
  EXPECT_EQ(count("[operator()] [setPoolReleased] [s:3] async +", kDebug), 1);
  EXPECT_EQ(count("[operator()] [s:3][i:0] still has users (p:0, c: 1)", kDebug), 1);
  EXPECT_EQ(count("[operator()] [s:3][i:1] still has users (p:1, c: 0)", kDebug), 1);
  EXPECT_EQ(count("[operator()] [setPoolReleased] [s:3] async -", kDebug), 1);
  // Every slot object is visited, in or out of the rotation.
  for (int i = 2; i < 6; ++i) {
    EXPECT_EQ(count(printed("[releaseSlotBuffersLocked] [s:3][i:%d] released size (0)", i), kDebug),
              1);
  }
  EXPECT_LT(positionOf("[operator()] Wait for CTM createPool/resumePool done"),
            positionOf("[operator()] [setPoolReleased] [s:3] async +"));
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(1) ") + kDumpHeader +
                                "[0]: (0, 1, 2, 100, 2), [1]: (1, 0, 2, 0, 2), "
                                "[2]: (0, 0, 2, 0, 0), [3]: (0, 0, 2, 0, 0), "
                                "[4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");

  clearLogs();
  EXPECT_EQ(pool->setProducerBuffer(101, 2, writing), 0);
  EXPECT_EQ(
      count("[onSetProducerBuffer] [s:3][i:1] pool marked released, release slot buffers", kDebug),
      1);
  EXPECT_TRUE(logged(printed("[onSetProducerBuffer] [s:3][i:1] slot:%p, size:0, valid size:2",
                             static_cast<void*>(writing.get())),
                     kDebug));
  EXPECT_EQ(stateOf(writing).buffers, 0u);
  EXPECT_EQ(stateOf(writing).key, 101);
  EXPECT_EQ(heapsAdded(), 1u);

  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(bytesAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  // Freed slots stay ready; only their memory is gone.
  EXPECT_TRUE(stateOf(reader).ready);
}

TEST_F(GainMapReleaseResumeTest, ABufferStillReferencedOutlivesTheRelease) {
  auto pool = createdPool(fourByThree(1, 1));
  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  auto kept = slot->buffers[0];
  EXPECT_EQ(pool->setProducerBuffer(1, 1, slot), 0);
  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(stateOf(slot).buffers, 0u);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(lockedAdded(), 0u);
  kept.reset();
  EXPECT_EQ(heapsAdded(), 0u);
}

TEST_F(GainMapReleaseResumeTest, ReleasingTwiceAndResumingAnActivePoolOnlyWarn) {
  auto pool = createdPool(fourByThree(2, 3));
  clearLogs();

  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(count("[operator()] [setPoolResume] [s:3] async +", kDebug), 1);
  EXPECT_EQ(count("[operator()] [s:3] has already been set resume", kWarning), 1);
  EXPECT_EQ(countContaining("[setPoolResume] [s:3] async -"), 0);
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 3);

  clearLogs();
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(count("[operator()] Wait for CTM createPool/resumePool done", kDebug), 2);
  EXPECT_EQ(count("[operator()] [setPoolReleased] [s:3] async +", kDebug), 2);
  EXPECT_EQ(count("[operator()] [s:3] has already been marked released", kWarning), 1);
  EXPECT_EQ(count("[operator()] [setPoolReleased] [s:3] async -", kDebug), 1);
  EXPECT_EQ(heapsAdded(), 0u);

  clearLogs();
  EXPECT_EQ(pool->setPoolResume(), 0);
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(count("[operator()] [setPoolResume] [s:3] async +", kDebug), 2);
  EXPECT_EQ(count("[operator()] [setPoolResume] [s:3] async -", kDebug), 1);
  EXPECT_EQ(count("[operator()] [s:3] has already been set resume", kWarning), 1);
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(lockedAdded(), 6u);
  EXPECT_EQ(dumpNow(*pool),
            std::string("[s:3] released(0) ") + kDumpHeader +
                "[0]: (0, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 2), [2]: (0, 0, 2, 0, 2), "
                "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");
  EXPECT_EQ(produce(*pool, 10), 0);
}

TEST_F(GainMapReleaseResumeTest, ResumeReallocatesEverySlotOfTheRotationIncludingGrownOnes) {
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(produce(*pool, 100), 0);
  auto reader = pool->getConsumerBuffer(100, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(produce(*pool, 101), 1);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 2 joins the rotation
  waitIdle();
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  EXPECT_EQ(heapsAdded(), 3u);

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 0u);
  clearLogs();
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(lockedAdded(), 3u);
  EXPECT_EQ(count("[operator()] [setPoolResume] [s:3] async -", kDebug), 1);
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader +
                                "[0]: (0, 0, 1, 100, 1), [1]: (0, 0, 1, 101, 1), "
                                "[2]: (0, 0, 1, 0, 1), [3]: (0, 0, 1, 0, 0), }");
  EXPECT_EQ(produce(*pool, 102), 0);
  EXPECT_EQ(produce(*pool, 103), 1);
  EXPECT_EQ(produce(*pool, 104), 2);
}

TEST_F(GainMapReleaseResumeTest, ASlotHeldThroughReleaseAndResumeKeepsItsBuffers) {
  auto pool = createdPool(fourByThree(2, 2));
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  auto firstBuffer = writing->buffers[0].get();
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();

  EXPECT_EQ(count("[operator()] [s:3][i:0] slot still has buffer, size:2 (p:1, c:0)", kInfo), 1);
  EXPECT_EQ(heapsAdded(), 2u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 3);
  EXPECT_EQ(writing->buffers[0].get(), firstBuffer);
  EXPECT_EQ(pool->setProducerBuffer(7, 2, writing), 0);
  EXPECT_EQ(stateOf(writing).buffers, 2u);
  EXPECT_EQ(produce(*pool, 8), 1);
}

TEST_F(GainMapReleaseResumeTest, MultiModeResumeAllocatesEverySlotButKeepsTheSizesItStillHas) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 2));
  auto writing = pool->getProducerBuffer();
  ASSERT_TRUE(writing);
  auto tallBuffer = writing->buffersBySize.at(MSize(4000, 3000))[0].get();

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  // The idle slot's buffers of both sizes were unlocked and dropped.
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(lockedAdded(), 2u);
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();

  // `buffers` is empty in every slot of a multi-mode pool, so the held slot is given a new heap
  // too; its sizes are already present, so the new buffers are dropped with that heap.
  EXPECT_EQ(countContaining("slot still has buffer"), 0);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 4);
  EXPECT_EQ(heapsAdded(), 2u);
  // The new buffers of both sizes were locked when they were dropped.
  EXPECT_EQ(droppedLockedAdded(), 2u);
  EXPECT_EQ(writing->buffersBySize.size(), 2u);
  EXPECT_EQ(writing->buffersBySize.at(MSize(4000, 3000))[0].get(), tallBuffer);
  EXPECT_EQ(pool->setProducerBuffer(9, 0, writing), 0);
}

TEST_F(GainMapReleaseResumeTest, LaggingAllocationTakesMemoryOnTheFirstResume) {
  auto pool = createdPool(fourByThree(2, 3), true);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(heapsAdded(), 0u);

  clearLogs();
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(countContaining("has already been set resume"), 0);
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(bytesAdded(), 3 * 2 * kMap4x3Bytes);
  EXPECT_EQ(lockedAdded(), 6u);
  EXPECT_EQ(dumpNow(*pool),
            std::string("[s:3] released(0) ") + kDumpHeader +
                "[0]: (0, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 2), [2]: (0, 0, 2, 0, 2), "
                "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");
  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_TRUE(stateOf(slot).ready);
  EXPECT_EQ(pool->setProducerBuffer(1, 2, slot), 0);
}

TEST_F(GainMapReleaseResumeTest, ReleaseWaitsForACreationStillOnTheQueue) {
  hold();
  auto pool = std::make_shared<Pool>(fourByThree(2, 3), false);
  std::promise<void> calling;
  auto released = std::async(std::launch::async, [&] {
    calling.set_value();
    int status = pool->setPoolReleased();
    // What the log held at the moment the release returned.
    return std::make_pair(status, logged("[operator()] [s:3] async create pool done", kDebug));
  });
  auto started = calling.get_future();
  getWithin(started, "the releasing thread to start");
  EXPECT_EQ(released.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(heapsAdded(), 0u);

  release();
  auto [status, createdFirst] = getWithin(released, "setPoolReleased");
  EXPECT_EQ(status, 0);
  // The creation had run to its end, dump included, before the release returned.
  EXPECT_TRUE(createdFirst);
  EXPECT_EQ(dumps().size(), 1u);
  EXPECT_TRUE(logged("[operator()] Wait for CTM createPool/resumePool done", kDebug));

  waitIdle();
  EXPECT_LT(positionOf("[operator()] [s:3] async create pool done"),
            positionOf("[operator()] [setPoolReleased] [s:3] async +"));
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 3);
  EXPECT_EQ(dumpNow(*pool),
            std::string("[s:3] released(1) ") + kDumpHeader +
                "[0]: (0, 0, 2, 0, 0), [1]: (0, 0, 2, 0, 0), [2]: (0, 0, 2, 0, 0), "
                "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");
}

}  // namespace
}  // namespace gainmap_test
