#include <gtest/gtest.h>

#include "HostPlatform.h"
#include "camsys/Format.h"
#include "camsys/SensorInfo.h"

namespace {

using NSCam::utility::ICamsysSensorInfoHelper;
using NSCam::Utils::Format::queryPlaneBitsPerPixel;
using qelcam::host::kFormatBlob;
using qelcam::host::kFormatGainMap16;
using qelcam::host::kFormatGainMap8;

TEST(HostSensorInfo, AnswersTheGainMapQueryWithTheConfiguredFormats) {
  auto helper = ICamsysSensorInfoHelper::getInstance();
  ASSERT_NE(helper, nullptr);
  EXPECT_EQ(helper, ICamsysSensorInfoHelper::getInstance());
  EXPECT_EQ(helper->queryFormats(0x601), std::vector<int32_t>{kFormatGainMap8});
  EXPECT_TRUE(helper->queryFormats(0x600).empty());

  qelcam::host::setGainMapFormats({kFormatGainMap16, kFormatGainMap8});
  EXPECT_EQ(helper->queryFormats(0x601), (std::vector<int32_t>{kFormatGainMap16, kFormatGainMap8}));
  qelcam::host::setGainMapFormats({});
  EXPECT_TRUE(helper->queryFormats(0x601).empty());
  qelcam::host::setGainMapFormats({kFormatGainMap8});
  EXPECT_EQ(qelcam::host::gainMapFormats(), std::vector<int32_t>{kFormatGainMap8});
}

TEST(HostFormats, KnowsTheGainMapFormatsAndBlobOnPlaneZero) {
  EXPECT_EQ(queryPlaneBitsPerPixel(kFormatGainMap8, 0), 8);
  EXPECT_EQ(queryPlaneBitsPerPixel(kFormatGainMap16, 0), 16);
  EXPECT_EQ(queryPlaneBitsPerPixel(kFormatBlob, 0), 8);
  EXPECT_EQ(queryPlaneBitsPerPixel(kFormatGainMap8, 1), 0);
  EXPECT_EQ(queryPlaneBitsPerPixel(0x11, 0), 0);
}

}  // namespace
