#include "ChromeTraceCheck.h"

#include <fstream>
#include <map>
#include <set>
#include <utility>

namespace qelcam {
namespace host {
namespace {

using nlohmann::json;

class Checker {
 public:
  explicit Checker(std::vector<std::string>& problems) : mProblems(problems) {}

  void check(json const& events) {
    for (size_t i = 0; i < events.size(); ++i) {
      mWhere = "event " + std::to_string(i);
      checkEvent(events[i]);
    }
    for (auto const& [thread, open] : mSlices) {
      for (auto const& slice : open) {
        problem("thread " + std::to_string(thread.second) + ": slice '" + slice.first +
                "' never ends");
      }
    }
    for (auto const& [span, open] : mSpans) {
      for (auto const& name : open) {
        problem("async span '" + name + "' (" + span.first + ", " + span.second + ") never ends");
      }
    }
  }

 private:
  using Thread = std::pair<int64_t, int64_t>;
  using Span = std::pair<std::string, std::string>;

  void problem(std::string const& text) { mProblems.push_back(text); }

  bool require(json const& event, char const* field, bool (json::*is)() const noexcept,
               char const* what) {
    auto it = event.find(field);
    if (it == event.end() || !((*it).*is)()) {
      problem(mWhere + ": '" + field + "' missing or not " + what);
      return false;
    }
    return true;
  }

  void checkEvent(json const& event) {
    if (!event.is_object()) {
      problem(mWhere + ": not an object");
      return;
    }
    if (!require(event, "ph", &json::is_string, "a string") ||
        event["ph"].get<std::string>().size() != 1) {
      problem(mWhere + ": bad phase");
      return;
    }
    char const phase = event["ph"].get<std::string>()[0];
    bool ok = require(event, "pid", &json::is_number_integer, "an integer") &&
              require(event, "tid", &json::is_number_integer, "an integer") &&
              require(event, "ts", &json::is_number, "a number");
    if (event.contains("args") && !event["args"].is_object()) {
      problem(mWhere + ": 'args' is not an object");
      ok = false;
    }
    if (phase != 'E' && !require(event, "name", &json::is_string, "a string")) {
      ok = false;
    }
    if (ok) {
      mWhere += " ('" + event.value("name", std::string()) + "')";
      checkPhase(phase, event);
    }
  }

  void checkPhase(char phase, json const& event) {
    Thread const thread{event["pid"].get<int64_t>(), event["tid"].get<int64_t>()};
    double const ts = event["ts"].get<double>();
    switch (phase) {
      case 'B':
        mSlices[thread].emplace_back(event["name"].get<std::string>(), ts);
        break;
      case 'E':
        endSlice(thread, event, ts);
        break;
      case 'b':
      case 'e':
        if (identified(event)) {
          async(phase, event);
        }
        break;
      case 's':
      case 'f':
        if (identified(event)) {
          flow(phase, event);
        }
        break;
      case 'C':
        counter(event);
        break;
      case 'i':
      case 'I':
        if (event.contains("s") && (!event["s"].is_string() ||
                                    std::set<std::string>{"t", "p", "g"}.count(event["s"]) == 0)) {
          problem(mWhere + ": instant scope is not t, p or g");
        }
        break;
      case 'M':
        metadata(event);
        break;
      default:
        problem(mWhere + ": unknown phase '" + std::string(1, phase) + "'");
    }
  }

  void endSlice(Thread const& thread, json const& event, double ts) {
    auto& open = mSlices[thread];
    if (open.empty()) {
      problem(mWhere + ": end without a begin on its thread");
      return;
    }
    if (event.contains("name") && event["name"] != open.back().first) {
      problem(mWhere + ": ends '" + open.back().first + "', which is not the innermost slice");
    }
    if (ts < open.back().second) {
      problem(mWhere + ": ends before it begins");
    }
    open.pop_back();
  }

  bool identified(json const& event) {
    bool ok = require(event, "cat", &json::is_string, "a string");
    if (!event.contains("id") || !(event["id"].is_string() || event["id"].is_number_integer())) {
      problem(mWhere + ": 'id' missing or neither a string nor an integer");
      ok = false;
    }
    return ok;
  }

  static Span spanOf(json const& event) {
    return {event["cat"].get<std::string>(), event["id"].dump()};
  }

  void async(char phase, json const& event) {
    auto& open = mSpans[spanOf(event)];
    std::string const name = event["name"].get<std::string>();
    if (phase == 'b') {
      open.push_back(name);
    } else if (open.empty() || open.back() != name) {
      problem(mWhere + ": async end without a matching open span");
    } else {
      open.pop_back();
    }
  }

  void flow(char phase, json const& event) {
    Span const span = spanOf(event);
    if (phase == 's') {
      mFlowsStarted.insert(span);
    } else if (mFlowsStarted.count(span) == 0) {
      problem(mWhere + ": flow end without a start");
    } else if (!mFlowsEnded.insert(span).second) {
      problem(mWhere + ": flow ended twice");
    }
  }

  void counter(json const& event) {
    if (!event.contains("args") || event["args"].empty()) {
      problem(mWhere + ": counter without values");
      return;
    }
    for (auto const& [series, value] : event["args"].items()) {
      if (!value.is_number()) {
        problem(mWhere + ": counter series '" + series + "' is not a number");
      }
    }
  }

  void metadata(json const& event) {
    static std::set<std::string> const kNames = {"process_name", "thread_name",
                                                 "process_sort_index", "thread_sort_index"};
    if (kNames.count(event["name"]) == 0) {
      problem(mWhere + ": unknown metadata");
    } else if (event["name"].get<std::string>().find("_name") != std::string::npos &&
               !(event.contains("args") && event["args"].contains("name") &&
                 event["args"]["name"].is_string())) {
      problem(mWhere + ": a name record without args.name");
    }
  }

  std::vector<std::string>& mProblems;
  std::string mWhere;
  std::map<Thread, std::vector<std::pair<std::string, double>>> mSlices;
  std::map<Span, std::vector<std::string>> mSpans;
  std::set<Span> mFlowsStarted;
  std::set<Span> mFlowsEnded;
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
  if (!in) {
    result.problems.push_back(path + ": cannot be read");
    return result;
  }
  result.trace = json::parse(in, nullptr, false);
  if (result.trace.is_discarded()) {
    result.problems.push_back(path + ": not well-formed JSON");
    return result;
  }
  if (!result.trace.is_object() || !result.trace.contains("traceEvents") ||
      !result.trace["traceEvents"].is_array()) {
    result.problems.push_back(path + ": not an object with a 'traceEvents' array");
    return result;
  }
  Checker(result.problems).check(result.trace["traceEvents"]);
  return result;
}

}  // namespace host
}  // namespace qelcam
