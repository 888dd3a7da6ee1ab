#include <errno.h>
#include <pthread.h>
#include <unistd.h>

#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "ChromeTraceCheck.h"
#include "HostPlatform.h"
#include "camsys/Trace.h"

namespace {

namespace trace = NSCam::Utils::Trace;
using nlohmann::json;

std::string tracePath(std::string const& name) {
  // One file per process: the plain and sanitizer builds may run side by side.
  return ::testing::TempDir() + "host_trace_" + name + "_" + std::to_string(getpid()) + ".json";
}

// The file holds the events between start and stop, and balances: ends whose begins came before
// it are left out, and what is open at the stop is closed there. Each event reads "phase name
// args", with "~" for another thread than the first event's; the threads are named, since a
// program's main thread takes its file's name.
TEST(HostTrace, WritesEveryKindOfEventAndBalancesWhenStartedOrStoppedMidway) {
  std::string const path = tracePath("story");
  pthread_setname_np(pthread_self(), "trace-main");
  EXPECT_FALSE(trace::enabled());
  trace::beginSlice("before the file");
  ASSERT_TRUE(qelcam::host::startTrace(path));
  EXPECT_FALSE(qelcam::host::startTrace(tracePath("second"))) << "one trace at a time";
  trace::asyncEnd("slot", "held", 1);
  trace::endSlice();
  trace::beginSlice("outer", {{"slot", 2}});
  trace::beginSlice("inner");
  trace::endSlice({{"key", 1000}});
  trace::asyncBegin("slot", "held", 7, {{"key", 1000}, {"by", "producer"}});
  trace::instant("refused: \"quoted\"", {{"reason", "held by consumers"}});
  trace::counterPart("pool bytes", "bytes", 1, 100);
  trace::counterPart("pool bytes", "bytes", 2, 50);
  trace::counterPart("pool bytes", "bytes", 1, 0);
  trace::flowBegin("frame", "frame", 9);
  std::thread other([&] {
    pthread_setname_np(pthread_self(), "trace-other");
    trace::beginSlice("consume");
    trace::flowEnd("frame", "frame", 9);
    trace::asyncEnd("slot", "held", 7);
    trace::asyncBegin("slot", "held", 8);
  });
  other.join();
  qelcam::host::stopTrace();
  trace::endSlice();
  EXPECT_FALSE(trace::enabled());

  auto check = qelcam::host::checkChromeTrace(path);
  ASSERT_TRUE(check.problems.empty()) << check.problemText();
  std::vector<std::string> events;
  json const first = check.trace["traceEvents"].at(0);
  for (auto const& event : check.trace["traceEvents"]) {
    events.push_back(event["ph"].get<std::string>() + (event["tid"] == first["tid"] ? " " : "~") +
                     event.value("name", "") + " " + event.value("args", json::object()).dump());
  }
  EXPECT_EQ(events,
            (std::vector<std::string>{
                "M process_name {\"name\":\"" + std::string(program_invocation_short_name) + "\"}",
                R"(M thread_name {"name":"trace-main"})",
                R"(B outer {"slot":2})",
                R"(B inner {})",
                R"(E inner {"key":1000})",
                R"(b held {"by":"producer","key":1000})",
                R"(i refused: "quoted" {"reason":"held by consumers"})",
                R"(C pool bytes {"bytes":100})",
                R"(C pool bytes {"bytes":150})",  // the parts' sum
                R"(C pool bytes {"bytes":50})",
                R"(s frame {})",
                R"(M~thread_name {"name":"trace-other"})",
                R"(B~consume {})",
                R"(f~frame {})",
                R"(e~held {})",
                R"(b~held {})",
                R"(E outer {"open at end":1})",
                R"(E~consume {"open at end":1})",
                R"(e held {"open at end":1})",
            }));
}

TEST(ChromeTraceCheck, FindsEveryKindOfFault) {
  std::string const b = R"({"ph":"B","name":"a","pid":1,"tid":1,"ts":5})";
  std::string const e = R"({"ph":"E","pid":1,"tid":1,"ts":)";
  // The file's events, and a part of the problem found.
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"{", "not a JSON object"},
      {R"({"ph":"B","name":"a"})", "no time"},
      {b, "\"a\" never ends"},
      {e + "1}", "end without a begin"},
      {b + "," + e + "4}", "ends before it begins"},
      {b + R"(,{"ph":"E","name":"b","pid":1,"tid":1,"ts":6})", "is innermost"},
      {R"({"ph":"f","name":"a","cat":"c","id":2,"pid":1,"tid":1,"ts":1})", "flow end without"},
  };
  std::string const path = tracePath("bad");
  for (auto const& [events, problem] : cases) {
    std::ofstream(path) << R"({"traceEvents":[)" << events << "]}";
    auto const found = qelcam::host::checkChromeTrace(path).problemText();
    EXPECT_NE(found.find(problem), std::string::npos) << events << "\n" << found;
  }
}

}  // namespace
