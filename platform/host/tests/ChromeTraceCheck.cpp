#include "ChromeTraceCheck.h"

#include <fstream>
#include <map>
#include <utility>

namespace qelcam {
namespace host {
namespace {

using nlohmann::json;
// What is open under a thread or an async span's category and id: (name, begin time), innermost
// last.
using Open = std::map<std::string, std::vector<std::pair<std::string, double>>>;

// Ends the innermost of `open`; an end without a name ends whatever is innermost.
std::string end(std::vector<std::pair<std::string, double>>& open, std::string const& name,
                double ts) {
  if (open.empty()) {
    return "end without a begin";
  }
  auto const begun = open.back();
  open.pop_back();
  if (!name.empty() && name != begun.first) {
    return "ends '" + name + "', but '" + begun.first + "' is the innermost";
  }
  return ts < begun.second ? "ends before it begins" : "";
}

// The first thing wrong with `event`, given what the events before it left open; empty if none.
std::string problemOf(json const& event, Open& open, std::map<std::string, int>& flows) {
  std::string const ph = event.is_object() ? event.value("ph", json()).dump() : "";
  char const phase = ph.size() == 3 ? ph[1] : '?';
  if (std::string("BEbesfCMiI").find(phase) == std::string::npos) {
    return "unknown phase " + ph;
  }
  auto const is = [&event](char const* field, bool (json::*type)() const noexcept) {
    return (event.value(field, json()).*type)();
  };
  bool const spanOrFlow = std::string("besf").find(phase) != std::string::npos;
  json const args = event.value("args", json::object());
  if (!is("pid", &json::is_number_integer) || !is("tid", &json::is_number_integer) ||
      !is("ts", &json::is_number) || (phase != 'E' && !is("name", &json::is_string)) ||
      (spanOrFlow && (!is("cat", &json::is_string) ||
                      (!is("id", &json::is_string) && !is("id", &json::is_number_integer)))) ||
      !args.is_object()) {
    return "a field it needs is missing or not of its type";
  }
  std::string const name = event.value("name", "");
  double const ts = event["ts"].get<double>();
  // Slices nest per thread; async spans and flows are keyed by category and id.
  std::string const key =
      phase == 'B' || phase == 'E'
          ? "thread " + event["pid"].dump() + "/" + event["tid"].dump()
          : "span " + event.value("cat", "") + " " + event.value("id", json()).dump();
  if (phase == 'B' || phase == 'b') {
    open[key].emplace_back(name, ts);
  } else if (phase == 'E' || phase == 'e') {
    return end(open[key], name, ts);
  } else if (phase == 's') {
    flows[key] = 1;
  } else if (phase == 'f' && flows[key]++ != 1) {
    return "flow end without a start, or ended twice";
  } else if (phase == 'C') {
    for (auto const& [series, value] : args.items()) {
      if (!value.is_number()) {
        return "counter series '" + series + "' is not a number";
      }
    }
    return args.empty() ? "counter without values" : "";
  } else if (phase == 'M' && name.find("_name") != std::string::npos &&
             !args.value("name", json()).is_string()) {
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
  if (result.trace.is_discarded()) {
    result.problems.push_back(path + ": unreadable or not well-formed JSON");
    return result;
  }
  if (!result.trace.is_object() || !result.trace.value("traceEvents", json()).is_array()) {
    result.problems.push_back(path + ": not an object with a 'traceEvents' array");
    return result;
  }
  Open open;
  std::map<std::string, int> flows;  // 1 started, more ended
  for (size_t i = 0; i < result.trace["traceEvents"].size(); ++i) {
    json const& event = result.trace["traceEvents"][i];
    std::string const problem = problemOf(event, open, flows);
    if (!problem.empty()) {
      result.problems.push_back("event " + std::to_string(i) + " " + event.dump() + ": " + problem);
    }
  }
  for (auto const& [key, begun] : open) {
    for (auto const& slice : begun) {
      result.problems.push_back(key + ": '" + slice.first + "' never ends");
    }
  }
  return result;
}

}  // namespace host
}  // namespace qelcam
