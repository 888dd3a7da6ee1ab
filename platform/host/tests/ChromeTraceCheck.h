#pragma once

// Checks that a file is a Chrome JSON trace that the trace viewers open as we mean it.

#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace qelcam {
namespace host {

struct TraceCheck {
  // Empty when the file is a valid trace; otherwise one line per problem.
  std::vector<std::string> problems;
  // The parsed trace, for further questions about its events.
  nlohmann::json trace;

  // The problems, a line each, for a failing assertion's message.
  std::string problemText() const;
};

// Well-formed JSON in the object form with "traceEvents"; every event has the fields its phase
// needs; slices nest and balance on each thread; async spans balance per category and id; every
// flow end follows its start; counter values are numbers.
TraceCheck checkChromeTrace(std::string const& path);

}  // namespace host
}  // namespace qelcam
