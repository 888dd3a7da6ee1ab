#include "Options.h"

#include <gtest/gtest.h>

namespace gainmapsim {
namespace {

TEST(SimOptions, SensorOptionsReplaceTheDefaultsAndCarryEveryField) {
  auto parsed = parseOptions({"--sensor",
                              "id=-3,modes=0:4000x3000/7:4000x2250,batch=2,slots=4,lagging=1,"
                              "hold=lognormal:30:250",
                              "--sensor=id=9,modes=1:1920x1080", "--fps=60", "--hold", "5-5",
                              "--size", "--batches", "1,4", "--warm-up=3", "--max-drop", "2"});

  ASSERT_EQ(parsed.kind, ParseResult::Kind::Run) << parsed.error;
  Options const& options = parsed.options;
  EXPECT_EQ(options.fps, 60);
  EXPECT_EQ(options.hold.kind, HoldModel::Kind::Uniform);
  EXPECT_EQ(options.hold.minMs, 5);
  EXPECT_EQ(options.hold.maxMs, 5);
  EXPECT_EQ(options.batches, (std::vector<uint32_t>{1, 4}));
  EXPECT_EQ(options.warmUpSec, 3);
  EXPECT_EQ(options.maxDropPercent, 2);
  EXPECT_EQ(options.allocCostUsPerMiB, 65);
  ASSERT_EQ(options.sensors.size(), 2u);
  SensorConfig const& first = options.sensors[0];
  EXPECT_EQ(first.id, -3);
  ASSERT_EQ(first.modes.size(), 2u);
  EXPECT_EQ(first.modes.at(0), NSCam::MSize(4000, 3000));
  EXPECT_EQ(first.modes.at(7), NSCam::MSize(4000, 2250));
  EXPECT_EQ(first.batch, 2u);
  EXPECT_EQ(first.slots, 4u);
  EXPECT_TRUE(first.lagging);
  ASSERT_TRUE(first.hold.has_value());
  EXPECT_EQ(first.hold->kind, HoldModel::Kind::Lognormal);
  EXPECT_EQ(first.hold->medianMs, 30);
  EXPECT_EQ(first.hold->p99Ms, 250);
  SensorConfig const& second = options.sensors[1];
  EXPECT_EQ(second.id, 9);
  EXPECT_EQ(second.modes.at(1), NSCam::MSize(1920, 1080));
  EXPECT_EQ(second.batch, 1u);
  EXPECT_EQ(second.slots, 3u);
  EXPECT_FALSE(second.lagging);
  EXPECT_FALSE(second.hold.has_value());
}

}  // namespace
}  // namespace gainmapsim
