// Parameters that cannot make a working pool: the geometry is still computed and logged, one error
// names each problem, and the pool then behaves as a pool of no slots.

#include <gtest/gtest.h>

#include <cinttypes>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;

class GainMapParametersTest : public PoolTest {
 protected:
  // Every answer of a pool that lends nothing, and no memory taken or left behind.
  void expectLendsNothing(std::shared_ptr<Pool> pool) {
    EXPECT_EQ(pool->getMaxSlotCount(), 0u);
    EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader + "}");
    clearLogs();
    EXPECT_FALSE(pool->getProducerBuffer());
    EXPECT_EQ(count("[onGetProducerBuffer] [s:3] pool has no slot to lend", kError), 1);
    EXPECT_FALSE(pool->getConsumerBuffer(0, 0));
    EXPECT_EQ(
        count("[onGetConsumerBuffer] [s:3] request invalid index(0). Number of slots(0)", kError),
        1);
    auto madeUp = std::make_shared<IGainMapBufPool::BufSlot>();
    madeUp->index = 0;
    EXPECT_EQ(pool->setProducerBuffer(1, 0, madeUp), -22);
    EXPECT_EQ(
        count("[onSetProducerBuffer] [s:3] invalid slot index(0). Number of slots(0)", kError), 1);
    EXPECT_EQ(pool->setConsumerBuffer(madeUp), -22);
    EXPECT_EQ(
        count("[onSetConsumerBuffer] [s:3] invalid slot index(0). Number of slots(0)", kError), 1);
    EXPECT_EQ(pool->setPoolReleased(), 0);
    EXPECT_EQ(pool->setPoolResume(), 0);
    waitIdle();
    EXPECT_EQ(dumpNow(*pool), std::string("[s:3] released(0) ") + kDumpHeader + "}");
    pool.reset();
    EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated);
    EXPECT_EQ(heapsAdded(), 0u);
  }

  // The errors the constructor logged, in order.
  std::vector<std::string> problems() const {
    std::vector<std::string> out;
    for (auto const& record : logs()) {
      if (record.level == kError && record.text.rfind("[isWorkable] ", 0) == 0) {
        out.push_back(record.text);
      }
    }
    return out;
  }
};

TEST_F(GainMapParametersTest, ASlotCountAtTheLimitGivesAPoolOfNoSlots) {
  auto pool = createdPool(fourByThree(1, 0x80000000u));
  // The geometry and the counts as given, then the problem.
  EXPECT_TRUE(
      logged("[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } "
             "mBatchSize(1), mSlotCount(-2147483648), mMaxSlotCount(0) laggingAlloc(0)",
             kDebug));
  EXPECT_EQ(problems(), std::vector<std::string>{"[isWorkable] [s:3] slotCount(2147483648) is not "
                                                 "below 1024"});
  EXPECT_LT(positionOf("[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } "
                       "mBatchSize(1), mSlotCount(-2147483648), mMaxSlotCount(0) laggingAlloc(0)"),
            positionOf("[isWorkable] [s:3] slotCount(2147483648) is not below 1024"));
  EXPECT_EQ(pool->getBufBatchSize(), 1u);
  expectLendsNothing(pool);

  expectLendsNothing(createdPool(fourByThree(1, 1024)));

  // Just below the limit the pool works; lagging, so that nothing is allocated here.
  pool = createdPool(fourByThree(1, 1023), true);
  EXPECT_TRUE(problems().empty());
  EXPECT_EQ(pool->getMaxSlotCount(), 2046u);
  EXPECT_EQ(IGainMapBufPoolManager::PoolParameters::kSlotCountLimit, 1024u);
}

