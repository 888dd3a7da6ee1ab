#include <pthread.h>
#include <unistd.h>

#include <fstream>
#include <future>
#include <mutex>
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
using qelcam::host::TraceEvent;

std::string tracePath(std::string const& name) {
  // One file per process: the plain and sanitizer builds may run side by side.
  return ::testing::TempDir() + "host_trace_" + name + "_" + std::to_string(getpid()) + ".json";
}

std::vector<json> eventsOf(json const& trace, std::string const& phase) {
  std::vector<json> found;
  for (auto const& event : trace["traceEvents"]) {
    if (event["ph"] == phase) {
      found.push_back(event);
    }
  }
  return found;
}

// Collects what the trace service hands its listeners.
class Recorded {
 public:
  Recorded()
      : mListener([this](TraceEvent const& event) {
          std::lock_guard<std::mutex> lock(mMutex);
          mEvents.push_back(event);
        }) {}
  std::vector<TraceEvent> events() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
  }

 private:
  std::mutex mMutex;
  std::vector<TraceEvent> mEvents;
  qelcam::host::TraceListener mListener;
};

TEST(HostTrace, WritesAChromeTraceThatViewersOpen) {
  std::string const path = tracePath("kinds");
  ASSERT_TRUE(qelcam::host::startTrace(path));
  EXPECT_TRUE(trace::enabled());
  EXPECT_FALSE(qelcam::host::startTrace(tracePath("second"))) << "one trace at a time";

  trace::beginSlice("outer", {{"slot", 2}});
  trace::beginSlice("inner");
  trace::asyncBegin("slot", "held", 7, {{"key", 1000}, {"by", "producer"}});
  trace::instant("refused: \"quoted\"", {{"reason", "held by consumers"}});
  trace::counter("pool rotation", "slots", 3);
  trace::counterPart("pool bytes", "bytes", 1, 100);
  trace::counterPart("pool bytes", "bytes", 2, 50);
  trace::counterPart("pool bytes", "bytes", 1, 0);
  trace::flowBegin("frame", "frame", 9);
  trace::endSlice({{"key", 1000}});
  trace::endSlice();
  std::thread other([] {
    pthread_setname_np(pthread_self(), "trace-other");
    trace::beginSlice("consume");
    trace::flowEnd("frame", "frame", 9);
    trace::asyncEnd("slot", "held", 7);
    trace::endSlice();
  });
  other.join();
  qelcam::host::stopTrace();
  EXPECT_FALSE(trace::enabled());

  auto check = qelcam::host::checkChromeTrace(path);
  ASSERT_TRUE(check.problems.empty()) << check.problemText();
  auto const metadata = eventsOf(check.trace, "M");
  bool processNamed = false;
  bool threadNamed = false;
  for (auto const& event : metadata) {
    processNamed |= event["name"] == "process_name";
    threadNamed |= event["name"] == "thread_name" && event["args"]["name"] == "trace-other";
  }
  EXPECT_TRUE(processNamed);
  EXPECT_TRUE(threadNamed);
  auto const ends = eventsOf(check.trace, "E");
  ASSERT_EQ(ends.size(), 3u);
  EXPECT_EQ(ends[0]["name"], "inner");
  EXPECT_EQ(ends[1]["name"], "outer");
  EXPECT_EQ(ends[0]["args"]["key"], 1000);
  auto const counters = eventsOf(check.trace, "C");
  ASSERT_EQ(counters.size(), 4u);
  EXPECT_EQ(counters[0]["args"]["slots"], 3);
  // The parts' sum after each change: 100, 150, then 50 once part 1 is gone.
  EXPECT_EQ(counters[1]["args"]["bytes"], 100);
  EXPECT_EQ(counters[2]["args"]["bytes"], 150);
  EXPECT_EQ(counters[3]["args"]["bytes"], 50);
  auto const instants = eventsOf(check.trace, "i");
  ASSERT_EQ(instants.size(), 1u);
  EXPECT_EQ(instants[0]["name"], "refused: \"quoted\"");
  EXPECT_EQ(instants[0]["args"]["reason"], "held by consumers");
  auto const spans = eventsOf(check.trace, "b");
  ASSERT_EQ(spans.size(), 1u);
  EXPECT_EQ(spans[0]["args"]["by"], "producer");
  EXPECT_NE(spans[0]["tid"], eventsOf(check.trace, "e")[0]["tid"]);
}

