#include "ChromeTraceCheck.h"

#include <fstream>
#include <map>
#include <utility>

namespace qelcam {
namespace host {
namespace {

using nlohmann::json;

struct Field {
  char const* name;
  bool (json::*is)() const noexcept;
  std::string phases;  // the phases that need it
};
Field const kFields[] = {{"pid", &json::is_number_integer, "BEbesfCMiI"},
                         {"tid", &json::is_number_integer, "BEbesfCMiI"},
                         {"ts", &json::is_number, "BEbesfCMiI"},
                         {"name", &json::is_string, "BbesfCMiI"},
                         {"cat", &json::is_string, "besf"},
                         {"id", &json::is_primitive, "besf"}};

// Walks the events once, in file order, as a trace viewer does.
class Checker {
 public:
  explicit Checker(std::vector<std::string>& problems) : mProblems(problems) {}

  void check(json const& events) {
    for (size_t i = 0; i < events.size(); ++i) {
      mWhere = "event " + std::to_string(i) + " " + events[i].dump();
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

  void checkEvent(json const& event) {
    std::string const phase = event.is_object() ? event.value("ph", json()).dump() : "";
    if (phase.size() != 3 || kFields[0].phases.find(phase[1]) == std::string::npos) {
      problem("unknown phase " + phase);
      return;
    }
    bool wellFormed = true;
    if (!event.value("args", json::object()).is_object()) {
      problem("'args' is not an object");
      wellFormed = false;
    }
    for (auto const& field : kFields) {
      auto it = event.find(field.name);
      if (field.phases.find(phase[1]) != std::string::npos &&
          (it == event.end() || !((*it).*field.is)())) {
        problem(std::string("'") + field.name + "' missing or not of its type");
        wellFormed = false;
      }
    }
    if (!wellFormed) {
      return;
    }
    std::string const name = event.value("name", "");
    double const ts = event["ts"].get<double>();
    json const args = event.value("args", json::object());
    // Slices stack per thread; async spans and flows are keyed by category and id.
    std::string const key =
        std::string("BE").find(phase[1]) != std::string::npos
            ? "thread " + event["pid"].dump() + "/" + event["tid"].dump()
            : "span " + event.value("cat", "") + " " + event.value("id", json()).dump();
    if (phase[1] == 'B' || phase[1] == 'b') {
      mOpen[key].emplace_back(name, ts);
    } else if (phase[1] == 'E' || phase[1] == 'e') {
      end(mOpen[key], name, ts);
    } else if (phase[1] == 's') {
      mFlows[key] = 1;
    } else if (phase[1] == 'f' && mFlows[key]++ != 1) {
      problem("flow end without a start, or ended twice");
    } else if (phase[1] == 'C') {
      for (auto const& [series, value] : args.items()) {
        if (!value.is_number()) {
          problem("counter series '" + series + "' is not a number");
        }
      }
      if (args.empty()) {
        problem("counter without values");
      }
    } else if (phase[1] == 'M' && name.find("_name") != std::string::npos &&
               !args.value("name", json()).is_string()) {
      problem("a name record without args.name");
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
  std::map<std::string, std::vector<std::pair<std::string, double>>> mOpen;  // (name, begin)
  std::map<std::string, int> mFlows;  // 1 started, more ended
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
