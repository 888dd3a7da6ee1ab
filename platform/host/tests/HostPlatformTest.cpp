#include <errno.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include "ChromeTraceCheck.h"
#include "HostPlatform.h"
#include "camsys/ImageBuffer.h"
#include "camsys/Properties.h"
#include "camsys/TaskMgr.h"
#include "camsys/Trace.h"

namespace {

namespace trace = NSCam::Utils::Trace;
using nlohmann::json;
using NSCam::CTM::CentralTaskMgr;
using NSCam::CTM::TaskQueue;
using NSCam::Utils::Properties::property_get_int32;

// Heaps created, heaps alive, bytes alive, buffers locked, buffers dropped locked: added since.
std::vector<uint64_t> since(qelcam::host::HeapStats const& b) {
  auto const n = qelcam::host::heapStats();
  return {n.heapsCreated - b.heapsCreated, n.heapsAlive - b.heapsAlive, n.bytesAlive - b.bytesAlive,
          n.buffersLocked - b.buffersLocked, n.buffersDroppedLocked - b.buffersDroppedLocked};
}

// A buffer locks once and has an address only while locked; a heap's bytes go back only when the
// heap and its last buffer are gone.
TEST(HostImageMemory, LocksOnceAndFreesWithTheLastHolder) {
  auto const before = qelcam::host::heapStats();
  qcam::IImageBufferAllocator::ImgParam param;
  param.imgFormat = qelcam::host::kFormatBlob;
  param.imgSize = NSCam::MSize(12000, 1);
  param.strideInBytes = 12000;
  auto heap = qcam::IImageBufferHeapFactory::create("test", "heap", param, false);
  ASSERT_NE(heap, nullptr);
  NSCam::ImageBufferInfo info;  // three buffers 4000 bytes apart, each of two 1000-byte planes
  info.count = 3;
  info.bufStep = 4000;
  info.bufPlanes.count = 2;
  info.bufPlanes.planes[0] = info.bufPlanes.planes[1] = {1000, 100};
  auto buffers = heap->createImageBuffers(info, "test", true);
  ASSERT_EQ(buffers.size(), 3u);
  EXPECT_EQ(buffers[2]->getBufVA(0), 0u) << "no address before lockBuf";
  for (auto const& buffer : buffers) {
    ASSERT_TRUE(buffer->lockBuf("test", 0x6000f));
    EXPECT_FALSE(buffer->lockBuf("test", 0x6000f)) << "already locked";
  }
  EXPECT_EQ(buffers[2]->getBufVA(1), buffers[0]->getBufVA(0) + 2 * 4000 + 1000);
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 1, 12000, 3, 0}));

  EXPECT_TRUE(buffers[0]->unlockBuf("test"));
  EXPECT_FALSE(buffers[0]->unlockBuf("test")) << "already unlocked";
  EXPECT_EQ(buffers[0]->getBufVA(0), 0u) << "no address after unlockBuf";
  auto last = buffers[2];
  heap.reset();
  buffers.clear();
  // Buffer 1 went still locked; the one left holds the heap's memory, which stays writable.
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 1, 12000, 1, 1}));
  std::memset(reinterpret_cast<void*>(last->getBufVA(1)), 0x5a, 1000);
  last.reset();
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 0, 0, 0, 2}));
}

TEST(HostProperties, ParsesIntegersAsAndroidDoesAndFallsBackOtherwise) {
  constexpr char kKey[] = "vendor.debug.camera.log.pipeline.gainmap";
  // Text and value; -7 is the default, given back for what is no 32-bit integer.
  std::vector<std::pair<char const*, int32_t>> const cases = {
      {"0x1f", 31}, {"017", 15}, {"  \t-12", -12},           {"3 apples", 3},
      {"09", 0},    {"0x", 0},   {"-2147483648", INT32_MIN}, {"2147483648", -7},
      {"", -7},     {"abc", -7},
  };
  for (auto const& [text, value] : cases) {
    qelcam::host::setProperty(kKey, text);
    EXPECT_EQ(property_get_int32(kKey, -7), value) << "'" << text << "'";
  }
  qelcam::host::clearProperty(kKey);
  EXPECT_EQ(property_get_int32(kKey, 3), 3);
  EXPECT_EQ(property_get_int32(nullptr, 4), 4);
}

