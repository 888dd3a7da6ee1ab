#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>

#include "HostPlatform.h"
#include "camsys/Properties.h"

namespace {

using NSCam::Utils::Properties::property_get_int32;

TEST(HostProperties, ParsesIntegersAsAndroidDoesAndFallsBackOtherwise) {
  constexpr char kKey[] = "vendor.debug.camera.log.pipeline.gainmap";
  // Text and value; -7 is the default, given back for what is no 32-bit integer.
  std::vector<std::pair<char const*, int32_t>> const cases = {
      {"0x1f", 31}, {"017", 15}, {"  \t-12", -12},           {"3 apples", 3},
      {"09", 0},    {"0x", 0},   {"-2147483648", INT32_MIN}, {"2147483648", -7},
      {"", -7},     {"abc", -7},
  };
  for (auto const& [text, value] : cases) {
    qelcam::host::setProperty(kKey, text);
    EXPECT_EQ(property_get_int32(kKey, -7), value) << "'" << text << "'";
  }
  qelcam::host::clearProperty(kKey);
  EXPECT_EQ(property_get_int32(kKey, 3), 3);
  EXPECT_EQ(property_get_int32(nullptr, 4), 4);
}

TEST(HostPropertiesDeathTest, StartsFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child re-runs the program, so its store is filled from this environment.
  setenv("QELCAM_PROPERTIES", "vendor.a=0x10; vendor.b = 7;junk;=1;vendor.c=", 1);
  auto const print = [] {
    for (char const* key : {"vendor.a", "vendor.b", "vendor.c", "junk"}) {
      std::fprintf(stderr, "%d,", property_get_int32(key, -1));
    }
    std::exit(0);
  };
  EXPECT_EXIT(print(), testing::ExitedWithCode(0), "^16,7,-1,-1,$");
  unsetenv("QELCAM_PROPERTIES");
}

}  // namespace
