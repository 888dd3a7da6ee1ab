#include "ChromeTraceCheck.h"

#include <fstream>
#include <map>
#include <set>
#include <utility>

namespace qelcam {
namespace host {
namespace {

using nlohmann::json;

// Walks the events once, in file order, as a trace viewer does. Open slices and async spans are
// stacks of (name, begin time) under their key.
class Checker {
 public:
  explicit Checker(std::vector<std::string>& problems) : mProblems(problems) {}

  void check(json const& events) {
    for (size_t i = 0; i < events.size(); ++i) {
      bool const named = events[i].is_object() && events[i].contains("name");
      mWhere = "event " + std::to_string(i) + (named ? " " + events[i]["name"].dump() : "");
      checkEvent(events[i]);
    }
    for (auto const& [key, open] : mOpen) {
      for (auto const& begun : open) {
        mProblems.push_back(key + ": '" + begun.first + "' never ends");
      }
    }
  }

 private:
  void problem(std::string const& text) { mProblems.push_back(mWhere + ": " + text); }

  bool has(json const& event, char const* field, bool (json::*is)() const noexcept) {
    auto it = event.find(field);
    if (it == event.end() || !((*it).*is)()) {
      problem(std::string("'") + field + "' missing or not of its type");
      return false;
    }
    return true;
  }

  void checkEvent(json const& event) {
    if (!event.is_object() || !has(event, "ph", &json::is_string) ||
        event["ph"].get<std::string>().size() != 1) {
      problem("not an event with a one-letter phase");
      return;
    }
    char const phase = event["ph"].get<std::string>()[0];
    if (!has(event, "pid", &json::is_number_integer) ||
        !has(event, "tid", &json::is_number_integer) || !has(event, "ts", &json::is_number) ||
        ((phase != 'E' || event.contains("name")) && !has(event, "name", &json::is_string)) ||
        (event.contains("args") && !has(event, "args", &json::is_object))) {
      return;
    }
    std::string const name = event.value("name", "");
    double const ts = event["ts"].get<double>();
    json const args = event.value("args", json::object());
    // Slices stack per thread; async spans and flows are keyed by category and id.
    std::string key = "thread " + event["pid"].dump() + "/" + event["tid"].dump();
    if (std::string("besf").find(phase) != std::string::npos) {
      if (!has(event, "cat", &json::is_string) || !has(event, "id", &json::is_primitive)) {
        return;
      }
      key = "async span " + event["cat"].dump() + " " + event["id"].dump();
    }
    if (phase == 'B' || phase == 'b') {
      mOpen[key].emplace_back(name, ts);
    } else if (phase == 'E' || phase == 'e') {
      end(mOpen[key], name, ts);
    } else if (phase == 's') {
      mFlowsStarted.insert(key);
    } else if (phase == 'f') {
      if (mFlowsStarted.count(key) == 0 || !mFlowsEnded.insert(key).second) {
        problem("flow end without a start, or ended twice");
      }
    } else if (phase == 'C') {
      for (auto const& [series, value] : args.items()) {
        if (!value.is_number()) {
          problem("counter series '" + series + "' is not a number");
        }
      }
      if (args.empty()) {
        problem("counter without values");
      }
    } else if (phase == 'M' && name.find("_name") != std::string::npos &&
               !args.value("name", json()).is_string()) {
      problem("a name record without args.name");
    } else if (phase != 'M' && phase != 'i' && phase != 'I') {
      problem(std::string("unknown phase '") + phase + "'");
    }
  }

  // Ends the innermost of `open`; an end without a name ends whatever is innermost.
  void end(std::vector<std::pair<std::string, double>>& open, std::string const& name, double ts) {
    if (open.empty()) {
      problem("end without a begin");
      return;
    }
    if (!name.empty() && name != open.back().first) {
      problem("ends '" + name + "', but '" + open.back().first + "' is the innermost");
    }
    if (ts < open.back().second) {
      problem("ends before it begins");
    }
    open.pop_back();
  }

  std::vector<std::string>& mProblems;
  std::string mWhere;
  std::map<std::string, std::vector<std::pair<std::string, double>>> mOpen;
  std::set<std::string> mFlowsStarted;
  std::set<std::string> mFlowsEnded;
};

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
  } else if (!result.trace.is_object() || !result.trace.value("traceEvents", json()).is_array()) {
    result.problems.push_back(path + ": not an object with a 'traceEvents' array");
  } else {
    Checker(result.problems).check(result.trace["traceEvents"]);
  }
  return result;
}

}  // namespace host
}  // namespace qelcam
