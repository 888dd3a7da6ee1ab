#include "Options.h"

#include <gtest/gtest.h>

namespace gainmapsim {
namespace {

TEST(SimOptions, WithoutOptionsTheRunUsesThreeSensorsOfOneModeEach) {
  auto parsed = parseOptions({});

  ASSERT_EQ(parsed.kind, ParseResult::Kind::Run);
  Options const& options = parsed.options;
  EXPECT_EQ(options.durationSec, 6);
  EXPECT_EQ(options.fps, 30);
  EXPECT_EQ(options.consumers, 3);
  EXPECT_EQ(options.hold.minMs, 40);
  EXPECT_EQ(options.hold.maxMs, 120);
  EXPECT_EQ(options.releasePeriodMs, 2000);
  ASSERT_EQ(options.sensors.size(), 3u);
  std::vector<std::pair<int32_t, int32_t>> sizes;
  for (auto const& sensor : options.sensors) {
    ASSERT_EQ(sensor.modes.size(), 1u);
    sizes.emplace_back(sensor.modes.begin()->second.w, sensor.modes.begin()->second.h);
  }
  EXPECT_EQ(sizes,
            (std::vector<std::pair<int32_t, int32_t>>{{4000, 3000}, {4032, 2268}, {3264, 2448}}));
}

TEST(SimOptions, SensorOptionsReplaceTheDefaultsAndCarryEveryField) {
  auto parsed =
      parseOptions({"--sensor", "id=-3,modes=0:4000x3000/7:4000x2250,batch=2,slots=4,lagging=1",
                    "--sensor=id=9,modes=1:1920x1080", "--fps=60", "--hold", "5-5"});

  ASSERT_EQ(parsed.kind, ParseResult::Kind::Run) << parsed.error;
  Options const& options = parsed.options;
  EXPECT_EQ(options.fps, 60);
  EXPECT_EQ(options.hold.minMs, 5);
  EXPECT_EQ(options.hold.maxMs, 5);
  ASSERT_EQ(options.sensors.size(), 2u);
  SensorConfig const& first = options.sensors[0];
  EXPECT_EQ(first.id, -3);
  ASSERT_EQ(first.modes.size(), 2u);
  EXPECT_EQ(first.modes.at(0), NSCam::MSize(4000, 3000));
  EXPECT_EQ(first.modes.at(7), NSCam::MSize(4000, 2250));
  EXPECT_EQ(first.batch, 2u);
  EXPECT_EQ(first.slots, 4u);
  EXPECT_TRUE(first.lagging);
  SensorConfig const& second = options.sensors[1];
  EXPECT_EQ(second.id, 9);
  EXPECT_EQ(second.modes.at(1), NSCam::MSize(1920, 1080));
  EXPECT_EQ(second.batch, 1u);
  EXPECT_EQ(second.slots, 3u);
  EXPECT_FALSE(second.lagging);
}

TEST(SimOptions, HelpAsksForTheUsageText) {
  EXPECT_EQ(parseOptions({"--fps", "30", "--help"}).kind, ParseResult::Kind::Help);
  EXPECT_EQ(parseOptions({"-h"}).kind, ParseResult::Kind::Help);
}

TEST(SimOptions, TraceFiguresScenariosAndTheStarvationLimitAreOptional) {
  EXPECT_TRUE(parseOptions({}).options.tracePath.empty());
  EXPECT_EQ(parseOptions({}).options.maxStarvedPercent, 5);

  auto parsed = parseOptions({"--trace", "run.json", "--json=figures.json", "--reconfigure",
                              "--teardown", "--max-starved", "20"});

  ASSERT_EQ(parsed.kind, ParseResult::Kind::Run) << parsed.error;
  EXPECT_EQ(parsed.options.tracePath, "run.json");
  EXPECT_EQ(parsed.options.jsonPath, "figures.json");
  EXPECT_TRUE(parsed.options.reconfigure);
  EXPECT_TRUE(parsed.options.teardown);
  EXPECT_EQ(parsed.options.maxStarvedPercent, 20);
}

}  // namespace
}  // namespace gainmapsim
