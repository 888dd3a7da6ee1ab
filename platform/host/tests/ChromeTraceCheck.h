#pragma once

// Checks that a file is a Chrome JSON trace that the trace viewers open as we mean it.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qelcam::host {

struct TraceCheck {
  std::vector<std::string> problems;  // empty when the file is a valid trace
  nlohmann::json trace;               // the parsed file, for further questions about its events
};

// Well-formed JSON in the object form with "traceEvents"; every event has a phase and a time;
// slices nest and balance on each thread; async spans balance per category and id; every flow
// end follows its start. What each kind of event holds is pinned by the host's trace test.
TraceCheck checkChromeTrace(std::string const& path);

}  // namespace qelcam::host
