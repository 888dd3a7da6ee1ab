#pragma once

// Checks that a file is a Chrome JSON trace that the trace viewers open as we mean it.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qelcam::host {

struct TraceCheck {
  std::vector<std::string> problems;  // empty when the file is a valid trace
  nlohmann::json trace;               // the parsed file, for further questions about its events

  // The problems, a line each, for a failing assertion's message.
  std::string problemText() const;
};

// Well-formed JSON in the object form with "traceEvents"; every event has the fields its phase
// needs; slices nest and balance on each thread; async spans balance per category and id; every
// flow end follows its start; counter values are numbers.
TraceCheck checkChromeTrace(std::string const& path);

}  // namespace qelcam::host
