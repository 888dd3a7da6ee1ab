#include "Options.h"

#include <gtest/gtest.h>

#include <tuple>

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
  EXPECT_EQ(std::tuple(options.fps, options.hold.kind, options.hold.minMs, options.hold.maxMs),
            std::tuple(60, HoldModel::Kind::Uniform, 5, 5));
  EXPECT_EQ(options.batches, (std::vector<uint32_t>{1, 4}));
  EXPECT_EQ(std::tuple(options.warmUpSec, options.maxDropPercent, options.allocCostUsPerMiB),
            std::tuple(3, 2, 65));
  ASSERT_EQ(options.sensors.size(), 2u);
  SensorConfig const& first = options.sensors[0];
  EXPECT_EQ(first.modes, (std::map<uint32_t, NSCam::MSize>{{0, {4000, 3000}}, {7, {4000, 2250}}}));
  EXPECT_EQ(std::tuple(first.id, first.batch, first.slots, first.lagging),
            std::tuple(-3, 2u, 4u, true));
  ASSERT_TRUE(first.hold.has_value());
  EXPECT_EQ(std::tuple(first.hold->kind, first.hold->medianMs, first.hold->p99Ms),
            std::tuple(HoldModel::Kind::Lognormal, 30, 250));
  SensorConfig const& second = options.sensors[1];
  EXPECT_EQ(second.modes, (std::map<uint32_t, NSCam::MSize>{{1, {1920, 1080}}}));
  EXPECT_EQ(std::tuple(second.id, second.batch, second.slots, second.lagging, second.hold),
            std::tuple(9, 1u, 3u, false, std::nullopt));
}

}  // namespace
}  // namespace gainmapsim
