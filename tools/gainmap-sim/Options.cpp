#include "Options.h"

#include <charconv>
#include <limits>
#include <set>
#include <sstream>

namespace gainmapsim {
namespace {

constexpr int64_t kMaxSensorSide = 16384;
// Gain maps are 576 pixels wide and as tall as the sensor's aspect ratio makes them.
constexpr int64_t kGainMapWidth = 576;
constexpr int64_t kMaxGainMapRows = 2048;
constexpr size_t kMaxSensors = 8;

bool parseInteger(std::string const& text, int64_t min, int64_t max, std::string const& what,
                  int64_t& value, std::string& error) {
  char const* first = text.data();
  char const* last = first + text.size();
  auto [end, ec] = std::from_chars(first, last, value);
  if (text.empty() || ec == std::errc::invalid_argument || end != last) {
    error = what + ": '" + text + "' is not a whole number";
    return false;
  }
  if (ec == std::errc::result_out_of_range || value < min || value > max) {
    error = what + ": " + text + " is out of range [" + std::to_string(min) + ", " +
            std::to_string(max) + "]";
    return false;
  }
  return true;
}

template <typename T>
bool parseNumber(std::string const& text, int64_t min, int64_t max, std::string const& what, T& out,
                 std::string& error) {
  int64_t value = 0;
  if (!parseInteger(text, min, max, what, value, error)) {
    return false;
  }
  out = static_cast<T>(value);
  return true;
}

std::vector<std::string> split(std::string const& text, char separator) {
  std::vector<std::string> parts;
  std::string part;
  std::istringstream stream(text);
  while (std::getline(stream, part, separator)) {
    parts.push_back(part);
  }
  if (!text.empty() && text.back() == separator) {
    parts.emplace_back();
  }
  return parts;
}

bool parseSize(std::string const& text, NSCam::MSize& size, std::string& error) {
  auto x = text.find('x');
  if (x == std::string::npos) {
    error = "size '" + text + "' is not WIDTHxHEIGHT";
    return false;
  }
  int64_t w = 0;
  int64_t h = 0;
  if (!parseInteger(text.substr(0, x), 1, kMaxSensorSide, "width", w, error) ||
      !parseInteger(text.substr(x + 1), 1, kMaxSensorSide, "height", h, error)) {
    return false;
  }
  if (h * kGainMapWidth / w == 0) {
    error = "size " + text + " is too flat: its gain map would have no rows";
    return false;
  }
  if (h * kGainMapWidth / w > kMaxGainMapRows) {
    error = "size " + text + " is too tall: its gain map would exceed " +
            std::to_string(kMaxGainMapRows) + " rows";
    return false;
  }
  size = NSCam::MSize(static_cast<int32_t>(w), static_cast<int32_t>(h));
  return true;
}

bool parseModes(std::string const& text, std::map<uint32_t, NSCam::MSize>& modes,
                std::string& error) {
  if (text.empty()) {
    error = "modes: needs at least one MODE:WIDTHxHEIGHT";
    return false;
  }
  for (auto const& item : split(text, '/')) {
    auto colon = item.find(':');
    if (colon == std::string::npos) {
      error = "mode '" + item + "' is not MODE:WIDTHxHEIGHT";
      return false;
    }
    uint32_t mode = 0;
    NSCam::MSize size;
    if (!parseNumber(item.substr(0, colon), 0, std::numeric_limits<uint32_t>::max(), "mode", mode,
                     error) ||
        !parseSize(item.substr(colon + 1), size, error)) {
      return false;
    }
    if (!modes.emplace(mode, size).second) {
      error = "mode " + std::to_string(mode) + " is given twice";
      return false;
    }
  }
  return true;
}

bool parseBatches(std::string const& text, std::vector<uint32_t>& batches, std::string& error) {
  batches.clear();
  for (auto const& item : split(text, ',')) {
    uint32_t batch = 0;
    if (!parseNumber(item, 1, 8, "--batches", batch, error)) {
      return false;
    }
    batches.push_back(batch);
  }
  return true;
}

// MIN-MAX, or lognormal:MEDIAN:P99, in milliseconds.
bool parseHold(std::string const& text, HoldModel& hold, std::string& error) {
  constexpr char kLognormal[] = "lognormal:";
  if (text.rfind(kLognormal, 0) == 0) {
    auto const parts = split(text.substr(sizeof kLognormal - 1), ':');
    if (parts.size() != 2) {
      error = "hold: '" + text + "' is not lognormal:MEDIAN:P99";
      return false;
    }
    hold.kind = HoldModel::Kind::Lognormal;
    if (!parseNumber(parts[0], 1, 10000, "hold median", hold.medianMs, error) ||
        !parseNumber(parts[1], 1, 10000, "hold p99", hold.p99Ms, error)) {
      return false;
    }
    if (hold.p99Ms < hold.medianMs) {
      error = "hold: p99 " + parts[1] + " is below the median " + parts[0];
      return false;
    }
    return true;
  }
  auto dash = text.find('-');
  if (dash == std::string::npos) {
    error = "hold: '" + text + "' is not MIN-MAX or lognormal:MEDIAN:P99";
    return false;
  }
  hold.kind = HoldModel::Kind::Uniform;
  if (!parseNumber(text.substr(0, dash), 0, 10000, "hold minimum", hold.minMs, error) ||
      !parseNumber(text.substr(dash + 1), 0, 10000, "hold maximum", hold.maxMs, error)) {
    return false;
  }
  if (hold.minMs > hold.maxMs) {
    error = "hold: minimum " + text.substr(0, dash) + " exceeds maximum " + text.substr(dash + 1);
    return false;
  }
  return true;
}

bool parseSensorField(std::string const& key, std::string const& value, SensorConfig& sensor,
                      std::string& error) {
  if (key == "id") {
    return parseNumber(value, std::numeric_limits<int32_t>::min(),
                       std::numeric_limits<int32_t>::max(), "id", sensor.id, error);
  }
  if (key == "modes") {
    return parseModes(value, sensor.modes, error);
  }
  if (key == "batch") {
    return parseNumber(value, 1, 8, "batch", sensor.batch, error);
  }
  if (key == "slots") {
    return parseNumber(value, 1, 16, "slots", sensor.slots, error);
  }
  if (key == "lagging") {
    return parseNumber(value, 0, 1, "lagging", sensor.lagging, error);
  }
  if (key == "hold") {
    sensor.hold = HoldModel{};
    return parseHold(value, *sensor.hold, error);
  }
  error = "unknown sensor field '" + key + "' (fields: id, modes, batch, slots, lagging, hold)";
  return false;
}

bool checkSensors(std::vector<SensorConfig> const& sensors, std::string& error) {
  if (sensors.size() > kMaxSensors) {
    error = "at most " + std::to_string(kMaxSensors) + " sensors";
    return false;
  }
  std::set<int32_t> ids;
  uint64_t bytes = 0;
  for (auto const& sensor : sensors) {
    if (!ids.insert(sensor.id).second) {
      error = "sensor id " + std::to_string(sensor.id) + " is given twice";
      return false;
    }
    bytes += worstImageBytes(sensor);
  }
  if (bytes > kMaxImageBytes) {
    error = "the sensors could need " + std::to_string(bytes >> 20) +
            " MiB of gain maps; at most " + std::to_string(kMaxImageBytes >> 20) + " MiB";
    return false;
  }
  return true;
}

bool applyValueOption(std::string const& name, std::string const& value, Options& options,
                      bool& sensorsGiven, std::string& error) {
  if (name == "--duration") {
    return parseNumber(value, 1, 3600, name, options.durationSec, error);
  }
  if (name == "--fps") {
    return parseNumber(value, 1, 240, name, options.fps, error);
  }
  if (name == "--consumers") {
    return parseNumber(value, 0, 16, name, options.consumers, error);
  }
  if (name == "--hold") {
    if (!parseHold(value, options.hold, error)) {
      error = "--" + error;
      return false;
    }
    return true;
  }
  if (name == "--alloc-cost-us") {
    return parseNumber(value, 0, 1000000, name, options.allocCostUsPerMiB, error);
  }
  if (name == "--max-drop") {
    return parseNumber(value, 0, 100, name, options.maxDropPercent, error);
  }
  if (name == "--warm-up") {
    return parseNumber(value, 0, 3599, name, options.warmUpSec, error);
  }
  if (name == "--batches") {
    return parseBatches(value, options.batches, error);
  }
  if (name == "--release-period") {
    return parseNumber(value, 0, 3600000, name, options.releasePeriodMs, error);
  }
  if (name == "--release-time") {
    return parseNumber(value, 1, 60000, name, options.releaseTimeMs, error);
  }
  if (name == "--seed") {
    return parseNumber(value, 0, std::numeric_limits<uint32_t>::max(), name, options.seed, error);
  }
  if (name == "--max-starved") {
    return parseNumber(value, 0, 100, name, options.maxStarvedPercent, error);
  }
  if (name == "--trace" || name == "--json" || name == "--plot") {
    if (value.empty()) {
      error = name + ": needs a file name";
      return false;
    }
    (name == "--trace"  ? options.tracePath
     : name == "--json" ? options.jsonPath
                        : options.plotPath) = value;
    return true;
  }
  // The one value option left is --sensor; the first one replaces the default sensors.
  if (!sensorsGiven) {
    options.sensors.clear();
    sensorsGiven = true;
  }
  SensorConfig sensor;
  if (!parseSensor(value, sensor, error)) {
    error = "--sensor '" + value + "': " + error;
    return false;
  }
  options.sensors.push_back(sensor);
  return true;
}

bool takesValue(std::string const& name) {
  static std::set<std::string> const kValueOptions = {
      "--duration", "--fps",     "--consumers", "--hold", "--release-period", "--release-time",
      "--seed",     "--sensor",  "--trace",     "--json", "--max-starved",    "--alloc-cost-us",
      "--max-drop", "--warm-up", "--batches",   "--plot"};
  return kValueOptions.count(name) != 0;
}

// Options that only make sense together, or not at all together.
bool checkModes(Options const& options, std::string& error) {
  bool const virtualTime = options.virtualTime || options.size;
  if (virtualTime && !options.tracePath.empty()) {
    error = "--trace needs real time: a trace's timestamps are the wall clock's";
  } else if (!options.plotPath.empty() && !options.size) {
    error = "--plot draws the sizing sweep: it needs --size";
  } else if (!options.batches.empty() && !options.size) {
    error = "--batches lists the batch sizes of the sizing sweep: it needs --size";
  } else if (options.size && (options.reconfigure || options.teardown)) {
    error = "--size sweeps plain pools: no --reconfigure or --teardown";
  } else if (options.warmUpSec >= options.durationSec) {
    error = "--warm-up " + std::to_string(options.warmUpSec) + " must be shorter than --duration " +
            std::to_string(options.durationSec);
  } else {
    return true;
  }
  return false;
}

ParseResult failure(std::string error) {
  ParseResult result;
  result.kind = ParseResult::Kind::Error;
  result.error = std::move(error);
  return result;
}

}  // namespace

// Each slot sized for the tallest gain map of the sensor's modes.
uint64_t worstImageBytes(SensorConfig const& sensor) {
  uint64_t rows = 0;
  for (auto const& [mode, size] : sensor.modes) {
    rows = std::max<uint64_t>(
        rows, static_cast<uint64_t>(size.h) * kGainMapWidth / static_cast<uint64_t>(size.w) + 1);
  }
  return uint64_t{2} * sensor.slots * sensor.batch * rows * kGainMapWidth;
}

std::vector<SensorConfig> defaultSensors() {
  SensorConfig rear;
  rear.id = 0;
  rear.modes = {{0, NSCam::MSize(4000, 3000)}};
  rear.batch = 1;
  rear.slots = 3;
  SensorConfig wide;
  wide.id = 1;
  wide.modes = {{0, NSCam::MSize(4032, 2268)}};
  wide.batch = 2;
  wide.slots = 3;
  SensorConfig front;
  front.id = 2;
  front.modes = {{0, NSCam::MSize(3264, 2448)}};
  front.batch = 1;
  front.slots = 3;
  front.lagging = true;
  return {rear, wide, front};
}

bool parseSensor(std::string const& text, SensorConfig& sensor, std::string& error) {
  std::set<std::string> seen;
  for (auto const& field : split(text, ',')) {
    auto equals = field.find('=');
    if (equals == std::string::npos) {
      error = "field '" + field + "' is not KEY=VALUE";
      return false;
    }
    std::string key = field.substr(0, equals);
    if (!seen.insert(key).second) {
      error = "field '" + key + "' is given twice";
      return false;
    }
    if (!parseSensorField(key, field.substr(equals + 1), sensor, error)) {
      return false;
    }
  }
  if (seen.count("id") == 0 || seen.count("modes") == 0) {
    error = "a sensor needs id= and modes=";
    return false;
  }
  return true;
}

ParseResult parseOptions(std::vector<std::string> const& args) {
  ParseResult result;
  result.options.sensors = defaultSensors();
  bool sensorsGiven = false;
  for (size_t i = 0; i < args.size(); ++i) {
    std::string name = args[i];
    std::string value;
    auto equals = name.find('=');
    bool inlineValue = name.rfind("--", 0) == 0 && equals != std::string::npos;
    if (inlineValue) {
      value = name.substr(equals + 1);
      name = name.substr(0, equals);
    }
    if (name == "--help" || name == "-h" || name == "--quiet" || name == "--library-log" ||
        name == "--reconfigure" || name == "--teardown" || name == "--virtual-time" ||
        name == "--size") {
      if (inlineValue) {
        return failure("option '" + name + "' takes no value");
      }
      if (name == "--quiet") {
        result.options.quiet = true;
      } else if (name == "--library-log") {
        result.options.libraryLog = true;
      } else if (name == "--reconfigure") {
        result.options.reconfigure = true;
      } else if (name == "--teardown") {
        result.options.teardown = true;
      } else if (name == "--virtual-time") {
        result.options.virtualTime = true;
      } else if (name == "--size") {
        result.options.size = true;
      } else {
        result.kind = ParseResult::Kind::Help;
        return result;
      }
      continue;
    }
    if (!takesValue(name)) {
      return failure("unknown option '" + name + "'");
    }
    if (!inlineValue) {
      if (i + 1 == args.size()) {
        return failure("option '" + name + "' needs a value");
      }
      value = args[++i];
    }
    std::string error;
    if (!applyValueOption(name, value, result.options, sensorsGiven, error)) {
      return failure(error);
    }
  }
  Options const& options = result.options;
  if (options.releasePeriodMs > 0 && options.releaseTimeMs >= options.releasePeriodMs) {
    return failure("--release-time " + std::to_string(options.releaseTimeMs) +
                   " must be shorter than --release-period " +
                   std::to_string(options.releasePeriodMs));
  }
  std::string error;
  if (!checkSensors(options.sensors, error) || !checkModes(options, error)) {
    return failure(error);
  }
  return result;
}

std::string usage() {
  return R"(usage: gainmap-sim [options]

Drives gain-map buffer pools like a camera pipeline: per sensor one producer thread fills a slot
every frame and several consumer threads borrow, verify and return it, while each pool is released
and resumed on a schedule. Prints the figures of every sensor, a starvation diagnosis when the
producer is refused for busy slots, the verdicts and the result.

options:
  --duration S          run time in seconds, 1-3600 (default 6)
  --fps N               frames per second of every sensor, 1-240 (default 30)
  --consumers N         consumer threads per sensor, 0-16 (default 3)
  --hold MIN-MAX        how long a consumer holds a slot, in ms, 0-10000 (default 40-120);
  --hold lognormal:MEDIAN:P99
                        or lognormal, with this median and 99th percentile in ms (a long tail)
  --release-period MS   release every pool this often, 0 = never (default 2000)
  --release-time MS     how long a pool stays released (default 200)
  --sensor DESC         a sensor; repeat for more; replaces the default sensors
  --seed N              seed of the hold times (default 1)
  --max-starved PCT     most producer refusals for busy slots, in percent of a sensor's
                        frames, before the sensor counts as starved, 0-100 (default 5)
  --reconfigure         halfway, replace every pool with createPool while frames are in flight
  --teardown            at three quarters, destroyAllPools while consumers hold slots
  --trace FILE          write a Chrome JSON trace of the run (Perfetto UI, chrome://tracing)
  --json FILE           write every figure, the verdicts and the result as JSON
  --quiet               no progress line on stderr
  --library-log         let the library's own log lines through to stderr (they also pass
                        when QELCAM_ULOG_MODE is set in the environment)
  --virtual-time        run on a virtual clock: nothing sleeps, the pools' queue steps finish
                        after their allocation cost, and the same options and seed give the same
                        figures; buffers are checked in a few words each, not every byte
  --alloc-cost-us N     virtual time: microseconds to allocate one MiB of a slot (default 65)
  --size                per sensor, sweep the slot count in virtual time and report the smallest
                        that drops no more than --max-drop of its frames for busy slots
  --max-drop PCT        sizing: the share of frames due after the warm-up that may be dropped for
                        busy slots, 0-100 (default 0)
  --warm-up S           sizing: frames due in the first S seconds are not judged (default 0)
  --batches LIST        sizing: sweep each of these batch sizes, e.g. 1,2,4 (default: the
                        sensor's own)
  --plot FILE.png       sizing: draw dropped frames and peak memory against the slot count
                        (needs gnuplot)
  -h, --help            this text

DESC: id=ID,modes=MODE:WxH[/MODE:WxH...][,batch=1-8][,slots=1-16][,lagging=0|1][,hold=HOLD]
  e.g. --sensor id=0,modes=0:4000x3000/1:4000x2250,batch=2,slots=3,lagging=0
  batch defaults to 1, slots to 3, lagging to 0; hold (as --hold) to --hold.

default sensors:
  id=0,modes=0:4000x3000,batch=1,slots=3,lagging=0
  id=1,modes=0:4032x2268,batch=2,slots=3,lagging=0
  id=2,modes=0:3264x2448,batch=1,slots=3,lagging=1

exit status: 0 clean run, 1 not clean (see the verdicts), 2 bad options or an unwritable file.
)";
}

}  // namespace gainmapsim