TEST(HostTrace, TheFileBalancesWhenTracingStartsOrStopsMidway) {
  std::string const path = tracePath("midway");
  std::promise<void> begun;
  std::promise<void> stopped;
  std::thread worker;
  {
    Recorded recorded;  // tracing is on, but nothing goes to a file yet
    trace::beginSlice("before the file");
    trace::asyncBegin("slot", "held", 1);
    ASSERT_TRUE(qelcam::host::startTrace(path));
    trace::asyncEnd("slot", "held", 1);
    trace::endSlice();
    trace::beginSlice("left open");
    trace::asyncBegin("slot", "held", 2);
    worker = std::thread([&] {
      trace::beginSlice("open on another thread");
      begun.set_value();
      stopped.get_future().wait();
    });
    begun.get_future().wait();
    qelcam::host::stopTrace();
    trace::endSlice();
    EXPECT_EQ(recorded.events().size(), 8u) << "listeners see every event";
  }
  stopped.set_value();
  worker.join();

  auto check = qelcam::host::checkChromeTrace(path);
  ASSERT_TRUE(check.problems.empty()) << check.problemText();
  auto const ends = eventsOf(check.trace, "E");
  ASSERT_EQ(ends.size(), 2u);
  for (auto const& end : ends) {
    EXPECT_EQ(end["args"]["open at end"], 1);
  }
  ASSERT_EQ(eventsOf(check.trace, "e").size(), 1u);
  EXPECT_EQ(eventsOf(check.trace, "e")[0]["args"]["open at end"], 1);
}

TEST(HostTrace, ListenersSeeEventsOnTheCallingThreadWhileTheyLive) {
  EXPECT_FALSE(trace::enabled());
  std::vector<TraceEvent> seen;
  {
    Recorded recorded;
    EXPECT_TRUE(trace::enabled());
    trace::instant("refused: released", {{"call", "getProducerBuffer"}, {"slot", -1}});
    std::thread([] { trace::counter("pool busy", "slots", 2); }).join();
    seen = recorded.events();
  }
  EXPECT_FALSE(trace::enabled());
  trace::instant("nobody listens");

  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].phase, 'i');
  EXPECT_EQ(seen[0].name, "refused: released");
  ASSERT_NE(seen[0].find("call"), nullptr);
  EXPECT_EQ(seen[0].find("call")->text, "getProducerBuffer");
  EXPECT_EQ(seen[0].find("slot")->number, -1);
  EXPECT_EQ(seen[1].phase, 'C');
  EXPECT_NE(seen[1].tid, seen[0].tid);
  EXPECT_EQ(seen[1].find("slots")->number, 2);
}

TEST(ChromeTraceCheck, FindsEveryKindOfFault) {
  std::vector<std::pair<std::string, std::string>> const cases = {
      {"{\"traceEvents\":[", "not well-formed JSON"},
      {"[]", "not an object with a 'traceEvents' array"},
      {R"({"traceEvents":[{"ph":"B","pid":1,"tid":1,"ts":1}]})", "'name' missing"},
      {R"({"traceEvents":[{"ph":"B","name":"a","pid":1,"tid":1,"ts":1}]})", "never ends"},
      {R"({"traceEvents":[{"ph":"E","pid":1,"tid":1,"ts":1}]})", "end without a begin"},
      {R"({"traceEvents":[{"ph":"B","name":"a","pid":1,"tid":1,"ts":1},
          {"ph":"B","name":"b","pid":1,"tid":1,"ts":2},
          {"ph":"E","name":"a","pid":1,"tid":1,"ts":3},
          {"ph":"E","name":"b","pid":1,"tid":1,"ts":4}]})",
       "not the innermost slice"},
      {R"({"traceEvents":[{"ph":"B","name":"a","pid":1,"tid":1,"ts":5},
          {"ph":"E","pid":1,"tid":1,"ts":4}]})",
       "ends before it begins"},
      {R"({"traceEvents":[{"ph":"b","name":"a","cat":"c","id":"0x1","pid":1,"tid":1,"ts":1}]})",
       "async span 'a'"},
      {R"({"traceEvents":[{"ph":"e","name":"a","cat":"c","id":"0x1","pid":1,"tid":1,"ts":1}]})",
       "async end without"},
      {R"({"traceEvents":[{"ph":"b","name":"a","pid":1,"tid":1,"ts":1}]})", "'cat' missing"},
      {R"({"traceEvents":[{"ph":"f","name":"a","cat":"c","id":2,"pid":1,"tid":1,"ts":1}]})",
       "flow end without a start"},
      {R"({"traceEvents":[{"ph":"C","name":"a","pid":1,"tid":1,"ts":1,"args":{"v":"3"}}]})",
       "is not a number"},
      {R"({"traceEvents":[{"ph":"C","name":"a","pid":1,"tid":1,"ts":"1","args":{"v":3}}]})",
       "'ts' missing or not a number"},
      {R"({"traceEvents":[{"ph":"M","name":"thread_name","pid":1,"tid":1,"ts":0}]})",
       "without args.name"},
      {R"({"traceEvents":[{"ph":"Q","name":"a","pid":1,"tid":1,"ts":0}]})", "unknown phase"},
  };
  std::string const path = tracePath("bad");
  for (auto const& [text, problem] : cases) {
    std::ofstream(path) << text;
    auto check = qelcam::host::checkChromeTrace(path);
    EXPECT_NE(check.problemText().find(problem), std::string::npos) << text << "\n"
                                                                    << check.problemText();
  }
}

}  // namespace
