#include "Sizing.h"

#include <algorithm>
#include <cstdio>
#include <string>

#include "IGainMapBufPool.h"
#include "Report.h"
#include "Simulation.h"

namespace gainmapsim {
namespace {

using nlohmann::json;
using NSCam::v3::Utils::IGainMapBufPoolManager;

// The library refuses a slot count from this bound on.
constexpr uint32_t kSlotCountBound = IGainMapBufPoolManager::PoolParameters::kSlotCountLimit;

bool passes(SizingRow const& row, Options const& options) {
  return row.dropped * 100 <= row.due * static_cast<uint64_t>(options.maxDropPercent);
}

SizingRow runOne(SensorConfig const& sensor, Options const& options) {
  Options one = options;
  one.virtualTime = true;
  one.sensors = {sensor};
  Report const report = runVirtualSimulation(one);
  SensorReport const& figures = report.sensors.front();
  SizingRow row;
  row.slots = sensor.slots;
  row.due = figures.dueAfterWarmUp;
  row.droppedGrowing = figures.droppedGrowing;
  row.droppedAtMax = figures.droppedAtMax;
  row.dropped = row.droppedGrowing + row.droppedAtMax;
  row.rotation = figures.slotsUsed;
  row.peakImageBytes = report.peakImageBytes;
  return row;
}

// From one slot up; the first slot count that passes is the answer, so the sweep ends there.
SizingSweep sweep(SensorConfig sensor, Options const& options) {
  SizingSweep result;
  for (sensor.slots = 1; sensor.slots < kSlotCountBound; ++sensor.slots) {
    if (worstImageBytes(sensor) > kMaxImageBytes) {
      result.noAnswer = "a pool of " + std::to_string(sensor.slots) +
                        " slots could need more than " + std::to_string(kMaxImageBytes >> 20) +
                        " MiB";
      break;
    }
    result.rows.push_back(runOne(sensor, options));
    if (passes(result.rows.back(), options)) {
      result.answer = sensor.slots;
      break;
    }
  }
  if (!result.answer && result.noAnswer.empty()) {
    result.noAnswer =
        "the library takes no more than " + std::to_string(kSlotCountBound - 1) + " slots";
  }
  result.sensor = sensor;
  result.sensor.slots = result.answer.value_or(0);
  return result;
}

double percent(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

std::string oneDecimal(double value) {
  char text[32];
  std::snprintf(text, sizeof text, "%.1f", value);
  return text;
}

std::string describe(SensorConfig const& sensor) {
  std::string text = "sensor " + std::to_string(sensor.id) + ", batch " +
                     std::to_string(sensor.batch) + (sensor.lagging ? ", lagging" : "") + " (";
  std::string separator;
  for (auto const& [mode, size] : sensor.modes) {
    text += separator + std::to_string(size.w) + "x" + std::to_string(size.h);
    separator = "/";
  }
  return text + ")";
}

}  // namespace

std::vector<SizingSweep> runSizing(Options const& options) {
  std::vector<SizingSweep> sweeps;
  for (auto const& sensor : options.sensors) {
    std::vector<uint32_t> const batches =
        options.batches.empty() ? std::vector<uint32_t>{sensor.batch} : options.batches;
    for (uint32_t batch : batches) {
      SensorConfig sized = sensor;
      sized.batch = batch;
      sweeps.push_back(sweep(sized, options));
    }
  }
  return sweeps;
}

json sizingJson(std::vector<SizingSweep> const& sweeps, Options const& options) {
  json all = json::array();
  for (auto const& result : sweeps) {
    json rows = json::array();
    for (auto const& row : result.rows) {
      rows.push_back({{"slots", row.slots},
                      {"due", row.due},
                      {"dropped", row.dropped},
                      {"droppedPercent", std::stod(oneDecimal(percent(row.dropped, row.due)))},
                      {"droppedGrowing", row.droppedGrowing},
                      {"droppedAtMax", row.droppedAtMax},
                      {"rotation", row.rotation},
                      {"peakImageKiB", row.peakImageBytes >> 10}});
    }
    all.push_back({{"sensor", result.sensor.id},
                   {"batch", result.sensor.batch},
                   {"rows", rows},
                   {"answer", result.answer ? json(*result.answer) : json(nullptr)},
                   {"noAnswer", result.noAnswer}});
  }
  json run = runJson(options);
  run["allocCostUsPerMiB"] = options.allocCostUsPerMiB;
  run["warmUpSec"] = options.warmUpSec;
  run["maxDropPercent"] = options.maxDropPercent;
  return json{{"run", run},
              {"sizing", all},
              {"result", std::all_of(sweeps.begin(), sweeps.end(),
                                     [](SizingSweep const& s) { return s.answer.has_value(); })
                             ? "sized"
                             : "FAILED"}};
}

void printSizing(std::vector<SizingSweep> const& sweeps, Options const& options,
                 std::ostream& out) {
  out << "gainmap-sim --size: " << options.durationSec << " s at " << options.fps << " fps, "
      << options.consumers << " consumers per sensor, in virtual time ("
      << options.allocCostUsPerMiB << " us per MiB allocated); judged from " << options.warmUpSec
      << " s on: at most " << options.maxDropPercent
      << " % of the frames due dropped for busy slots\n";
  for (auto const& result : sweeps) {
    out << "\n" << describe(result.sensor) << "\n";
    char line[160];
    std::snprintf(line, sizeof line, "%7s %9s %10s %14s %11s %9s %15s\n", "slots", "dropped",
                  "dropped %", "while growing", "at maximum", "rotation", "peak image KiB");
    out << line;
    for (auto const& row : result.rows) {
      std::snprintf(line, sizeof line, "%7u %9llu %10s %14llu %11llu %9u %15llu\n", row.slots,
                    static_cast<unsigned long long>(row.dropped),
                    oneDecimal(percent(row.dropped, row.due)).c_str(),
                    static_cast<unsigned long long>(row.droppedGrowing),
                    static_cast<unsigned long long>(row.droppedAtMax), row.rotation,
                    static_cast<unsigned long long>(row.peakImageBytes >> 10));
      out << line;
    }
    if (result.answer) {
      SizingRow const& row = result.rows.back();
      out << "answer: " << *result.answer << " slots; the rotation reached " << row.rotation
          << " of at most " << 2 * *result.answer << ", peak image memory "
          << (row.peakImageBytes >> 10) << " KiB\n";
    } else {
      out << "no answer: " << result.noAnswer << "\n";
    }
  }
  out << "result: " << sizingJson(sweeps, options)["result"].get<std::string>() << "\n";
}

// A line per sweep: its points' slot counts, dropped share and peak memory in MiB.
std::string plotData(std::vector<SizingSweep> const& sweeps) {
  std::string data;
  for (size_t i = 0; i < sweeps.size(); ++i) {
    data += "$s" + std::to_string(i) + " << EOD\n";
    for (auto const& row : sweeps[i].rows) {
      data += std::to_string(row.slots) + " " + oneDecimal(percent(row.dropped, row.due)) + " " +
              oneDecimal(static_cast<double>(row.peakImageBytes) / (1 << 20)) + "\n";
    }
    data += "EOD\n";
  }
  return data;
}

bool plotSizing(std::vector<SizingSweep> const& sweeps, Options const& options,
                std::string& error) {
  uint32_t most = 1;
  for (auto const& result : sweeps) {
    most = std::max<uint32_t>(most, result.rows.empty() ? 1 : result.rows.back().slots);
  }
  std::string script = plotData(sweeps) + "set terminal png size 900,800\nset output '" +
                       options.plotPath + "'\nset multiplot layout 2,1 title 'Sizing at " +
                       std::to_string(options.fps) + " fps, " + std::to_string(options.consumers) +
                       " consumers per sensor'\nset grid\nset key below\n"
                       "set xlabel 'slotCount'\nset xrange [0.5:" +
                       std::to_string(most) + ".5]\nset xtics " +
                       std::to_string(std::max<uint32_t>(1, most / 16)) + "\n";
  for (auto const& [column, label] :
       {std::pair<int, char const*>{2, "frames dropped for busy slots (%)"},
        std::pair<int, char const*>{3, "peak image memory (MiB)"}}) {
    script += "set ylabel '" + std::string(label) + "'\nplot ";
    for (size_t i = 0; i < sweeps.size(); ++i) {
      std::string const name = describe(sweeps[i].sensor);
      script += (i == 0 ? "" : ", ") + std::string("$s") + std::to_string(i) +
                " using 1:" + std::to_string(column) + " with linespoints lw 2 dt " +
                std::to_string(i + 1) + " pt " + std::to_string(i + 1) + " title '" +
                name.substr(0, name.find(" (")) + "'";
    }
    script += "\n";
  }
  script += "unset multiplot\n";
  FILE* gnuplot = popen("gnuplot 2>/dev/null", "w");
  if (gnuplot == nullptr) {
    error = "cannot start gnuplot";
    return false;
  }
  std::fputs(script.c_str(), gnuplot);
  if (pclose(gnuplot) != 0) {
    error = "gnuplot could not draw " + options.plotPath + " (is it installed?)";
    return false;
  }
  return true;
}

}  // namespace gainmapsim
