#pragma once

#include <ostream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "Options.h"
#include "Simulation.h"

namespace gainmapsim {

// A finding about the run; a failing one keeps the result from being clean.
struct Verdict {
  bool fails;
  std::string text;
};

std::vector<Verdict> verdicts(Report const& report, Options const& options);
// Clean: no failing verdict.
bool isClean(std::vector<Verdict> const& found);

// The figures of every sensor (one column each), the process's memory, the starvation diagnosis,
// the verdicts and the result.
void printReport(Report const& report, Options const& options, std::ostream& out);
// A hold model as the JSON gives it: [MIN, MAX] or {"lognormal": {"median", "p99"}}.
nlohmann::json holdJson(HoldModel const& hold);
// The options every run shares, as JSON: duration, rate, consumers, holds, releases, seed.
nlohmann::json runJson(Options const& options);
// The same, as JSON.
nlohmann::json reportJson(Report const& report, Options const& options);

}  // namespace gainmapsim
