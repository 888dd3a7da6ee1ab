// Tables of literal answers: the geometry of sensor modes, the parameters that cannot make a pool,
// and the debug lines of a pool's life (which the reference model does not compare).

#include <gtest/gtest.h>

#include <map>
#include <sstream>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using qelcam::host::kFormatBlob;
using qelcam::host::kFormatGainMap16;
using qelcam::host::kFormatGainMap8;
using Lines = std::vector<std::string>;

class GainMapTableTest : public PoolTest {
 protected:
  // The lines of one class since the last take, dumps left out; a slot's address reads "<p>".
  Lines take(int level) {
    Lines out;
    for (auto const& record : records()) {
      if (record.level == level && record.text.rfind("[dump] ", 0) != 0) {
        std::string text = record.text;
        size_t const at = text.find("slot:0x");
        if (at != std::string::npos) {
          size_t const end = text.find_first_not_of("0123456789abcdef", at + 7);
          text.replace(at + 5, end - at - 5, "<p>");
        }
        out.push_back(text);
      }
    }
    clearLogs();
    return out;
  }
};

// The geometry of a pool as "mode:WxH/step stride S ... block WxH": each mode's gain map, the
// bytes between two maps of a batch and the row stride, then the one block a slot allocates.
// What every mode shares is checked on the way.
std::string geometryOf(Pool& pool, uint32_t batch, int format) {
  std::ostringstream text;
  auto const params = pool.getPoolImgParams();
  auto const infos = pool.determineImgBufInfos();
  for (auto const& [mode, param] :
       std::map<uint32_t, Pool::ImgParam>(params.begin(), params.end())) {
    auto const& info = infos.at(mode);
    EXPECT_EQ(param.imgFormat, format);
    EXPECT_EQ(param.usage, 0x6000f);
    EXPECT_EQ(info.count, batch);
    EXPECT_EQ(info.startOffset, 0u);
    EXPECT_EQ(info.imgFormat, format);
    EXPECT_EQ(info.imgSize, param.imgSize);
    EXPECT_EQ(info.bufPlanes.count, 1u);
    EXPECT_EQ(info.bufPlanes.planes[0].sizeInBytes, info.bufStep);
    EXPECT_EQ(info.bufPlanes.planes[0].rowStrideInBytes, param.strideInBytes);
    text << mode << ":" << param.imgSize.w << "x" << param.imgSize.h << "/" << info.bufStep
         << " stride " << param.strideInBytes << " ";
  }
  auto const alloc = pool.determineAllocParam();
  EXPECT_EQ(alloc.imgFormat, kFormatBlob);
  EXPECT_EQ(alloc.usage, 0x6000f);
  EXPECT_EQ(alloc.strideInBytes, 0u);
  text << "block " << alloc.imgSize.w << "x" << alloc.imgSize.h;
  return text.str();
}

struct GeometryRow {
  std::unordered_map<uint32_t, MSize> sizes;
  uint32_t batchSize;
  std::vector<int> formats;
  std::string geometry;
};

TEST_F(GainMapTableTest, GainMapsKeepTheAspectAtWidth576AndOneBlockFitsTheTallestBatch) {
  GeometryRow const rows[] = {
      // Equal ratios share one map; whichever 4:3 mode is the worst, the block is the same.
      {{{0, MSize(4000, 2250)}, {1, MSize(4000, 3000)}, {2, MSize(2000, 1500)}},
       4,
       {kFormatGainMap8},
       "0:576x324/186624 stride 576 1:576x432/248832 stride 576 2:576x432/248832 stride 576 "
       "block 995328x1"},
      {{{7, MSize(1920, 1080)}},
       3,
       {kFormatGainMap8},
       "7:576x324/186624 stride 576 block 559872x1"},
      // Batch 0 means one buffer; only the first format counts; 16 bits double the stride.
      {{{0, MSize(4000, 3000)}},
       0,
       {kFormatGainMap16, kFormatGainMap8},
       "0:576x432/497664 stride 1152 block 497664x1"},
      // Heights round up to even; the portrait mode is the worst and sizes the block.
      {{{0, MSize(4000, 1800)}, {1, MSize(3000, 4000)}, {4, MSize(576, 1)}},
       1,
       {kFormatGainMap8},
       "0:576x260/149760 stride 576 1:576x768/442368 stride 576 4:576x2/1152 stride 576 "
       "block 442368x1"},
  };
  for (GeometryRow const& row : rows) {
    qelcam::host::setGainMapFormats(row.formats);
    auto pool = createdPool(poolParams(row.sizes, row.batchSize, 1), true);
    uint32_t const batch = row.batchSize > 1 ? row.batchSize : 1;
    EXPECT_EQ(pool->getBufBatchSize(), batch);
    EXPECT_EQ(geometryOf(*pool, batch, row.formats[0]), row.geometry);
  }
}

