#include <gtest/gtest.h>

#include <map>

#include "GainMapBufPoolImp.h"
#include "IGainMapBufPool.h"

namespace {

using NSCam::MSize;
using MSizeComp = NSCam::v3::Utils::IGainMapBufPool::MSizeComp;

TEST(MSizeComp, OrdersByWidthThenHeightBothDescending) {
  MSizeComp before;
  EXPECT_TRUE(before(MSize(4000, 3000), MSize(4000, 2250)));
  EXPECT_TRUE(before(MSize(4000, 2250), MSize(1920, 1080)));
  EXPECT_FALSE(before(MSize(4000, 2250), MSize(4000, 3000)));
  EXPECT_FALSE(before(MSize(1920, 1080), MSize(1920, 1080)));
  EXPECT_TRUE(before(MSize(0, 0), MSize(-1, 5000)));
  EXPECT_TRUE(before(MSize(100, 0), MSize(100, -1)));

  std::map<MSize, int, MSizeComp> sizes{{MSize(1920, 1080), 1}, {MSize(-1, 10), 2},
                                        {MSize(4000, 2250), 3}, {MSize(4000, -3000), 4},
                                        {MSize(4000, 3000), 5}, {MSize(0, 0), 6}};
  std::vector<int> order;
  for (auto const& [size, tag] : sizes) {
    order.push_back(tag);
  }
  EXPECT_EQ(order, (std::vector<int>{5, 3, 4, 1, 6, 2}));
  auto found = sizes.find(MSize(4000, 2250));
  ASSERT_NE(found, sizes.end());
  EXPECT_EQ(found->second, 3);
  EXPECT_EQ(sizes.find(MSize(2250, 4000)), sizes.end());
}

TEST(BufSlotImp, AFreshSlotIsEmptyUnusedAndNotReady) {
  GainMapBufPoolImp::BufSlotImp slot;
  gainmap::MutexLocker locked(slot.lock);
  EXPECT_EQ(slot.index, -1);
  EXPECT_EQ(slot.validSize, 0);
  EXPECT_TRUE(slot.buffers.empty());
  EXPECT_TRUE(slot.buffersBySize.empty());
  EXPECT_FALSE(slot.useSizeMap);
  EXPECT_EQ(slot.reserved[0], 0);
  EXPECT_EQ(slot.reserved[1], 0);
  EXPECT_FALSE(slot.producerUser);
  EXPECT_EQ(slot.consumerUserCount, 0u);
  EXPECT_EQ(slot.key, 0);
  EXPECT_FALSE(slot.ready.load());
}

}  // namespace
