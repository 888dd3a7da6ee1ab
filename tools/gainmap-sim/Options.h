#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "camsys/Types.h"

namespace gainmapsim {

// How long a consumer holds a slot: uniform over MIN-MAX milliseconds, or lognormal with a median
// and a 99th percentile, whose long tail is what a slow stage (an encoder) looks like.
struct HoldModel {
  enum class Kind { Uniform, Lognormal };
  Kind kind = Kind::Uniform;
  int minMs = 40;
  int maxMs = 120;
  int medianMs = 0;
  int p99Ms = 0;
};

struct SensorConfig {
  int32_t id = 0;
  // Sensor size per sensor mode.
  std::map<uint32_t, NSCam::MSize> modes;
  uint32_t batch = 1;
  uint32_t slots = 3;
  bool lagging = false;
  // This sensor's consumers' holds, when they differ from --hold.
  std::optional<HoldModel> hold;
};

struct Options {
  int durationSec = 6;
  int fps = 30;
  int consumers = 3;
  HoldModel hold;
  // 0: the pools are never released.
  int releasePeriodMs = 2000;
  int releaseTimeMs = 200;
  uint32_t seed = 1;
  bool quiet = false;
  bool libraryLog = false;
  // Empty: no trace file, no JSON figures.
  std::string tracePath;
  std::string jsonPath;
  // A sensor whose producer is refused for busy slots more often than this, in percent of its
  // frames, is starved.
  int maxStarvedPercent = 5;
  // Scenarios: replace every pool halfway; tear the client's pools down at three quarters.
  bool reconfigure = false;
  bool teardown = false;
  std::vector<SensorConfig> sensors;
  // Virtual time: a clock of the simulator's drives frames, holds, schedule and the pools' queue
  // steps, each queue step finishing after its allocation cost; nothing sleeps.
  bool virtualTime = false;
  int allocCostUsPerMiB = 65;
  // Sizing: per sensor (and batch size) the smallest slot count that drops no more than
  // maxDropPercent of the frames due after the warm-up, in virtual time.
  bool size = false;
  int maxDropPercent = 0;
  int warmUpSec = 0;
  std::vector<uint32_t> batches;  // empty: each sensor's own
  std::string plotPath;
};

struct ParseResult {
  enum class Kind { Run, Help, Error };
  Kind kind = Kind::Run;
  Options options;
  std::string error;
};

std::vector<SensorConfig> defaultSensors();
// The most image memory a sensor's pool can hold: its whole grown rotation.
uint64_t worstImageBytes(SensorConfig const& sensor);
constexpr uint64_t kMaxImageBytes = uint64_t{1} << 30;
ParseResult parseOptions(std::vector<std::string> const& args);
// Parses one `--sensor` value such as "id=0,modes=0:4000x3000/1:4000x2250,batch=2,slots=3".
bool parseSensor(std::string const& text, SensorConfig& sensor, std::string& error);
std::string usage();

}  // namespace gainmapsim
