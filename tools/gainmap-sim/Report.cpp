#include "Report.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <functional>
#include <string>

namespace gainmapsim {
namespace {

using nlohmann::json;

constexpr char kSparseCheck[] =
    "buffers checked in three words per plane (first, last, one chosen by the key), not every byte";
constexpr size_t kLabelWidth = 46;
constexpr size_t kColumnWidth = 16;

// One figure of every sensor: where it goes in the JSON, its row in the table, its value.
struct Figure {
  char const* group;
  std::string key;
  std::string label;
  std::function<json(SensorReport const&)> value;
};

constexpr Refusal kProducerRefusals[] = {
    Refusal::NotInitialized, Refusal::Released,        Refusal::NoSlot,        Refusal::NotReady,
    Refusal::HeldByProducer, Refusal::HeldByConsumers, Refusal::RotationAtMax, Refusal::Unexplained,
};
constexpr Refusal kConsumerRefusals[] = {
    Refusal::NotInitialized,    Refusal::Released,       Refusal::InvalidIndex,
    Refusal::HeldByProducer,    Refusal::StaleTimestamp, Refusal::BuffersReleased,
    Refusal::NoBuffersByDesign, Refusal::Unexplained,
};
constexpr char const* kCallNames[kCallCount] = {
    "getPool", "getProducerBuffer", "setProducerBuffer", "getConsumerBuffer", "setConsumerBuffer",
};

double percent(uint64_t part, uint64_t whole) {
  return whole == 0 ? 0.0 : 100.0 * static_cast<double>(part) / static_cast<double>(whole);
}

double rounded(double value) {
  return std::round(value * 10.0) / 10.0;
}

// Nearest-rank percentile of sorted nanosecond samples, in `unit` nanoseconds.
double percentile(std::vector<int64_t> const& sorted, double fraction, double unit) {
  size_t rank = static_cast<size_t>(fraction * static_cast<double>(sorted.size()) + 0.999999);
  return rounded(static_cast<double>(sorted[std::max<size_t>(rank, 1) - 1]) / unit);
}

json spread(std::vector<int64_t> const& sorted, double unit) {
  if (sorted.empty()) {
    return json{{"count", 0}};
  }
  return json{{"count", sorted.size()},
              {"p50", percentile(sorted, 0.5, unit)},
              {"p99", percentile(sorted, 0.99, unit)},
              {"max", rounded(static_cast<double>(sorted.back()) / unit)}};
}

// Virtual time measures no latency: the calls take no virtual time.
std::vector<Figure> figures(Options const& options) {
  std::vector<Figure> all = {
      {"frames", "due", "frames due at the frame rate",
       [](SensorReport const& s) { return json(s[Counter::FramesDue]); }},
      {"frames", "produced", "frames produced",
       [](SensorReport const& s) { return json(s[Counter::Produced]); }},
      {"frames", "dropped", "frames dropped",
       [](SensorReport const& s) { return json(s.dropped()); }},
      {"frames", "droppedPercent", "frames dropped %",
       [](SensorReport const& s) {
         return json(rounded(percent(s.dropped(), s[Counter::FramesDue])));
       }},
      {"frames", "consumed", "frames consumed",
       [](SensorReport const& s) { return json(s[Counter::Consumed]); }},
      {"frames", "withoutBuffers", "producer: slots lent without buffers",
       [](SensorReport const& s) { return json(s[Counter::ProducerEmptySlot]); }},
  };
  for (Refusal refusal : kProducerRefusals) {
    all.push_back({"producerRefused", refusalText(refusal),
                   std::string("producer refused: ") + refusalText(refusal),
                   [refusal](SensorReport const& s) {
                     return json(s.producerRefusals[static_cast<size_t>(refusal)]);
                   }});
  }
  for (Refusal refusal : kConsumerRefusals) {
    all.push_back({"consumerRefused", refusalText(refusal),
                   std::string("consumer refused: ") + refusalText(refusal),
                   [refusal](SensorReport const& s) {
                     return json(s.consumerRefusals[static_cast<size_t>(refusal)]);
                   }});
  }
  std::vector<Figure> const rest = {
      {"failures", "producerSetRefused", "producer set: -22",
       [](SensorReport const& s) { return json(s[Counter::ProducerSetFailed]); }},
      {"failures", "consumerSetRefused", "consumer set: -22",
       [](SensorReport const& s) { return json(s[Counter::ConsumerSetFailed]); }},
      {"failures", "lostSlots", "lost slots",
       [](SensorReport const& s) { return json(s.lostSlots()); }},
      {"failures", "getPoolEmpty", "getPool: empty",
       [](SensorReport const& s) { return json(s[Counter::NoPool]); }},
      {"failures", "getPoolEmptyAfterTeardown", "getPool: empty after teardown",
       [](SensorReport const& s) { return json(s[Counter::NoPoolAfterTeardown]); }},
      {"failures", "releaseResumeRefused", "release/resume: -22",
       [](SensorReport const& s) { return json(s[Counter::ManagerRefused]); }},
      {"failures", "corrupted", "corrupted frames",
       [](SensorReport const& s) { return json(s[Counter::Corrupted]); }},
      {"failures", "freshUnderOldKey", "fresh memory under an old key",
       [](SensorReport const& s) { return json(s[Counter::FreshUnderOldKey]); }},
      {"slots", "releaseCycles", "release cycles",
       [](SensorReport const& s) { return json(s[Counter::Releases]); }},
      {"slots", "rotationSeen", "slots in rotation (seen)",
       [](SensorReport const& s) { return json(s.slotsUsed); }},
      {"slots", "atMost", "slots at most", [](SensorReport const& s) { return json(s.maxSlots); }},
  };
  all.insert(all.end(), rest.begin(), rest.end());
  for (size_t call = 0; !options.virtualTime && call < kCallCount; ++call) {
    all.push_back({"latencyUs", kCallNames[call], std::string(kCallNames[call]) + " us p50/p99",
                   [call](SensorReport const& s) { return spread(s.latencies[call], 1e3); }});
  }
  all.push_back({"holdMs", "consumer", "consumer hold ms p50/p99/max",
                 [](SensorReport const& s) { return spread(s.holds, 1e6); }});
  return all;
}

std::string number(json const& value) {
  if (value.is_number_float()) {
    char text[32];
    std::snprintf(text, sizeof text, "%.1f", value.get<double>());
    return text;
  }
  return value.dump();
}

std::string cell(json const& value, std::string const& label) {
  if (!value.is_object()) {
    return number(value);
  }
  if (value["count"] == 0) {
    return "-";
  }
  std::string text = number(value["p50"]) + "/" + number(value["p99"]);
  return label.find("/max") != std::string::npos ? text + "/" + number(value["max"]) : text;
}

void printRow(std::ostream& out, std::string const& label, std::vector<std::string> const& cells) {
  std::string line = label;
  line.resize(std::max<size_t>(kLabelWidth, label.size() + 1), ' ');
  for (auto const& text : cells) {
    line += std::string(text.size() < kColumnWidth ? kColumnWidth - text.size() : 1, ' ');
    line += text;
  }
  out << line << '\n';
}

bool carriesData(SensorReport const& sensor) {
  return sensor.modes == 1;
}

// The starvation figures of a sensor whose producer was refused often for busy slots.
// Diagnosed once the refusals reach half the share that makes the sensor starved.
json starvation(SensorReport const& sensor, Options const& options) {
  double const share = percent(sensor.starved(), sensor[Counter::FramesDue]);
  if (sensor.starved() == 0 || share <= options.maxStarvedPercent / 2.0) {
    return nullptr;
  }
  json refusals;
  for (Refusal refusal : {Refusal::HeldByConsumers, Refusal::RotationAtMax, Refusal::NotReady,
                          Refusal::HeldByProducer}) {
    refusals[refusalText(refusal)] = sensor.producerRefusals[static_cast<size_t>(refusal)];
  }
  double const longestMs =
      sensor.holds.empty() ? 0.0 : static_cast<double>(sensor.holds.back()) / 1e6;
  double const p99Ms = sensor.holds.empty() ? 0.0 : percentile(sensor.holds, 0.99, 1e6);
  // A slot lent for a hold comes back after hold x fps frames; the producer needs one more.
  auto const needed = static_cast<uint64_t>(std::ceil(longestMs / 1000.0 * options.fps)) + 1;
  return json{{"sensor", sensor.id},
              {"refused", sensor.starved()},
              {"due", sensor[Counter::FramesDue]},
              {"percent", rounded(share)},
              {"refusals", refusals},
              {"rotationSeen", sensor.slotsUsed},
              {"atMost", sensor.maxSlots},
              {"longestHoldMs", rounded(longestMs)},
              {"p99HoldMs", p99Ms},
              {"slotsNeeded", needed}};
}

void printStarvation(std::ostream& out, json const& found, Options const& options) {
  out << "starvation: sensor " << found["sensor"] << ": the producer was refused for busy slots on "
      << found["refused"] << " of " << found["due"] << " frames (" << number(found["percent"])
      << " %):";
  std::string separator = " ";
  for (auto const& [reason, count] : found["refusals"].items()) {
    out << separator << reason << " " << count;
    separator = ", ";
  }
  out << "\n  rotation: " << found["rotationSeen"] << " slots in use, at most " << found["atMost"]
      << "\n  longest consumer holds: " << number(found["longestHoldMs"]) << " ms, p99 "
      << number(found["p99HoldMs"]) << " ms\n  at " << options.fps << " fps such holds need about "
      << found["slotsNeeded"] << " slots (hold x fps + 1); the pool may have " << found["atMost"]
      << "\n";
}

void sensorVerdicts(SensorReport const& s, Options const& options, std::vector<Verdict>& found) {
  std::string const name = "sensor " + std::to_string(s.id);
  if (!carriesData(s)) {
    found.push_back(
        {true,
         name + " cannot carry data through `buffers`: its pool has " + std::to_string(s.modes) +
             " sensor modes, so every slot keeps its memory by size and lends "
             "an empty `buffers` (" +
             std::to_string(s[Counter::ProducerEmptySlot]) +
             " frames produced with nothing valid, " +
             std::to_string(s.consumerRefusals[static_cast<size_t>(Refusal::NoBuffersByDesign)]) +
             " consumer refusals: no buffers by design)"});
  } else if (s[Counter::Produced] == 0) {
    found.push_back({true, name + " carried no frame"});
  } else if (options.consumers > 0 && s[Counter::Consumed] == 0) {
    found.push_back({true, name + ": no consumer could borrow a frame"});
  }
  if (s[Counter::Corrupted] != 0) {
    found.push_back({true, name + ": " + std::to_string(s[Counter::Corrupted]) +
                               " frames held bytes of another frame, or a buffer had no address"});
  }
  if (s.lostSlots() != 0) {
    found.push_back({true, name + ": " + std::to_string(s.lostSlots()) +
                               " slots could not be handed back (-22)"});
  }
  if (s[Counter::NoPool] != 0 || s[Counter::ManagerRefused] != 0) {
    found.push_back({true, name + ": the manager refused " +
                               std::to_string(s[Counter::NoPool] + s[Counter::ManagerRefused]) +
                               " calls while the pool existed"});
  }
  double const starved = percent(s.starved(), s[Counter::FramesDue]);
  if (carriesData(s) && starved > options.maxStarvedPercent) {
    char text[64];
    std::snprintf(text, sizeof text, "%.1f %% (limit %d %%)", starved, options.maxStarvedPercent);
    found.push_back({true, name + " is starved: its producer was refused for busy slots on " +
                               std::string(text) + " of its frames"});
  }
  if (s[Counter::FreshUnderOldKey] != 0) {
    found.push_back({false, name + ": " + std::to_string(s[Counter::FreshUnderOldKey]) +
                                " frames were lent after a resume on fresh, zeroed memory under "
                                "the key of a frame made before the release (the pool keeps a "
                                "slot's key when it frees the slot's memory); not corruption"});
  }
}

void scenarioVerdicts(Report const& report, Options const& options, std::vector<Verdict>& found) {
  ScenarioReport const& scenarios = report.scenarios;
  if (options.reconfigure) {
    if (!scenarios.reconfigured) {
      found.push_back({true, "reconfiguration did not run"});
    } else if (scenarios.producedAfterReconfigure == 0) {
      found.push_back({true, "reconfiguration: no frame was produced on the new pools"});
    } else if (scenarios.replacedPoolsAlive != 0) {
      found.push_back({true, "reconfiguration: " + std::to_string(scenarios.replacedPoolsAlive) +
                                 " replaced pools outlived every holder"});
    } else {
      found.push_back({false, "reconfiguration: pools replaced while frames were in flight; " +
                                  std::to_string(scenarios.producedAfterReconfigure) +
                                  " frames produced on the new pools; the replaced pools went "
                                  "with their last holder"});
    }
  }
  if (!options.teardown) {
    return;
  }
  if (!scenarios.tornDown) {
    found.push_back({true, "client teardown did not run"});
    return;
  }
  for (auto const& sensor : report.sensors) {
    if (sensor[Counter::NoPoolAfterTeardown] == 0) {
      found.push_back({true, "client teardown: getPool still found sensor " +
                                 std::to_string(sensor.id) + "'s pool after destroyAllPools"});
    }
  }
  uint64_t lost = 0;
  for (auto const& sensor : report.sensors) {
    lost += sensor.lostSlots();
  }
  if (scenarios.heldAtTeardown == 0 && options.consumers > 0) {
    found.push_back({false,
                     "client teardown: no consumer happened to hold a slot when "
                     "destroyAllPools ran"});
  } else if (lost == 0 && report.heapsLeft == 0) {
    found.push_back({false, "client teardown: destroyAllPools ran while consumers held " +
                                std::to_string(scenarios.heldAtTeardown) +
                                " slots; they handed every slot back to the removed pools, "
                                "getPool found no pool afterwards and no image memory "
                                "outlived them"});
  }
}

}  // namespace

nlohmann::json holdJson(HoldModel const& hold) {
  if (hold.kind == HoldModel::Kind::Lognormal) {
    return json{{"lognormal", {{"median", hold.medianMs}, {"p99", hold.p99Ms}}}};
  }
  return json{hold.minMs, hold.maxMs};
}

std::vector<Verdict> verdicts(Report const& report, Options const& options) {
  std::vector<Verdict> found;
  for (auto const& sensor : report.sensors) {
    sensorVerdicts(sensor, options, found);
  }
  scenarioVerdicts(report, options, found);
  if (report.heapsLeft != 0) {
    found.push_back({true, std::to_string(report.heapsLeft) + " image heaps (" +
                               std::to_string(report.bytesLeft) + " bytes) outlived the pools"});
  }
  return found;
}

bool isClean(std::vector<Verdict> const& found) {
  return std::none_of(found.begin(), found.end(), [](Verdict const& v) { return v.fails; });
}

nlohmann::json runJson(Options const& options) {
  return json{{"durationSec", options.durationSec},
              {"fps", options.fps},
              {"consumers", options.consumers},
              {"holdMs", holdJson(options.hold)},
              {"releasePeriodMs", options.releasePeriodMs},
              {"releaseTimeMs", options.releaseTimeMs},
              {"seed", options.seed}};
}

nlohmann::json reportJson(Report const& report, Options const& options) {
  json run = runJson(options);
  run["maxStarvedPercent"] = options.maxStarvedPercent;
  run["reconfigure"] = options.reconfigure;
  run["teardown"] = options.teardown;
  if (options.virtualTime) {
    run["virtualTime"] = {{"allocCostUsPerMiB", options.allocCostUsPerMiB},
                          {"bufferCheck", kSparseCheck}};
  }
  json sensors = json::array();
  json diagnoses = json::array();
  for (auto const& sensor : report.sensors) {
    json entry = {{"id", sensor.id}, {"modes", sensor.modes}};
    for (auto const& figure : figures(options)) {
      entry[figure.group][figure.key] = figure.value(sensor);
    }
    sensors.push_back(entry);
    json diagnosis = starvation(sensor, options);
    if (!diagnosis.is_null()) {
      diagnoses.push_back(diagnosis);
    }
  }
  json found = json::array();
  auto const all = verdicts(report, options);
  for (auto const& verdict : all) {
    found.push_back({{"fails", verdict.fails}, {"text", verdict.text}});
  }
  return json{{"run", run},
              {"sensors", sensors},
              {"process",
               {{"peakImageKiB", report.peakImageBytes >> 10},
                {"imageHeapsLeft", report.heapsLeft},
                {"imageBytesLeft", report.bytesLeft}}},
              {"scenarios",
               {{"reconfigured", report.scenarios.reconfigured},
                {"producedAfterReconfigure", report.scenarios.producedAfterReconfigure},
                {"replacedPoolsAlive", report.scenarios.replacedPoolsAlive},
                {"tornDown", report.scenarios.tornDown},
                {"heldAtTeardown", report.scenarios.heldAtTeardown}}},
              {"starvation", diagnoses},
              {"verdicts", found},
              {"result", isClean(all) ? "clean" : "FAILED"}};
}

void printReport(Report const& report, Options const& options, std::ostream& out) {
  json const all = reportJson(report, options);
  out << "gainmap-sim: " << report.sensors.size() << " sensors, " << options.durationSec << " s at "
      << options.fps << " fps, " << options.consumers << " consumers per sensor\n";
  if (options.virtualTime) {
    out << "virtual time: queue steps take " << options.allocCostUsPerMiB
        << " us per MiB allocated; " << kSparseCheck << "; no latencies\n";
  }
  std::vector<std::string> header;
  for (auto const& sensor : report.sensors) {
    header.push_back("sensor " + std::to_string(sensor.id));
  }
  printRow(out, "", header);
  for (auto const& figure : figures(options)) {
    std::vector<std::string> cells;
    for (auto const& sensor : all["sensors"]) {
      cells.push_back(cell(sensor[figure.group][figure.key], figure.label));
    }
    printRow(out, figure.label, cells);
  }
  auto const& process = all["process"];
  out << "process: peak image memory " << process["peakImageKiB"]
      << " KiB; image heaps left at exit " << process["imageHeapsLeft"] << ", bytes left "
      << process["imageBytesLeft"] << "\n";
  for (auto const& found : all["starvation"]) {
    printStarvation(out, found, options);
  }
  for (auto const& verdict : all["verdicts"]) {
    out << (verdict["fails"].get<bool>() ? "FAILED: " : "note: ")
        << verdict["text"].get<std::string>() << "\n";
  }
  out << "result: " << all["result"].get<std::string>() << '\n';
}

}  // namespace gainmapsim