TEST(HostPropertiesDeathTest, StartsFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // The child re-runs the program, so its store is filled from this environment.
  setenv("QELCAM_PROPERTIES", "vendor.a=0x10; vendor.b = 7;junk;=1;vendor.c=", 1);
  auto const print = [] {
    for (char const* key : {"vendor.a", "vendor.b", "vendor.c", "junk"}) {
      std::fprintf(stderr, "%d,", property_get_int32(key, -1));
    }
    std::exit(0);
  };
  EXPECT_EXIT(print(), testing::ExitedWithCode(0), "^16,7,-1,-1,$");
  unsetenv("QELCAM_PROPERTIES");
}

std::shared_ptr<TaskQueue> makeQueue(char const* name) {
  CentralTaskMgr::QueueParam param;
  param.name = name;
  param.priority = 1;
  return CentralTaskMgr::createQueue(param);
}

// Posts `step` the way the library does and hands back the handle that carries its future.
std::shared_ptr<NSCam::CTM::TaskHandle> postStep(std::shared_ptr<TaskQueue>& queue,
                                                 std::function<void()> step) {
  auto task = std::make_shared<std::packaged_task<void()>>(std::move(step));
  auto handle = CentralTaskMgr::asyncPost(queue, 1, [task] { (*task)(); });
  handle->setFuture(task->get_future().share());
  return handle;
}

// Creating a queue starts no thread, and a blocked task keeps its worker: with every worker
// blocked, what is posted meanwhile runs on workers started for it, and a task that waits on
// another queue's barrier gets it run, as a pool's destruction does when its last reference goes
// inside another queue's task.
TEST(HostCentralTaskMgr, BlockedTasksNeverStarveAnotherQueue) {
  qelcam::host::waitQueuesIdle();
  auto const before = qelcam::host::taskWorkerStats();
  // One more blocked task than there are workers: the last needs a worker started for it.
  size_t const parked = before.workersAlive + 1;
  std::vector<std::shared_ptr<TaskQueue>> queues;
  for (size_t n = 0; n < parked + 2; ++n) {
    queues.push_back(makeQueue("queue"));
  }
  EXPECT_EQ(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);

  std::promise<void> unpark;
  std::shared_future<void> gate = unpark.get_future().share();
  for (size_t n = 0; n < parked; ++n) {
    postStep(queues[n], [gate] { gate.wait(); });
  }
  postStep(queues[parked], [&] { postStep(queues[parked + 1], [] {})->getFuture().wait(); })
      ->getFuture()
      .wait();
  unpark.set_value();
  qelcam::host::waitQueuesIdle();
  EXPECT_GT(qelcam::host::taskWorkerStats().workersStarted, before.workersStarted);
}

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
  ASSERT_EQ(check.problems, std::vector<std::string>{});
  std::vector<std::string> events;
  json const first = check.trace["traceEvents"].at(0);
  for (auto const& event : check.trace["traceEvents"]) {
    events.push_back(event["ph"].get<std::string>() + (event["tid"] == first["tid"] ? " " : "~") +
                     event.value("name", "") + " " + event.value("args", json::object()).dump());
  }
  // The stop closes what each thread left open in the order of their thread ids, which wrap.
  std::sort(events.end() - 3, events.end());
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

// The check must be able to fail: each fault adds a problem of its own.
TEST(ChromeTraceCheck, FindsEveryKindOfFault) {
  std::string const b = R"({"ph":"B","name":"a","pid":1,"tid":1,"ts":5},)";
  std::string const path = tracePath("bad");
  std::ofstream(path) << R"({"traceEvents":[{"ph":"B"},)"                         // no time
                      << b << R"({"ph":"E","pid":1,"tid":1,"ts":4},)"             // ends before
                      << b << R"({"ph":"E","name":"b","pid":1,"tid":1,"ts":6},)"  // not innermost
                      << R"({"ph":"E","pid":1,"tid":1,"ts":6},)"                  // no begin
                      << R"({"ph":"f","name":"a","cat":"c","id":2,"ts":7},)"      // no flow start
                      << R"({"ph":"B","name":"c","pid":1,"tid":1,"ts":8}]})";     // never ends
  auto const problems = qelcam::host::checkChromeTrace(path).problems;
  EXPECT_EQ(problems.size(), 6u) << testing::PrintToString(problems);
  EXPECT_EQ(qelcam::host::checkChromeTrace(tracePath("none")).problems.size(), 1u);
}

}  // namespace
