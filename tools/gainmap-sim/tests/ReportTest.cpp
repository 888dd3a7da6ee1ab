#include "Report.h"

#include <gtest/gtest.h>

#include <functional>
#include <sstream>
#include <string>

namespace gainmapsim {
namespace {

// A report of one sensor of one mode that carried frames to its consumers without a fault.
Report healthyReport() {
  Report report;
  report.sensors.resize(1);
  SensorReport& sensor = report.sensors[0];
  sensor[Counter::FramesDue] = 100;
  sensor[Counter::Produced] = 98;
  sensor[Counter::Consumed] = 250;
  sensor.producerRefusals[static_cast<size_t>(Refusal::Released)] = 2;
  sensor.slotsUsed = 4;
  sensor.maxSlots = 6;
  sensor.holds = {40000000, 80000000, 120000000};
  return report;
}

// The report as printed for a run at `fps` with three consumers.
std::string printed(Report const& report, int fps = 30) {
  Options options;
  options.fps = fps;
  options.consumers = 3;
  std::ostringstream out;
  printReport(report, options, out);
  return out.str();
}

// Each fault fails the run with its verdict; memory lent fresh under an old key is a note.
TEST(SimReport, EachFaultFailsTheRunWithItsVerdict) {
  std::vector<std::pair<std::function<void(Report&)>, std::string>> const cases = {
      {[](Report& r) { r.sensors[0][Counter::FreshUnderOldKey] = 3; },
       "note: sensor 0: 3 frames were lent after a resume on fresh, zeroed memory under the key "
       "of a frame made before the release ("},
      {[](Report& r) { r.sensors[0][Counter::Produced] = 0; }, "FAILED: sensor 0 carried no frame"},
      // A pool of two modes keeps its buffers by size, so it lends an empty `buffers`.
      {[](Report& r) { r.sensors[0].modes = 2; },
       "FAILED: sensor 0 cannot carry data through `buffers`: its pool has 2 sensor modes"},
      {[](Report& r) { r.sensors[0][Counter::Consumed] = 0; },
       "FAILED: sensor 0: no consumer could borrow a frame"},
      {[](Report& r) { r.heapsLeft = 2, r.bytesLeft = 4096; },
       "FAILED: 2 image heaps (4096 bytes) outlived the pools"},
      {[](Report& r) { r.sensors[0][Counter::ConsumerSetFailed] = 1; },
       "FAILED: sensor 0: 1 slots could not be handed back"},
      {[](Report& r) { r.sensors[0][Counter::Corrupted] = 1; },
       "FAILED: sensor 0: 1 frames held bytes of another frame, or a buffer had no address"},
  };
  for (auto const& [spoil, verdict] : cases) {
    Report report = healthyReport();
    spoil(report);
    std::string const text = printed(report);
    bool const fails = verdict.rfind("FAILED", 0) == 0;
    EXPECT_NE(text.find("\n" + verdict), std::string::npos) << text;
    EXPECT_NE(text.find(fails ? "\nresult: FAILED\n" : "\nresult: clean\n"), std::string::npos);
  }
}

// A starved producer gets a diagnosis with the slots its holds need; the JSON gives latencies in
// microseconds.
TEST(SimReport, AStarvedProducerIsDiagnosedAndTheJsonGivesMicroseconds) {
  Report report = healthyReport();
  SensorReport& sensor = report.sensors[0];
  sensor[Counter::FramesDue] = 480;
  sensor[Counter::Produced] = 100;
  sensor.producerRefusals[static_cast<size_t>(Refusal::HeldByConsumers)] = 30;
  sensor.producerRefusals[static_cast<size_t>(Refusal::RotationAtMax)] = 300;
  sensor.latencies[static_cast<size_t>(Call::GetProducer)] = {1000, 2000, 3000};

  std::string const text = printed(report, 240);
  auto const json = reportJson(report, Options());

  // 120 ms at 240 fps is 28.8 frames: 29 slots, and one more for the producer.
  for (char const* line :
       {"\nstarvation: sensor 0: the producer was refused for busy slots on 330 of 480 frames "
        "(68.8 %)",
        "rotation at its maximum 300", "\n  rotation: 4 slots in use, at most 6",
        "\n  longest consumer holds: 120.0 ms",
        "\n  at 240 fps such holds need about 30 slots (hold x fps + 1); the pool may have 6",
        "\nFAILED: sensor 0 is starved: its producer was refused for busy slots on 68.8 % (limit "
        "5 %)"}) {
    EXPECT_NE(text.find(line), std::string::npos) << line << "\n" << text;
  }
  size_t const dropped = text.find("\nframes dropped % ");
  EXPECT_EQ(text.substr(text.find('\n', dropped + 1) - 5, 5), " 79.2") << text;
  EXPECT_EQ(json["sensors"][0]["latencyUs"]["getProducerBuffer"].dump(),
            R"({"count":3,"max":3.0,"p50":2.0,"p99":3.0})");
}

}  // namespace
}  // namespace gainmapsim
