#pragma once

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include "camsys/Types.h"

namespace gainmapsim {

struct SensorConfig {
  int32_t id = 0;
  // Sensor size per sensor mode.
  std::map<uint32_t, NSCam::MSize> modes;
  uint32_t batch = 1;
  uint32_t slots = 3;
  bool lagging = false;
};

struct Options {
  int durationSec = 6;
  int fps = 30;
  int consumers = 3;
  int holdMinMs = 40;
  int holdMaxMs = 120;
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
};

struct ParseResult {
  enum class Kind { Run, Help, Error };
  Kind kind = Kind::Run;
  Options options;
  std::string error;
};

std::vector<SensorConfig> defaultSensors();
ParseResult parseOptions(std::vector<std::string> const& args);
// Parses one `--sensor` value such as "id=0,modes=0:4000x3000/1:4000x2250,batch=2,slots=3".
bool parseSensor(std::string const& text, SensorConfig& sensor, std::string& error);
std::string usage();

}  // namespace gainmapsim
