#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

class GainMapDestructionTest : public PoolTest {};

TEST_F(GainMapDestructionTest, DestroyingWaitsForQueuedWorkThenGivesEveryByteBack) {
  verbose();
  hold();
  auto pool = std::make_shared<Pool>(fourByThree(2, 3), false);
  std::promise<void> destroying;
  auto destroyed = std::async(std::launch::async, [&, pool = std::move(pool)]() mutable {
    destroying.set_value();
    pool.reset();
    // What the log held at the moment the pool was gone.
    return logged("[operator()] [s:3] async create pool done", kDebug);
  });
  auto started = destroying.get_future();
  getWithin(started, "the destroying thread to start");
  EXPECT_EQ(destroyed.wait_for(std::chrono::seconds(0)), std::future_status::timeout);

  release();
  // The creation ran to its end before the pool went away, and what it made was freed.
  EXPECT_TRUE(getWithin(destroyed, "the pool's destruction"));
  EXPECT_EQ(dumps().size(), 1u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated + 3);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(bytesAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  for (int i = 0; i < 3; ++i) {
    EXPECT_EQ(count(printed("[~GainMapBufPoolImp] [s:3][i:%d] buffers released", i), kDebug), 1);
  }
  EXPECT_EQ(countContaining("buffers released"), 3);
  // An idle pool has no users to report.
  EXPECT_EQ(countContaining("still have users while destructing"), 0);
}

TEST_F(GainMapDestructionTest, DestroyingAReleasedOrSlotlessPoolFreesAndReportsNothing) {
  verbose();
  auto pool = createdPool(fourByThree(2, 3));
  EXPECT_EQ(pool->setPoolReleased(), 0);
  waitIdle();
  clearLogs();
  pool.reset();
  EXPECT_EQ(countContaining("buffers released"), 0);
  EXPECT_EQ(countContaining("while destructing"), 0);
  EXPECT_EQ(heapsAdded(), 0u);

  auto empty = createdPool(fourByThree(2, 0));
  clearLogs();
  empty.reset();
  EXPECT_EQ(countContaining("~GainMapBufPoolImp"), 0);
}

TEST_F(GainMapDestructionTest, BusySlotsAreReportedAndOutliveThePoolWithoutBuffers) {
  auto pool = createdPool(fourByThree(1, 3));
  // Keep slot 0 busy with a consumer so that the rotation grows to all six slots.
  EXPECT_EQ(produce(*pool, 10), 0);
  auto blocker = pool->getConsumerBuffer(10, 0);
  ASSERT_TRUE(blocker);
  EXPECT_EQ(produce(*pool, 11), 1);
  EXPECT_EQ(produce(*pool, 12), 2);
  EXPECT_FALSE(pool->getProducerBuffer());  // adds slot 3
  waitIdle();
  EXPECT_EQ(pool->setConsumerBuffer(blocker), 0);
  EXPECT_EQ(produce(*pool, 13), 0);
  blocker = pool->getConsumerBuffer(13, 0);
  ASSERT_TRUE(blocker);
  EXPECT_EQ(produce(*pool, 14), 1);
  EXPECT_EQ(produce(*pool, 15), 2);
  EXPECT_EQ(produce(*pool, 16), 3);  // adds slot 4
  waitIdle();
  EXPECT_EQ(produce(*pool, 17), 4);  // adds slot 5
  waitIdle();
  EXPECT_EQ(produce(*pool, 18), 5);
  EXPECT_EQ(heapsAdded(), 6u);

  auto firstReader = pool->getConsumerBuffer(18, 5);
  auto secondReader = pool->getConsumerBuffer(18, 5);
  ASSERT_TRUE(firstReader);
  ASSERT_TRUE(secondReader);
  EXPECT_EQ(pool->setConsumerBuffer(blocker), 0);
  blocker.reset();
  EXPECT_EQ(produce(*pool, 19), 0);
  EXPECT_EQ(produce(*pool, 20), 1);
  auto writer = pool->getProducerBuffer();
  ASSERT_TRUE(writer);
  ASSERT_EQ(writer->index, 2);

  clearLogs();
  pool.reset();
  EXPECT_EQ(count("[~GainMapBufPoolImp] [s:3] buffer slots still have users while destructing "
                  "{[2]: (p: 1 c:0), [5]: (p: 0 c:2), }",
                  kInfo),
            1);
  EXPECT_EQ(countContaining("while destructing"), 1);
  // The buffers were freed under the users' hands; the slots themselves live on.
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(bytesAdded(), 0u);
  EXPECT_EQ(lockedAdded(), 0u);
  SlotState written = stateOf(writer);
  EXPECT_EQ(written.index, 2);
  EXPECT_EQ(written.buffers, 0u);
  EXPECT_TRUE(written.producerUser);
  SlotState read = stateOf(firstReader);
  EXPECT_EQ(read.index, 5);
  EXPECT_EQ(read.buffers, 0u);
  EXPECT_EQ(read.consumerUserCount, 2u);
  EXPECT_EQ(read.key, 18);
}

TEST_F(GainMapDestructionTest, AMultiModePoolDropsItsBuffersWithItsSlots) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(1920, 1080)}}, 2, 2));
  EXPECT_EQ(heapsAdded(), 2u);
  auto writer = pool->getProducerBuffer();
  ASSERT_TRUE(writer);
  pool.reset();
  // The slot the client holds keeps its size map; the other slot's heap is gone.
  EXPECT_EQ(writer->buffersBySize.size(), 2u);
  EXPECT_EQ(heapsAdded(), 1u);
  writer.reset();
  EXPECT_EQ(heapsAdded(), 0u);
}

}  // namespace
}  // namespace gainmap_test
