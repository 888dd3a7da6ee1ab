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
  json const ph = event.is_object() ? event.value("ph", json()) : json();
  std::string const phase = ph.is_string() ? ph.get<std::string>() : "?";
  if (phase.size() != 1 || std::string("BEbesfCMiI").find(phase) == std::string::npos) {
    return "unknown phase " + ph.dump();
  }
  auto const is = [&event](char const* field, bool (json::*type)() const noexcept) {
    return (event.value(field, json()).*type)();
  };
  bool const spanOrFlow = std::string("besf").find(phase) != std::string::npos;
  if (!is("pid", &json::is_number_integer) || !is("tid", &json::is_number_integer) ||
      !is("ts", &json::is_number) || (phase != "E" && !is("name", &json::is_string)) ||
      (spanOrFlow && (!is("cat", &json::is_string) ||
                      (!is("id", &json::is_string) && !is("id", &json::is_number_integer)))) ||
      !event.value("args", json::object()).is_object()) {
    return "a field it needs is missing or not of its type";
  }
  json const args = event.value("args", json::object());
  std::string const key =
      phase == "B" || phase == "E"
          ? "thread " + event["pid"].dump() + "/" + event["tid"].dump()
          : "span " + event.value("cat", "") + " " + event.value("id", json()).dump();
  if (phase == "B" || phase == "b") {
    open[key].push_back(event);
  } else if (phase == "E" || phase == "e") {
    if (open[key].empty()) {
      return "end without a begin";
    }
    json const begun = open[key].back();
    open[key].pop_back();
    if (event.contains("name") && event["name"] != begun["name"]) {
      return "ends " + event["name"].dump() + ", but " + begun["name"].dump() + " is innermost";
    }
    return event["ts"] < begun["ts"] ? "ends before it begins" : "";
  } else if (phase == "s") {
    flows[key] = 1;  // its one end counts 2
  } else if (phase == "f" && flows[key]++ != 1) {
    return "flow end without a start, or ended twice";
  } else if (phase == "C") {
    for (auto const& [series, value] : args.items()) {
      if (!value.is_number()) {
        return "counter series '" + series + "' is not a number";
      }
    }
    return args.empty() ? "counter without values" : "";
  } else if (phase == "M" && !args.value("name", json()).is_string()) {
    return "a name record without args.name";
  }
  return "";
}

}  // namespace

std::string TraceCheck::problemText() const {
  std::string text;
  for (auto const& problem : problems) {
    text += problem + "\n";
  }
  return text;
}

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
      result.problems.push_back(key + ": " + slice["name"].dump() + " never ends");
    }
  }
  return result;
}

}  // namespace qelcam::host
