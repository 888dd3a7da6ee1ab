#include <gtest/gtest.h>

#include <cstdio>
#include <new>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapCreationTest : public PoolTest {};

TEST_F(GainMapCreationTest, BatchSizesZeroAndOneMeanOneBufferAndEightMeansEight) {
  auto zero = createdPool(fourByThree(0, 1));
  EXPECT_EQ(zero->getBufBatchSize(), 1u);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 0, 1, 0, 1), [1]: (0, 0, 1, 0, 0), }");
  EXPECT_EQ(zero->determineAllocParam().imgSize, MSize(kMap4x3Bytes, 1));
  zero.reset();

  auto one = createdPool(fourByThree(1, 1));
  EXPECT_EQ(one->getBufBatchSize(), 1u);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 0, 1, 0, 1), [1]: (0, 0, 1, 0, 0), }");
  one.reset();

  auto eight = createdPool(fourByThree(8, 1));
  EXPECT_EQ(eight->getBufBatchSize(), 8u);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 0, 8, 0, 8), [1]: (0, 0, 8, 0, 0), }");
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(bytesAdded(), 8 * kMap4x3Bytes);
  EXPECT_EQ(lockedAdded(), 8u);
  auto slot = eight->getProducerBuffer();
  ASSERT_TRUE(slot);
  ASSERT_EQ(slot->buffers.size(), 8u);
  for (auto const& buffer : slot->buffers) {
    EXPECT_EQ(buffer->getImgSize(), MSize(576, 432));
    EXPECT_NE(buffer->getBufVA(0), 0u);
  }
  EXPECT_EQ(eight->setProducerBuffer(1, 8, slot), 0);
}

TEST_F(GainMapCreationTest, SlotCountThreeMakesSixSlotsOfWhichThreeHaveBuffers) {
  auto pool = createdPool(fourByThree(2, 3));

  EXPECT_EQ(pool->getMaxSlotCount(), 6u);
  EXPECT_EQ(pool->getUniKey(), 77);
  EXPECT_TRUE(logged("[operator()] [s:3] async create pool start", kDebug));
  EXPECT_TRUE(logged("[operator()] [s:3] async create pool done", kDebug));
  // Creation ends with one dump of the new pool, after its closing message.
  ASSERT_EQ(dumps().size(), 1u);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader +
                            "[0]: (0, 0, 2, 0, 2), [1]: (0, 0, 2, 0, 2), [2]: (0, 0, 2, 0, 2), "
                            "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");
  EXPECT_LT(positionOf("[operator()] [s:3] async create pool done"),
            positionOf("[dump] " + lastDump()));

  // One heap per slot of the rotation, every buffer locked for use.
  EXPECT_EQ(heapsAdded(), 3u);
  EXPECT_EQ(bytesAdded(), 3 * 2 * kMap4x3Bytes);
  EXPECT_EQ(lockedAdded(), 6u);

  for (int i = 0; i < 3; ++i) {
    auto slot = pool->getProducerBuffer();
    ASSERT_TRUE(slot);
    SlotState state = stateOf(slot);
    EXPECT_EQ(state.index, i);
    EXPECT_EQ(state.validSize, 2);
    EXPECT_EQ(state.key, 0);
    EXPECT_EQ(state.buffers, 2u);
    EXPECT_EQ(state.sizeKeys, 0u);
    EXPECT_FALSE(state.useSizeMap);
    EXPECT_TRUE(state.ready);
    EXPECT_TRUE(state.producerUser);
    EXPECT_EQ(slot->reserved[0], 0);
    EXPECT_EQ(slot->reserved[1], 0);
    EXPECT_EQ(pool->setProducerBuffer(100 + i, 2, slot), 0);
  }
}

TEST_F(GainMapCreationTest, TheCtorMessageDescribesTheParameters) {
  auto pool = createdPool(poolParams({{2, MSize(4000, 3000)}}, 0, 4, 9), true);
  EXPECT_TRUE(
      logged("[GainMapBufPoolImp] ctor: mSensorId(9), mSensorSizes{[2]:(4000x3000) } "
             "mBatchSize(1), mSlotCount(4), mMaxSlotCount(8) laggingAlloc(1)",
             kDebug));
  pool.reset();
  clearLogs();

  std::unordered_map<uint32_t, MSize> sizes = {{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}};
  pool = createdPool(poolParams(sizes, 8, 2, -1), false);
  std::string sizesText;
  for (auto const& [mode, size] : std::unordered_map<uint32_t, MSize>(sizes)) {
    sizesText += printed("[%u]:(%dx%d) ", mode, size.w, size.h);
  }
  EXPECT_EQ(count("[GainMapBufPoolImp] ctor: mSensorId(-1), mSensorSizes{" + sizesText +
                      "} mBatchSize(8), mSlotCount(2), mMaxSlotCount(4) laggingAlloc(0)",
                  kDebug),
            1);
}

