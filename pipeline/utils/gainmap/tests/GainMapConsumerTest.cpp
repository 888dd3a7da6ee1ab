#include <gtest/gtest.h>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapConsumerTest : public PoolTest {};

TEST_F(GainMapConsumerTest, AConsumerMustNameARotationSlotHoldingItsFrame) {
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(produce(*pool, 1000), 0);
  clearLogs();

  for (int index : {-1, 3, 5}) {
    EXPECT_FALSE(pool->getConsumerBuffer(1000, index));
    EXPECT_EQ(count(printed("[onGetConsumerBuffer] [s:3] request invalid index(%d). Number of "
                            "slots(3)",
                            index),
                    kError),
              1);
  }
  EXPECT_EQ(dumps().size(), 3u);

  clearLogs();
  EXPECT_FALSE(pool->getConsumerBuffer(999, 0));
  // No blank between the slot's timestamp and the word "consumer".
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:0] timestamp mismatch, slot timestamp: "
                  "1000consumer timestamp: 999",
                  kError),
            1);
  EXPECT_EQ(dumps(), (std::vector<std::string>{
                         std::string("[s:3] released(0) ") + kDumpHeader +
                         "[0]: (0, 0, 2, 1000, 2), [1]: (0, 0, 2, 0, 2), [2]: (0, 0, 2, 0, 2), "
                         "[3]: (0, 0, 2, 0, 0), [4]: (0, 0, 2, 0, 0), [5]: (0, 0, 2, 0, 0), }"}));

  // A slot no producer has filled yet still carries key 0, and lends under it.
  clearLogs();
  auto unfilled = pool->getConsumerBuffer(0, 1);
  ASSERT_TRUE(unfilled);
  EXPECT_EQ(unfilled->index, 1);
  EXPECT_EQ(stateOf(unfilled).consumerUserCount, 1u);
  EXPECT_EQ(pool->setConsumerBuffer(unfilled), 0);
  EXPECT_TRUE(dumps().empty());
}

TEST_F(GainMapConsumerTest, ASlotTheProducerHoldsCanBeNeitherBorrowedNorReturned) {
  auto pool = createdPool(fourByThree(2, 3));
  auto producing = pool->getProducerBuffer();
  ASSERT_TRUE(producing);
  clearLogs();

  EXPECT_FALSE(pool->getConsumerBuffer(0, 0));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3][i:0] slot has producer user", kError), 1);
  EXPECT_EQ(dumps().size(), 1u);

  EXPECT_EQ(pool->setConsumerBuffer(producing), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3][i:0] slot has producer user (p:1, c:0)", kError), 1);
  EXPECT_EQ(dumps().size(), 2u);
  EXPECT_TRUE(stateOf(producing).producerUser);

  EXPECT_EQ(pool->setProducerBuffer(2000, 2, producing), 0);
  auto reader = pool->getConsumerBuffer(2000, 0);
  ASSERT_TRUE(reader);
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
}

TEST_F(GainMapConsumerTest, EveryBorrowIsReturnedExactlyOnce) {
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(produce(*pool, 1000), 0);
  auto first = pool->getConsumerBuffer(1000, 0);
  auto second = pool->getConsumerBuffer(1000, 0);
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);

  // The producer comes round to the slot while both consumers still read it.
  EXPECT_EQ(produce(*pool, 1001), 1);
  EXPECT_EQ(produce(*pool, 1002), 2);
  clearLogs();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(count("[onGetProducerBuffer] [s:3][i:0] still has consumer users (c:2)", kWarning), 1);

  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  clearLogs();
  EXPECT_EQ(pool->setConsumerBuffer(second), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3][i:0] slot has no consumer user (p:0, c:0)", kError),
            1);
  EXPECT_EQ(dumps().size(), 1u);
  EXPECT_EQ(stateOf(first).consumerUserCount, 0u);

  clearLogs();
  auto madeUp = std::make_shared<NSCam::v3::Utils::IGainMapBufPool::BufSlot>();
  // Slot 3 exists (it was just added to the rotation), slot 4 is beyond it.
  madeUp->index = 4;
  EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3] invalid slot index(4). Number of slots(4)", kError),
            1);
  madeUp->index = -1;
  EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3] invalid slot index(-1). Number of slots(4)", kError),
            1);
  EXPECT_EQ(dumps().size(), 2u);
}

TEST_F(GainMapConsumerTest, AReleasedPoolRefusesBorrowersButTakesBackWhatIsLent) {
  verbose();
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(produce(*pool, 1000), 0);
  auto first = pool->getConsumerBuffer(1000, 0);
  auto second = pool->getConsumerBuffer(1000, 0);
  ASSERT_TRUE(first);
  ASSERT_TRUE(second);

  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  EXPECT_EQ(heapsAdded(), 1u);
  clearLogs();
  EXPECT_FALSE(pool->getConsumerBuffer(1000, 0));
  EXPECT_EQ(count("[onGetConsumerBuffer] [s:3] pool has been marked released", kError), 1);
  EXPECT_EQ(dumps().size(), 1u);

  clearLogs();
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(countContaining("release slot buffers"), 0);
  EXPECT_EQ(heapsAdded(), 1u);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  EXPECT_EQ(count("[onSetConsumerBuffer] [s:3][i:0] pool marked released and no consumer, release "
                  "slot buffers",
                  kDebug),
            1);
  EXPECT_EQ(count("[releaseSlotBuffersLocked] [s:3][i:0] released size (0)", kDebug), 1);
  EXPECT_TRUE(logged(printed("[onSetConsumerBuffer] [s:3][i:0] slot:%p, size:0, c:0",
                             static_cast<void*>(second.get())),
                     kDebug));
  EXPECT_EQ(stateOf(second).buffers, 0u);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  EXPECT_TRUE(dumps().empty());

  // Borrowing is allowed again after a resume, under the old frame key, with fresh memory.
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  auto again = pool->getConsumerBuffer(1000, 0);
  ASSERT_TRUE(again);
  EXPECT_EQ(again->buffers.size(), 2u);
  EXPECT_EQ(pool->setConsumerBuffer(again), 0);
}

}  // namespace
}  // namespace gainmap_test