struct UnworkableRow {
  std::unordered_map<uint32_t, MSize> sizes;
  uint32_t batchSize;
  uint32_t slotCount;
  Lines problems;
};

TEST_F(GainMapTableTest, ParametersThatCannotMakeAPoolNameEachProblemAndGiveAPoolOfNoSlots) {
  UnworkableRow const rows[] = {
      {{}, 1, 3, {"[isWorkable] [s:3] sensorSizes has no sensor mode"}},
      {{{0, MSize(4000, 3000)}, {7, MSize(0, 3000)}},
       1,
       3,
       {"[isWorkable] [s:3] sensorSizes[7] (0x3000) is not a positive size"}},
      {{{0, MSize(-1, -1)}},
       1,
       0x80000000u,
       {"[isWorkable] [s:3] sensorSizes[0] (-1x-1) is not a positive size",
        "[isWorkable] [s:3] slotCount(2147483648) is not below 1024"}},
      {{{0, MSize(4000, 3000)}}, 1, 1024, {"[isWorkable] [s:3] slotCount(1024) is not below 1024"}},
      {{{0, MSize(4000, 3000)}}, 1, 1023, {}},
      // Slots of no bytes, of 2 GiB and more, and sizes that wrap in 32 bits.
      {{{0, MSize(100000, 1)}},
       1,
       3,
       {"[isWorkable] [s:3] sensorSizes[0] (100000x1) with batchSize(1) gives slots of 0 bytes, 0 "
        "in 32 bits; a slot takes 1 to 2147483647 bytes"}},
      {{{0, MSize(1, 100000)}},
       1,
       3,
       {"[isWorkable] [s:3] sensorSizes[0] (1x100000) with batchSize(1) gives slots of "
        "33177600000 bytes, 3112828928 in 32 bits; a slot takes 1 to 2147483647 bytes"}},
      {{{0, MSize(4000, 3000)}},
       4194304,
       3,
       {"[isWorkable] [s:3] sensorSizes[0] (4000x3000) with batchSize(4194304) gives slots of "
        "1043677052928 bytes, 0 in 32 bits; a slot takes 1 to 2147483647 bytes"}},
      {{{0, MSize(4000000, 4000000)}},
       1,
       3,
       {"[isWorkable] [s:3] sensorSizes[0] (4000000x4000000) with batchSize(1) gives slots of "
        "331776 bytes, 4294681600 in 32 bits; a slot takes 1 to 2147483647 bytes"}},
      // The largest block below 2 GiB still makes a pool.
      {{{0, MSize(4000, 3000)}}, 8630, 3, {}},
  };
  for (UnworkableRow const& row : rows) {
    auto pool = createdPool(poolParams(row.sizes, row.batchSize, row.slotCount), true);
    EXPECT_EQ(take(kError), row.problems);
    EXPECT_EQ(pool->getMaxSlotCount(), row.problems.empty() ? 2 * row.slotCount : 0u);
  }
}

