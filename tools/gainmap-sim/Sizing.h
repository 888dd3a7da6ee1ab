#pragma once

#include <cstdint>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Options.h"

namespace gainmapsim {

// One virtual-time run of one sensor's pool at one slot count.
struct SizingRow {
  uint32_t slots = 0;
  uint64_t due = 0;      // frames due from the warm-up on
  uint64_t dropped = 0;  // of those, refused for busy slots: growing plus at the maximum
  uint64_t droppedGrowing = 0;
  uint64_t droppedAtMax = 0;
  uint32_t rotation = 0;  // the largest rotation the producer was lent slots of
  uint64_t peakImageBytes = 0;
};

// The sweep of one sensor at one batch size, from one slot up, until a slot count passes.
struct SizingSweep {
  SensorConfig sensor;
  std::vector<SizingRow> rows;
  std::optional<uint32_t> answer;  // the smallest slot count that passed, the last row
  std::string noAnswer;            // why the sweep stopped without one
};

std::vector<SizingSweep> runSizing(Options const& options);
void printSizing(std::vector<SizingSweep> const& sweeps, Options const& options, std::ostream& out);
nlohmann::json sizingJson(std::vector<SizingSweep> const& sweeps, Options const& options);
// Draws dropped frames and peak image memory against the slot count, one line per sweep, into
// options.plotPath through gnuplot. False, with the reason, when gnuplot could not.
bool plotSizing(std::vector<SizingSweep> const& sweeps, Options const& options, std::string& error);

}  // namespace gainmapsim
