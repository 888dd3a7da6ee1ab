#include <gtest/gtest.h>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using qelcam::host::kFormatBlob;
using qelcam::host::kFormatGainMap16;
using qelcam::host::kFormatGainMap8;

class GainMapGeometryTest : public PoolTest {};

TEST_F(GainMapGeometryTest, FourByThreeAndSixteenByNineShareOneBlockSizedForTheTallerMap) {
  verbose();
  // Lagging allocation: the geometry is all this test looks at, no memory is needed.
  auto pool = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 4, 3), true);

  auto worst = pool->determineWorstSensorSize();
  EXPECT_EQ(worst.first, 0u);
  EXPECT_EQ(worst.second, MSize(4000, 3000));

  auto params = pool->getPoolImgParams();
  ASSERT_EQ(params.size(), 2u);
  EXPECT_EQ(params.at(0).imgFormat, kFormatGainMap8);
  EXPECT_EQ(params.at(0).imgSize, MSize(576, 432));
  EXPECT_EQ(params.at(0).strideInBytes, 576u);
  EXPECT_EQ(params.at(0).usage, 0x6000f);
  EXPECT_EQ(params.at(1).imgFormat, kFormatGainMap8);
  EXPECT_EQ(params.at(1).imgSize, MSize(576, 324));
  EXPECT_EQ(params.at(1).strideInBytes, 576u);
  EXPECT_EQ(params.at(1).usage, 0x6000f);

  auto alloc = pool->determineAllocParam();
  EXPECT_EQ(alloc.imgFormat, kFormatBlob);
  EXPECT_EQ(alloc.imgSize, MSize(432 * 576 * 4, 1));
  EXPECT_EQ(alloc.usage, 0x6000f);
  EXPECT_EQ(alloc.strideInBytes, 0u);

  auto infos = pool->determineImgBufInfos();
  ASSERT_EQ(infos.size(), 2u);
  auto const& tall = infos.at(0);
  EXPECT_EQ(tall.count, 4u);
  EXPECT_EQ(tall.bufStep, 248832u);
  EXPECT_EQ(tall.startOffset, 0u);
  EXPECT_EQ(tall.bufPlanes.count, 1u);
  EXPECT_EQ(tall.bufPlanes.planes[0].sizeInBytes, 248832u);
  EXPECT_EQ(tall.bufPlanes.planes[0].rowStrideInBytes, 576u);
  EXPECT_EQ(tall.bufPlanes.planes[1].sizeInBytes, 0u);
  EXPECT_EQ(tall.imgFormat, kFormatGainMap8);
  EXPECT_EQ(tall.imgSize, MSize(576, 432));
  auto const& wide = infos.at(1);
  EXPECT_EQ(wide.count, 4u);
  EXPECT_EQ(wide.bufStep, 186624u);
  EXPECT_EQ(wide.bufPlanes.planes[0].sizeInBytes, 186624u);
  EXPECT_EQ(wide.imgSize, MSize(576, 324));
  // Every mode's batch fits the one block of a slot.
  EXPECT_LE(wide.count * wide.bufStep, static_cast<size_t>(alloc.imgSize.w));
  EXPECT_EQ(tall.count * tall.bufStep, static_cast<size_t>(alloc.imgSize.w));

  // What the construction told the log with verbose debug on.
  EXPECT_TRUE(
      logged("[determineBufferParams] [s:3] sensor mode(0) sensor size:(4000x3000), gain "
             "map size:(576x432) strideAlignInByte(576)",
             kDebug));
  EXPECT_TRUE(
      logged("[determineBufferParams] [s:3] sensor mode(1) sensor size:(4000x2250), gain "
             "map size:(576x324) strideAlignInByte(576)",
             kDebug));
  EXPECT_TRUE(
      logged("[determineAllocParam] [s:3] worst size:(576x432), alloc size:(995328x1)", kDebug));
  EXPECT_TRUE(
      logged("[determineImgBufInfos] [s:3] mode (0), imgBufInfo size:(576x432), count(4), "
             "planes[0].sizeInBytes(248832), planes[0].rowStrideInBytes(576), "
             "bufStep(248832)",
             kDebug));
  EXPECT_TRUE(
      logged("[determineImgBufInfos] [s:3] mode (1), imgBufInfo size:(576x324), count(4), "
             "planes[0].sizeInBytes(186624), planes[0].rowStrideInBytes(576), "
             "bufStep(186624)",
             kDebug));
}

TEST_F(GainMapGeometryTest, GeometryMessagesStayQuietWithoutTheDebugProperty) {
  auto pool = createdPool(fourByThree(1, 1), true);
  EXPECT_EQ(countContaining("strideAlignInByte"), 0);
  EXPECT_EQ(countContaining("alloc size:"), 0);
  EXPECT_EQ(countContaining("imgBufInfo size:"), 0);
}

