#include <gtest/gtest.h>

#include <cstdlib>

#include "HostPlatform.h"
#include "camsys/Properties.h"

namespace {

using NSCam::Utils::Properties::property_get_int32;

constexpr char kKey[] = "vendor.debug.camera.log.pipeline.gainmap";

int32_t valueOf(std::string const& text) {
  qelcam::host::setProperty(kKey, text);
  return property_get_int32(kKey, -7);
}

TEST(HostProperties, ParsesIntegersAsAndroidDoes) {
  EXPECT_EQ(valueOf("1"), 1);
  EXPECT_EQ(valueOf("0x1f"), 31);
  EXPECT_EQ(valueOf("0X10"), 16);
  EXPECT_EQ(valueOf("017"), 15);
  EXPECT_EQ(valueOf("-12"), -12);
  EXPECT_EQ(valueOf("+5"), 5);
  EXPECT_EQ(valueOf("  \t42"), 42);
  EXPECT_EQ(valueOf("3 apples"), 3);
  EXPECT_EQ(valueOf("09"), 0) << "octal stops at the 9";
  EXPECT_EQ(valueOf("2147483647"), 2147483647);
  EXPECT_EQ(valueOf("-2147483648"), INT32_MIN);

  EXPECT_EQ(valueOf("2147483648"), -7);
  EXPECT_EQ(valueOf("-2147483649"), -7);
  EXPECT_EQ(valueOf("99999999999999999999999"), -7);
  EXPECT_EQ(valueOf(""), -7);
  EXPECT_EQ(valueOf("abc"), -7);
  EXPECT_EQ(valueOf("0x"), 0) << "the 0 is a number";
  EXPECT_EQ(valueOf("-"), -7);

  qelcam::host::clearProperty(kKey);
  EXPECT_EQ(property_get_int32(kKey, 3), 3);
  EXPECT_EQ(property_get_int32("vendor.never.set", 9), 9);
  EXPECT_EQ(property_get_int32(nullptr, 4), 4);
}

TEST(HostPropertiesDeathTest, StartsFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child re-runs the program, so its store is filled from this environment.
  setenv("QELCAM_PROPERTIES", "vendor.a=0x10; vendor.b = 7;junk;=1;vendor.c=", 1);
  EXPECT_EXIT(
      {
        bool const ok =
            property_get_int32("vendor.a", 0) == 16 && property_get_int32("vendor.b", 0) == 7 &&
            property_get_int32("vendor.c", 5) == 5 && property_get_int32("junk", 6) == 6;
        std::exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  unsetenv("QELCAM_PROPERTIES");
}

}  // namespace