TEST_F(GainMapParametersTest, SensorSizesThatAreNotPositiveGiveAPoolOfNoSlots) {
  auto pool = createdPool(poolParams({{0, MSize(-4000, 3000)}}, 2, 3));
  EXPECT_EQ(problems(),
            std::vector<std::string>{
                "[isWorkable] [s:3] sensorSizes[0] (-4000x3000) is not a positive size"});
  // The geometry keeps its values: 3000 x 576 / -4000 is -432.
  EXPECT_EQ(pool->getPoolImgParams().at(0).imgSize, MSize(576, -432));
  EXPECT_EQ(pool->getBufBatchSize(), 2u);
  expectLendsNothing(pool);

  for (MSize size : {MSize(4000, 0), MSize(0, 0), MSize(0, 3000), MSize(4000, -3000)}) {
    clearLogs();
    pool = createdPool(poolParams({{0, MSize(4000, 3000)}, {7, size}}, 1, 3));
    EXPECT_EQ(problems(), std::vector<std::string>{printed(
                              "[isWorkable] [s:3] sensorSizes[7] (%dx%d) is not a positive size",
                              size.w, size.h)});
    expectLendsNothing(pool);
  }

  clearLogs();
  pool = createdPool(poolParams({}, 1, 3), true);
  EXPECT_TRUE(
      logged("[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{} mBatchSize(1), "
             "mSlotCount(3), mMaxSlotCount(6) laggingAlloc(1)",
             kDebug));
  EXPECT_EQ(problems(),
            std::vector<std::string>{"[isWorkable] [s:3] sensorSizes has no sensor mode"});
  EXPECT_TRUE(pool->getPoolImgParams().empty());
  EXPECT_EQ(pool->getMaxSlotCount(), 0u);
  // A lagging pool of no slots starts released, and resuming it allocates nothing.
  EXPECT_EQ(lastDump(), std::string("[s:3] released(1) ") + kDumpHeader + "}");
  EXPECT_EQ(pool->setPoolResume(), 0);
  waitIdle();
  expectLendsNothing(pool);
}

TEST_F(GainMapParametersTest, SlotsOfNoBytesOrOfTwoGibibytesGiveAPoolOfNoSlots) {
  struct Case {
    MSize size;
    uint32_t batchSize;
    uint64_t bytes;
    uint32_t computed;
  };
  for (Case const& c : {
           // A gain map of 0 rows.
           Case{MSize(100000, 1), 1, 0, 0},
           // 57600000 rows.
           Case{MSize(1, 100000), 1, 33177600000ull, 3112828928u},
           Case{MSize(4000, 3000), 100000, 24883200000ull, 3408363520u},
           // Wraps to exactly 0.
           Case{MSize(4000, 3000), 4194304, 1043677052928ull, 0},
           // The rows wrap: 4000000 x 576 overflows 32 bits, and -496 rows make 4294681600.
           Case{MSize(4000000, 4000000), 1, 331776, 4294681600u},
           Case{MSize(4000, 3000), 8630, 2147420160ull, 2147420160u},
       }) {
    clearLogs();
    auto pool = createdPool(poolParams({{0, c.size}}, c.batchSize, 3));
    if (c.bytes <= 0x7fffffff && c.bytes == c.computed && c.bytes != 0) {
      // The largest block below 2 GiB still makes a working pool.
      EXPECT_TRUE(problems().empty());
      EXPECT_EQ(pool->getMaxSlotCount(), 6u);
      continue;
    }
    EXPECT_EQ(problems(), std::vector<std::string>{printed(
                              "[isWorkable] [s:3] sensorSizes[0] (%dx%d) with batchSize(%u) gives "
                              "slots of %" PRIu64 " bytes, %u in 32 bits; a slot takes 1 to "
                              "2147483647 bytes",
                              c.size.w, c.size.h, c.batchSize, c.bytes, c.computed)});
    EXPECT_EQ(pool->getBufBatchSize(), c.batchSize);
    expectLendsNothing(pool);
  }
}

TEST_F(GainMapParametersTest, TheManagerFilesAnUnworkablePoolAndDestroysItCleanly) {
  auto manager = IGainMapBufPoolManager::getInstance();
  EXPECT_EQ(manager->createPool(poolParams({{0, MSize(-1, -1)}}, 1, 0x80000000u, 61, 6161), false),
            0);
  waitIdle();
  auto pool = manager->getPool(61);
  ASSERT_TRUE(pool);
  EXPECT_EQ(pool->getMaxSlotCount(), 0u);
  EXPECT_EQ(count("[isWorkable] [s:61] sensorSizes[0] (-1x-1) is not a positive size", kError), 1);
  EXPECT_EQ(count("[isWorkable] [s:61] slotCount(2147483648) is not below 1024", kError), 1);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(manager->releasePool(61), 0);
  EXPECT_EQ(manager->resumePool(61), 0);
  pool.reset();
  EXPECT_EQ(manager->destroyAllPools(6161), 0);
  EXPECT_EQ(heapsAdded(), 0u);
  EXPECT_EQ(qelcam::host::heapStats().heapsCreated, mBaseline.heapsCreated);
}

}  // namespace
}  // namespace gainmap_test