TEST_F(GainMapGeometryTest, EqualAspectRatiosKeepTheModeMetFirst) {
  std::unordered_map<uint32_t, MSize> sizes = {{0, MSize(4000, 2250)},
                                               {1, MSize(4000, 3000)},
                                               {2, MSize(2000, 1500)},
                                               {3, MSize(1600, 1200)}};
  auto pool = createdPool(poolParams(sizes, 1, 1), true);

  // The pool iterates its own copy of the map; a copy of the same map meets the modes in the
  // same order, and the first 4:3 mode met is the worst.
  std::unordered_map<uint32_t, MSize> copy = sizes;
  uint32_t firstFourByThree = 0;
  for (auto const& [mode, size] : copy) {
    if (size.w * 3 == size.h * 4) {
      firstFourByThree = mode;
      break;
    }
  }
  auto worst = pool->determineWorstSensorSize();
  EXPECT_EQ(worst.first, firstFourByThree);
  EXPECT_EQ(worst.second, sizes.at(firstFourByThree));

  // All three 4:3 modes have the same gain map; the block is sized for it.
  auto params = pool->getPoolImgParams();
  EXPECT_EQ(params.at(1).imgSize, MSize(576, 432));
  EXPECT_EQ(params.at(2).imgSize, MSize(576, 432));
  EXPECT_EQ(params.at(3).imgSize, MSize(576, 432));
  EXPECT_EQ(pool->determineAllocParam().imgSize, MSize(432 * 576, 1));
}

TEST_F(GainMapGeometryTest, ASingleModeIsItsOwnWorstMode) {
  auto pool = createdPool(poolParams({{7, MSize(1920, 1080)}}, 3, 2), true);

  auto worst = pool->determineWorstSensorSize();
  EXPECT_EQ(worst.first, 7u);
  EXPECT_EQ(worst.second, MSize(1920, 1080));
  auto params = pool->getPoolImgParams();
  ASSERT_EQ(params.size(), 1u);
  EXPECT_EQ(params.at(7).imgSize, MSize(576, 324));
  EXPECT_EQ(pool->determineAllocParam().imgSize, MSize(324 * 576 * 3, 1));
  auto infos = pool->determineImgBufInfos();
  ASSERT_EQ(infos.size(), 1u);
  EXPECT_EQ(infos.at(7).count, 3u);
  EXPECT_EQ(infos.at(7).bufStep, 186624u);
}

TEST_F(GainMapGeometryTest, OnlyTheFirstFormatCountsAndSixteenBitsDoubleTheStride) {
  qelcam::host::setGainMapFormats({kFormatGainMap16, kFormatGainMap8});
  auto wideFirst = createdPool(fourByThree(2, 1), true);
  auto params = wideFirst->getPoolImgParams();
  EXPECT_EQ(params.at(0).imgFormat, kFormatGainMap16);
  EXPECT_EQ(params.at(0).imgSize, MSize(576, 432));
  EXPECT_EQ(params.at(0).strideInBytes, 1152u);
  EXPECT_EQ(wideFirst->determineAllocParam().imgSize, MSize(432 * 1152 * 2, 1));
  auto infos = wideFirst->determineImgBufInfos();
  EXPECT_EQ(infos.at(0).bufPlanes.planes[0].rowStrideInBytes, 1152u);
  EXPECT_EQ(infos.at(0).bufStep, 432u * 1152u);
  EXPECT_EQ(infos.at(0).imgFormat, kFormatGainMap16);

  qelcam::host::setGainMapFormats({kFormatGainMap8, kFormatGainMap16});
  auto narrowFirst = createdPool(fourByThree(2, 1), true);
  EXPECT_EQ(narrowFirst->getPoolImgParams().at(0).imgFormat, kFormatGainMap8);
  EXPECT_EQ(narrowFirst->getPoolImgParams().at(0).strideInBytes, 576u);
  EXPECT_EQ(narrowFirst->determineAllocParam().imgSize, MSize(432 * 576 * 2, 1));
}

TEST_F(GainMapGeometryTest, GainMapHeightsFollowTheAspectAndRoundUpToEven) {
  auto pool = createdPool(poolParams({{0, MSize(4000, 1800)},
                                      {1, MSize(3000, 4000)},
                                      {2, MSize(4032, 3024)},
                                      {3, MSize(1920, 1080)},
                                      {4, MSize(576, 1)},
                                      {5, MSize(4000, 0)}},
                                     1, 1),
                          true);
  auto params = pool->getPoolImgParams();
  EXPECT_EQ(params.at(0).imgSize, MSize(576, 260));
  EXPECT_EQ(params.at(1).imgSize, MSize(576, 768));
  EXPECT_EQ(params.at(2).imgSize, MSize(576, 432));
  EXPECT_EQ(params.at(3).imgSize, MSize(576, 324));
  EXPECT_EQ(params.at(4).imgSize, MSize(576, 2));
  EXPECT_EQ(params.at(5).imgSize, MSize(576, 0));

  // The portrait mode has the smallest width-to-height ratio and sizes the block.
  EXPECT_EQ(pool->determineWorstSensorSize().first, 1u);
  EXPECT_EQ(pool->determineAllocParam().imgSize, MSize(768 * 576, 1));
  EXPECT_EQ(pool->determineImgBufInfos().at(0).bufStep, 260u * 576u);
  EXPECT_EQ(pool->determineImgBufInfos().at(5).bufStep, 0u);
}

TEST_F(GainMapGeometryTest, NoGainMapFormatEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_DEATH(
      {
        qelcam::host::setGainMapFormats({});
        auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
      },
      "\\[determineBufferParams:line-[0-9]+\\] does not support gain map, should not reach here");
}

}  // namespace
}  // namespace gainmap_test
