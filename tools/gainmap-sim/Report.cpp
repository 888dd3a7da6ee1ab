#include "Report.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace gainmapsim {
namespace {

constexpr int kLabelWidth = 42;
constexpr int kColumnWidth = 14;

struct CounterRow {
  Counter counter;
  char const* label;
};

constexpr CounterRow kCounterRows[] = {
    {Counter::Produced, "frames produced"},
    {Counter::Consumed, "frames consumed"},
    {Counter::ProducerNoSlot, "producer: no slot"},
    {Counter::ProducerReleased, "producer: refused while released"},
    {Counter::ProducerEmptySlot, "producer: slot without buffers"},
    {Counter::ProducerSetFailed, "producer set: -22"},
    {Counter::ConsumerRefused, "consumer: refused"},
    {Counter::ConsumerReleased, "consumer: refused while released"},
    {Counter::ConsumerSetFailed, "consumer set: -22"},
    {Counter::NoPool, "getPool: empty"},
    {Counter::ManagerRefused, "release/resume: -22"},
    {Counter::Releases, "release cycles"},
    {Counter::VerificationFailures, "verification failures"},
};

constexpr char const* kCallLabels[kCallCount] = {
    "getPool us p50/p99",           "getProducerBuffer us p50/p99", "setProducerBuffer us p50/p99",
    "getConsumerBuffer us p50/p99", "setConsumerBuffer us p50/p99",
};

void printRow(std::ostream& out, std::string const& label, std::vector<std::string> const& cells) {
  std::string line = label;
  line.resize(kLabelWidth, ' ');
  for (auto const& cell : cells) {
    line += std::string(std::max<int>(1, kColumnWidth - static_cast<int>(cell.size())), ' ');
    line += cell;
  }
  out << line << '\n';
}

// Nearest-rank percentile of sorted samples, in microseconds.
double percentileUs(std::vector<int64_t> const& sorted, double fraction) {
  size_t rank = static_cast<size_t>(fraction * static_cast<double>(sorted.size()) + 0.999999);
  return static_cast<double>(sorted[std::max<size_t>(rank, 1) - 1]) / 1000.0;
}

std::string latencyCell(std::vector<int64_t> const& sorted) {
  if (sorted.empty()) {
    return "-";
  }
  char text[64];
  std::snprintf(text, sizeof text, "%.1f/%.1f", percentileUs(sorted, 0.5),
                percentileUs(sorted, 0.99));
  return text;
}

std::vector<int64_t> allSamples(Report const& report, size_t call) {
  std::vector<int64_t> samples;
  for (auto const& sensor : report.sensors) {
    samples.insert(samples.end(), sensor.latencies[call].begin(), sensor.latencies[call].end());
  }
  std::sort(samples.begin(), samples.end());
  return samples;
}

template <typename Value>
void printSensorRow(std::ostream& out, Report const& report, std::string const& label,
                    Value value) {
  std::vector<std::string> cells;
  uint64_t total = 0;
  for (auto const& sensor : report.sensors) {
    cells.push_back(std::to_string(value(sensor)));
    total += value(sensor);
  }
  cells.push_back(std::to_string(total));
  printRow(out, label, cells);
}

void printTotalRow(std::ostream& out, Report const& report, std::string const& label,
                   uint64_t total) {
  std::vector<std::string> cells(report.sensors.size(), "-");
  cells.push_back(std::to_string(total));
  printRow(out, label, cells);
}

}  // namespace

bool isClean(Report const& report) {
  for (auto const& sensor : report.sensors) {
    if (sensor[Counter::VerificationFailures] != 0 || sensor.lostSlots() != 0) {
      return false;
    }
  }
  return report.heapsLeft == 0;
}

void printReport(Report const& report, Options const& options, std::ostream& out) {
  out << "gainmap-sim: " << report.sensors.size() << " sensors, " << options.durationSec << " s at "
      << options.fps << " fps, " << options.consumers << " consumers per sensor\n";
  std::vector<std::string> header;
  for (auto const& sensor : report.sensors) {
    header.push_back("sensor " + std::to_string(sensor.id));
  }
  header.push_back("total");
  printRow(out, "", header);
  for (auto const& row : kCounterRows) {
    printSensorRow(out, report, row.label,
                   [&](SensorReport const& sensor) { return sensor[row.counter]; });
  }
  printSensorRow(out, report, "lost slots",
                 [](SensorReport const& sensor) { return sensor.lostSlots(); });
  printSensorRow(out, report, "slots in rotation (seen)",
                 [](SensorReport const& sensor) { return uint64_t{sensor.slotsUsed}; });
  printSensorRow(out, report, "slots at most",
                 [](SensorReport const& sensor) { return uint64_t{sensor.maxSlots}; });
  for (size_t call = 0; call < kCallCount; ++call) {
    std::vector<std::string> cells;
    for (auto const& sensor : report.sensors) {
      cells.push_back(latencyCell(sensor.latencies[call]));
    }
    cells.push_back(latencyCell(allSamples(report, call)));
    printRow(out, kCallLabels[call], cells);
  }
  printTotalRow(out, report, "peak image memory KiB", report.peakImageBytes >> 10);
  printTotalRow(out, report, "image heaps left at exit", report.heapsLeft);
  printTotalRow(out, report, "image bytes left at exit", report.bytesLeft);
  out << "result: " << (isClean(report) ? "clean" : "FAILED") << '\n';
}

}  // namespace gainmapsim
