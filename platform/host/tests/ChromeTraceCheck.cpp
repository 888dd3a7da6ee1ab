#include "ChromeTraceCheck.h"

#include <fstream>
#include <map>

namespace qelcam::host {
namespace {

using nlohmann::json;
// The begin events still open per thread (slices) or per category and id (async spans), innermost
// last.
using Open = std::map<std::string, std::vector<json>>;

// The first thing wrong with `event`, given what the events before it left open; empty if none.
std::string problemOf(json const& event, Open& open, std::map<std::string, int>& flows) {
  if (!event.is_object() || !event.value("ph", json()).is_string() ||
      !event.value("ts", json()).is_number()) {
    return "no phase or no time";
  }
  std::string const phase = event["ph"];
  std::string const key =
      phase == "B" || phase == "E"
          ? "thread " + event.value("pid", json()).dump() + "/" + event.value("tid", json()).dump()
          : "span " + event.value("cat", json()).dump() + " " + event.value("id", json()).dump();
  if (phase == "B" || phase == "b") {
    open[key].push_back(event);
  } else if (phase == "E" || phase == "e") {
    if (open[key].empty()) {
      return "end without a begin";
    }
    json const begun = open[key].back();
    open[key].pop_back();
    json const name = begun.value("name", json());
    if (event.value("name", name) != name) {
      return "ends " + event["name"].dump() + ", but " + name.dump() + " is innermost";
    }
    return event["ts"] < begun["ts"] ? "ends before it begins" : "";
  } else if (phase == "s") {
    flows[key] = 1;  // its one end counts 2
  } else if (phase == "f" && flows[key]++ != 1) {
    return "flow end without a start, or ended twice";
  }
  return "";
}

}  // namespace

TraceCheck checkChromeTrace(std::string const& path) {
  TraceCheck result;
  std::ifstream in(path);
  result.trace = json::parse(in, nullptr, false);
  // What does not parse is discarded, which is no object either.
  if (!result.trace.is_object() || !result.trace.value("traceEvents", json()).is_array()) {
    result.problems.push_back(path + ": not a JSON object with a 'traceEvents' array");
    return result;
  }
  Open open;
  std::map<std::string, int> flows;
  for (json const& event : result.trace["traceEvents"]) {
    std::string const problem = problemOf(event, open, flows);
    if (!problem.empty()) {
      result.problems.push_back(event.dump() + ": " + problem);
    }
  }
  for (auto const& [key, begun] : open) {
    for (json const& slice : begun) {
      result.problems.push_back(key + ": " + slice.value("name", json()).dump() + " never ends");
    }
  }
  return result;
}

}  // namespace qelcam::host
