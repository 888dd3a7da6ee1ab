#include "Report.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>

namespace gainmapsim {
namespace {

// A sensor of one mode that carried frames to its consumers without a fault.
SensorReport healthySensor(int32_t id) {
  SensorReport sensor;
  sensor.id = id;
  sensor[Counter::FramesDue] = 100;
  sensor[Counter::Produced] = 98;
  sensor[Counter::Consumed] = 250;
  sensor.producerRefusals[static_cast<size_t>(Refusal::Released)] = 2;
  sensor.slotsUsed = 4;
  sensor.maxSlots = 6;
  sensor.holds = {40000000, 80000000, 120000000};
  return sensor;
}

Options runOptions() {
  Options options;
  options.fps = 30;
  options.consumers = 3;
  return options;
}

std::string printed(Report const& report, Options const& options) {
  std::ostringstream out;
  printReport(report, options, out);
  return out.str();
}

TEST(SimReport, ACleanRunSaysSoNamesFreshMemoryApartAndItsJsonCarriesEveryFigureOfTheTable) {
  Report report;
  report.sensors = {healthySensor(0), healthySensor(7)};
  report.sensors[0][Counter::FreshUnderOldKey] = 3;
  report.sensors[1].latencies[static_cast<size_t>(Call::GetProducer)] = {1000, 2000, 3000};
  report.peakImageBytes = 4 << 20;

  auto const json = reportJson(report, runOptions());
  std::string const text = printed(report, runOptions());

  EXPECT_TRUE(isClean(verdicts(report, runOptions())));
  for (char const* line : {"note: sensor 0: 3 frames were lent after a resume on fresh, zeroed "
                           "memory under the key of a frame made before the release (",
                           "\nresult: clean\n"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << text;
  }
  for (char const* absent : {"another frame", "total", "starvation:"}) {
    EXPECT_EQ(text.find(absent), std::string::npos) << absent << text;
  }
  ASSERT_EQ(json["sensors"].size(), 2u);
  auto const& second = json["sensors"][1];
  EXPECT_EQ(second["id"], 7);
  EXPECT_EQ(second["frames"]["dropped"], 2);
  EXPECT_EQ(second["producerRefused"]["released"], 2);
  EXPECT_EQ(second["latencyUs"]["getProducerBuffer"]["p50"], 2.0);
  EXPECT_EQ(second["latencyUs"]["getProducerBuffer"]["p99"], 3.0);
  EXPECT_EQ(second["holdMs"]["consumer"]["max"], 120.0);
  EXPECT_EQ(json["process"]["peakImageKiB"], 4096);
  EXPECT_EQ(json["result"], "clean");
  // One table row per figure: every row of the table is in the JSON.
  size_t figures = 0;
  for (auto const& [group, values] : second.items()) {
    figures += values.is_object() ? values.size() : 0;
  }
  std::string const rows = text.substr(0, text.find("\nprocess:"));
  EXPECT_EQ(static_cast<size_t>(std::count(rows.begin(), rows.end(), '\n')) - 1, figures) << text;
}

TEST(SimReport, ASensorThatCarriedNothingCorruptedFramesOrLeftMemoryFailsTheRun) {
  std::vector<std::pair<std::function<void(Report&)>, std::string>> const cases = {
      {[](Report& r) { r.sensors[0][Counter::Produced] = 0; }, "sensor 0 carried no frame"},
      {[](Report& r) { r.sensors[0][Counter::Consumed] = 0; },
       "sensor 0: no consumer could borrow a frame"},
      {[](Report& r) { r.heapsLeft = 2, r.bytesLeft = 4096; },
       "2 image heaps (4096 bytes) outlived the pools"},
      {[](Report& r) { r.sensors[0][Counter::ConsumerSetFailed] = 1; },
       "sensor 0: 1 slots could not be handed back"},
      {[](Report& r) { r.sensors[0][Counter::Corrupted] = 1; },
       "sensor 0: 1 frames held bytes of another frame, or a buffer had no address"},
  };
  for (auto const& [spoil, verdict] : cases) {
    Report report;
    report.sensors = {healthySensor(0)};
    spoil(report);
    EXPECT_FALSE(isClean(verdicts(report, runOptions()))) << verdict;
    EXPECT_NE(printed(report, runOptions()).find("FAILED: " + verdict), std::string::npos)
        << verdict;
  }
}

TEST(SimReport, AStarvedProducerGetsADiagnosisWithTheSlotsItsHoldsNeed) {
  Report report;
  report.sensors = {healthySensor(0)};
  SensorReport& sensor = report.sensors[0];
  sensor[Counter::FramesDue] = 480;
  sensor[Counter::Produced] = 100;
  sensor.producerRefusals[static_cast<size_t>(Refusal::HeldByConsumers)] = 30;
  sensor.producerRefusals[static_cast<size_t>(Refusal::RotationAtMax)] = 300;
  Options options = runOptions();
  options.fps = 240;

  std::string const text = printed(report, options);

  // 120 ms at 240 fps is 28.8 frames: 29 slots, and one more for the producer.
  for (char const* line :
       {"starvation: sensor 0: the producer was refused for busy slots on 330 of 480 frames "
        "(68.8 %)",
        "rotation at its maximum 300", "rotation: 4 slots in use, at most 6",
        "longest consumer holds: 120.0 ms",
        "at 240 fps such holds need about 30 slots (hold x fps + 1); the pool may have 6",
        "FAILED: sensor 0 is starved: its producer was refused for busy slots on 68.8 % (limit "
        "5 %)"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
  size_t const row = text.find("\nframes dropped % ");
  ASSERT_NE(row, std::string::npos) << text;
  EXPECT_EQ(text.substr(text.find('\n', row + 1) - 5, 5), " 79.2") << text;
}

}  // namespace
}  // namespace gainmapsim
