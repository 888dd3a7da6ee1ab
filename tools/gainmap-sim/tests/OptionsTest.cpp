#include "Options.h"

#include <gtest/gtest.h>

#include <tuple>

namespace gainmapsim {
namespace {

TEST(SimOptions, SensorOptionsReplaceTheDefaultsAndCarryEveryField) {
  auto const parsed =
      parseOptions({"--sensor", "id=-3,modes=0:4000x3000/7:4000x2250,batch=2,slots=4,lagging=1",
                    "--sensor=id=9,modes=1:1920x1080,hold=lognormal:30:250", "--fps=60", "--hold",
                    "5-6", "--size", "--batches", "1,4", "--warm-up=3", "--max-drop", "2"});

  ASSERT_EQ(parsed.kind, ParseResult::Kind::Run) << parsed.error;
  Options const& o = parsed.options;
  EXPECT_EQ(std::tuple(o.fps, o.hold.minMs, o.hold.maxMs, o.batches, o.warmUpSec, o.maxDropPercent),
            std::tuple(60, 5, 6, std::vector<uint32_t>{1, 4}, 3, 2));
  ASSERT_EQ(o.sensors.size(), 2u);
  auto const& [first, second] = std::tie(o.sensors[0], o.sensors[1]);
  EXPECT_EQ(first.modes, (std::map<uint32_t, NSCam::MSize>{{0, {4000, 3000}}, {7, {4000, 2250}}}));
  EXPECT_EQ(std::tuple(first.id, first.batch, first.slots, first.lagging, first.hold.has_value()),
            std::tuple(-3, 2u, 4u, true, false));
  EXPECT_EQ(second.modes, (std::map<uint32_t, NSCam::MSize>{{1, {1920, 1080}}}));
  EXPECT_EQ(std::tuple(second.id, second.batch, second.slots, second.lagging),
            std::tuple(9, 1u, 3u, false));
  ASSERT_TRUE(second.hold.has_value());
  EXPECT_EQ(std::tuple(second.hold->kind, second.hold->medianMs, second.hold->p99Ms),
            std::tuple(HoldModel::Kind::Lognormal, 30, 250));
}

}  // namespace
}  // namespace gainmapsim