TEST_F(GainMapCreationTest, LaggingAllocationStartsReleasedWithoutMemory) {
  auto pool = createdPool(fourByThree(2, 3), true);

  EXPECT_EQ(lastDump(), std::string("[s:3] released(1) ") + kDumpHeader +
                            "[0]: (0, 0, 2, 0, 0), [1]: (0, 0, 2, 0, 0), [2]: (0, 0, 2, 0, 0), "
                            "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }");
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(bytesAdded(), 0u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated);

  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_TRUE(logged("[onGetProducerBuffer] [s:3] pool has been marked released", kError));
  EXPECT_EQ(dumps().size(), 1u);
}

TEST_F(GainMapCreationTest, ProducersAndConsumersAreRefusedUntilTheCreationTaskHasRun) {
  hold();
  auto pool = std::make_shared<Pool>(fourByThree(2, 3), false);

  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has not been initialized", kWarning), 1);
  EXPECT_FALSE(pool->getConsumerBuffer(0, 0));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3] pool has not been initialized", kWarning), 1);
  // The get paths stay silent about a pool that has nothing to show yet.
  EXPECT_TRUE(dumps().empty());

  // A slot the client made up: in range, but the pool has no slots yet.
  auto madeUp = std::make_shared<NSCam::v3::Utils::IGainMapBufPool::BufSlot>();
  madeUp->index = 0;
  EXPECT_EQ(pool->setProducerBuffer(5, 0, madeUp), -22);
  EXPECT_EQ(count("[onSetProducerBuffer] [s:3] pool has not been initialized", kWarning), 1);
  // A set path dumps on every failure; the slot list is still empty.
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader + "}");
  EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3] pool has not been initialized", kWarning), 1);
  EXPECT_EQ(dumps().size(), 2u);
  EXPECT_EQ(heapsAdded(), 0u);

  release();
  waitIdle();
  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_EQ(slot->index, 0);
  EXPECT_EQ(heapsAdded(), 3u);
}

TEST_F(GainMapCreationTest, APoolWithoutSlotsIsActiveButHasNothingToLend) {
  auto pool = createdPool(fourByThree(2, 0));

  EXPECT_EQ(pool->getMaxSlotCount(), 0u);
  EXPECT_EQ(lastDump(), std::string("[s:3] released(0) ") + kDumpHeader + "}");
  EXPECT_EQ(heapsAdded(), 0u);

  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has no slot to lend", kError), 1);
  EXPECT_EQ(dumps().size(), 1u);
  EXPECT_EQ(countContaining("reach max"), 0);

  EXPECT_FALSE(pool->getConsumerBuffer(0, 0));
  EXPECT_EQ(
      count("[onGetConsumerBuffer] [s:3] request invalid index(0). Number of slots(0)", kError), 1);
  EXPECT_EQ(pool->setPoolReleased(), 0);
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader + "}");
}

TEST_F(GainMapCreationTest, AFailedBufferLockIsLoggedAndTheSlotStillServes) {
  verbose();
  qelcam::host::failLockBufAt(2);
  auto pool = createdPool(fourByThree(4, 2));

  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(count(printed("[allocSlotBuffersLocked] [s:3][i:%d][b:2] lockBuf failed", i), kError),
              1);
    for (int b = 0; b < 4; ++b) {
      EXPECT_EQ(
          count(printed("[allocSlotBuffersLocked] [s:3][i:%d][b:%d] buffer created", i, b), kDebug),
          1);
    }
  }
  EXPECT_EQ(countContaining("lockBuf failed"), 2);
  EXPECT_EQ(lockedAdded(), 6u);
  EXPECT_EQ(heapsAdded(), 2u);

  auto slot = pool->getProducerBuffer();
  ASSERT_TRUE(slot);
  EXPECT_TRUE(stateOf(slot).ready);
  ASSERT_EQ(slot->buffers.size(), 4u);
  EXPECT_EQ(slot->buffers[2]->getBufVA(0), 0u);
  EXPECT_NE(slot->buffers[3]->getBufVA(0), 0u);
}

TEST_F(GainMapCreationTest, AHeapThatCannotBeHadEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        qelcam::host::failHeapCreates(1);
        auto pool = std::make_shared<Pool>(fourByThree(1, 2), false);
        waitIdle();
      },
      "\\[allocSlotBuffersLocked:line-[0-9]+\\] \\[s:3\\]\\[i:0\\] create heap fail");
}

TEST_F(GainMapCreationTest, AFailureInsideAQueuedStepEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The creation task fails half-way, as an allocation that cannot be had would.
  EXPECT_DEATH(
      {
        ScriptedLogger script;
        script.onLine("[operator()] [s:3] async create pool start", [] { throw std::bad_alloc(); });
        auto pool = std::make_shared<Pool>(fourByThree(1, 2), false);
        waitIdle();
        std::fprintf(stderr, "the pool lived on, initialised: %d\n",
                     pool->getProducerBuffer() != nullptr);
      },
      "terminate called after throwing an instance of 'std::bad_alloc'");
}

}  // namespace
}  // namespace gainmap_test