TEST_F(GainMapTableTest, VerboseDebugTellsEveryStepOfAPoolsLife) {
  qelcam::host::setProperty(kDebugProperty, "1");
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(
      take(kDebug),
      (Lines{
          "[determineBufferParams] [s:3] sensor mode(0) sensor size:(4000x3000), gain map "
          "size:(576x432) strideAlignInByte(576)",
          "[determineAllocParam] [s:3] worst size:(576x432), alloc size:(248832x1)",
          "[determineImgBufInfos] [s:3] mode (0), imgBufInfo size:(576x432), count(1), "
          "planes[0].sizeInBytes(248832), planes[0].rowStrideInBytes(576), bufStep(248832)",
          "[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } mBatchSize(1), "
          "mSlotCount(2), mMaxSlotCount(4) laggingAlloc(0)",
          "[operator()] [s:3] async create pool start",
          "[allocSlotBuffersLocked] [s:3][i:0][b:0] buffer created",
          "[allocSlotBuffersLocked] [s:3][i:1][b:0] buffer created",
          "[operator()] [s:3] async create pool done"}));

  // Lend frame 100 to a consumer, then slot 1 to the producer.
  produce(*pool, 100);
  auto reader = pool->getConsumerBuffer(100, 0);
  auto writer = pool->getProducerBuffer();
  EXPECT_EQ(take(kDebug),
            (Lines{"[onGetProducerBuffer] [s:3] current index: 0",
                   "[onGetProducerBuffer] [s:3][i:0] slot:<p>, size:1",
                   "[onSetProducerBuffer] [s:3] key: 100, validSize: 1, slot index: 0",
                   "[onSetProducerBuffer] [s:3][i:0] slot:<p>, size:1, valid size:1",
                   "[onGetConsumerBuffer] index: 0, key: 100",
                   "[onGetConsumerBuffer] [s:3][i:0] slot:<p>, size:1, validSize:1, c:1",
                   "[onGetProducerBuffer] [s:3] current index: 1",
                   "[onGetProducerBuffer] [s:3][i:1] slot:<p>, size:1"}));

  // Slot 0 is still read: the rotation grows.
  pool->getProducerBuffer();
  waitQueuesIdle();
  EXPECT_EQ(take(kDebug), (Lines{"[onGetProducerBuffer] need pre alloc slot",
                                 "[operator()] [s:3] async pre alloc slot(i:2) +",
                                 "[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created",
                                 "[operator()] [s:3] async pre alloc slot(i:2) -"}));

  // Released while both slots are lent.
  pool->setPoolReleased();
  waitQueuesIdle();
  EXPECT_EQ(take(kDebug), (Lines{"[operator()] Wait for CTM createPool/resumePool done",
                                 "[operator()] [setPoolReleased] [s:3] async +",
                                 "[operator()] [s:3][i:0] still has users (p:0, c: 1)",
                                 "[operator()] [s:3][i:1] still has users (p:1, c: 0)",
                                 "[releaseSlotBuffersLocked] [s:3][i:2] released size (0)",
                                 "[releaseSlotBuffersLocked] [s:3][i:3] released size (0)",
                                 "[operator()] [setPoolReleased] [s:3] async -"}));

  // Both slots come back and lose their buffers.
  pool->setConsumerBuffer(reader);
  pool->setProducerBuffer(102, 1, writer);
  EXPECT_EQ(
      take(kDebug),
      (Lines{"[onSetConsumerBuffer] [s:3] consumer slot index(0), slot count(3)",
             "[onSetConsumerBuffer] [s:3][i:0] pool marked released and no consumer, release slot "
             "buffers",
             "[releaseSlotBuffersLocked] [s:3][i:0] released size (0)",
             "[onSetConsumerBuffer] [s:3][i:0] slot:<p>, size:0, c:0",
             "[onSetProducerBuffer] [s:3] key: 102, validSize: 1, slot index: 1",
             "[onSetProducerBuffer] [s:3][i:1] pool marked released, release slot buffers",
             "[releaseSlotBuffersLocked] [s:3][i:1] released size (0)",
             "[onSetProducerBuffer] [s:3][i:1] slot:<p>, size:0, valid size:1"}));

  // Resumed: every slot of the rotation gets buffers again.
  pool->setPoolResume();
  waitQueuesIdle();
  EXPECT_EQ(take(kDebug), (Lines{"[operator()] [setPoolResume] [s:3] async +",
                                 "[allocSlotBuffersLocked] [s:3][i:0][b:0] buffer created",
                                 "[allocSlotBuffersLocked] [s:3][i:1][b:0] buffer created",
                                 "[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created",
                                 "[operator()] [setPoolResume] [s:3] async -"}));

  // Destroyed.
  pool.reset();
  EXPECT_EQ(take(kDebug), (Lines{"[releaseSlotBuffersLocked] [s:3][i:0] released size (0)",
                                 "[~GainMapBufPoolImp] [s:3][i:0] buffers released",
                                 "[releaseSlotBuffersLocked] [s:3][i:1] released size (0)",
                                 "[~GainMapBufPoolImp] [s:3][i:1] buffers released",
                                 "[releaseSlotBuffersLocked] [s:3][i:2] released size (0)",
                                 "[~GainMapBufPoolImp] [s:3][i:2] buffers released"}));

  // A pool whose allocation lags says so as it is made.
  createdPool(fourByThree(1, 2), true);
  EXPECT_EQ(take(kDebug).at(3),
            "[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } mBatchSize(1), "
            "mSlotCount(2), mMaxSlotCount(4) laggingAlloc(1)");
}

}  // namespace
}  // namespace gainmap_test
