#include <sys/syscall.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "ChromeTraceCheck.h"
#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using qelcam::host::TraceEvent;

// What the trace service hands its listeners while the test runs.
class TraceRecord {
 public:
  explicit TraceRecord(uint32_t kinds = NSCam::Utils::Trace::kAllKinds)
      : mListener(
            [this](TraceEvent const& event) {
              std::lock_guard<std::mutex> lock(mMutex);
              mEvents.push_back(event);
            },
            kinds) {}

  std::vector<TraceEvent> events() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
  }
  void clear() {
    std::lock_guard<std::mutex> lock(mMutex);
    mEvents.clear();
  }
  // "call: reason [slot]" of every refusal, in order.
  std::vector<std::string> refusals() {
    std::vector<std::string> out;
    for (auto const& event : events()) {
      if (event.phase == 'i') {
        EXPECT_EQ(event.name, "refused: " + event.find("reason")->text);
        EXPECT_EQ(event.find("sensor")->number, 3);
        out.push_back(event.find("call")->text + ": " + event.find("reason")->text + " [" +
                      std::to_string(event.find("slot")->number) + "]");
      }
    }
    return out;
  }
  // The values a counter took, in order.
  std::vector<int64_t> counter(std::string const& name, std::string const& series) {
    std::vector<int64_t> out;
    for (auto const& event : events()) {
      if (event.phase == 'C' && event.name == name) {
        out.push_back(event.find(series)->number);
      }
    }
    return out;
  }
  // "b name key" / "e name" of the slot spans, in order.
  std::vector<std::string> spans() {
    std::vector<std::string> out;
    for (auto const& event : events()) {
      if (event.phase == 'b' || event.phase == 'e') {
        auto const* key = event.find("key");
        out.push_back(
            std::string(1, event.phase) + " " + event.name +
            (event.phase == 'b' && key != nullptr ? " " + std::to_string(key->number) : ""));
      }
    }
    return out;
  }

 private:
  std::mutex mMutex;
  std::vector<TraceEvent> mEvents;
  qelcam::host::TraceListener mListener;
};

class GainMapTraceTest : public PoolTest {};

TEST_F(GainMapTraceTest, EveryProducerRefusalIsAnInstantWithItsReason) {
  TraceRecord trace;
  hold();
  auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
  EXPECT_FALSE(pool->getProducerBuffer());
  release();
  qelcam::host::waitQueuesIdle();

  auto taken = pool->getProducerBuffer();
  ASSERT_TRUE(taken);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(pool->setProducerBuffer(10, 1, taken), 0);
  auto reader = pool->getConsumerBuffer(10, 0);
  ASSERT_TRUE(reader);
  hold();
  EXPECT_FALSE(pool->getProducerBuffer());  // grows the rotation to its maximum of two
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  ASSERT_EQ(produce(*pool, 11), 0);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 1 waits for its memory on the held queue
  release();
  qelcam::host::waitQueuesIdle();
  ASSERT_EQ(produce(*pool, 12), 1);
  auto first = pool->getConsumerBuffer(11, 0);
  auto second = pool->getConsumerBuffer(12, 1);
  ASSERT_TRUE(first && second);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  pool->setPoolReleased();
  qelcam::host::waitQueuesIdle();
  EXPECT_FALSE(pool->getProducerBuffer());
  auto empty = std::make_shared<Pool>(fourByThree(1, 0), false);
  qelcam::host::waitQueuesIdle();
  EXPECT_FALSE(empty->getProducerBuffer());

  EXPECT_EQ(trace.refusals(), (std::vector<std::string>{
                                  "onGetProducerBuffer: not initialised [-1]",
                                  "onGetProducerBuffer: held by the producer [0]",
                                  "onGetProducerBuffer: held by consumers [0]",
                                  "onGetProducerBuffer: not ready [1]",
                                  "onGetProducerBuffer: rotation at its maximum [0]",
                                  "onGetProducerBuffer: released [-1]",
                                  "onGetProducerBuffer: no slot in the rotation [-1]",
                              }));
}

TEST_F(GainMapTraceTest, EveryConsumerAndReturnRefusalIsAnInstantWithItsReason) {
  // Refusals alone, as a tool that follows them without the timeline sees them.
  TraceRecord trace(NSCam::Utils::Trace::kInstants);
  auto pool = createdPool(fourByThree(1, 1));
  auto taken = pool->getProducerBuffer();
  ASSERT_TRUE(taken);
  EXPECT_FALSE(pool->getConsumerBuffer(0, 0));
  EXPECT_EQ(pool->setConsumerBuffer(taken), -22);
  EXPECT_EQ(pool->setProducerBuffer(20, 2, taken), -22);
  EXPECT_EQ(pool->setProducerBuffer(20, 1, taken), 0);
  EXPECT_EQ(pool->setProducerBuffer(20, 1, taken), -22);
  EXPECT_EQ(pool->setConsumerBuffer(taken), -22);
  EXPECT_FALSE(pool->getConsumerBuffer(19, 0));
  EXPECT_FALSE(pool->getConsumerBuffer(20, 1));
  auto reader = pool->getConsumerBuffer(20, 0);
  ASSERT_TRUE(reader);
  hold();
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 1 joins the rotation, without memory yet
  EXPECT_FALSE(pool->getConsumerBuffer(0, 1));
  release();
  qelcam::host::waitQueuesIdle();
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  pool->setPoolReleased();
  qelcam::host::waitQueuesIdle();
  EXPECT_FALSE(pool->getConsumerBuffer(20, 0));
  auto twoModes = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 1));
  EXPECT_FALSE(twoModes->getConsumerBuffer(0, 0));

  for (auto const& event : trace.events()) {
    EXPECT_EQ(event.phase, 'i') << event.name;
  }
  EXPECT_EQ(trace.refusals(), (std::vector<std::string>{
                                  "onGetConsumerBuffer: held by the producer [0]",
                                  "onSetConsumerBuffer: held by the producer [0]",
                                  "onSetProducerBuffer: valid size exceeds buffers [0]",
                                  "onSetProducerBuffer: not held by the producer [0]",
                                  "onSetConsumerBuffer: not held by a consumer [0]",
                                  "onGetConsumerBuffer: stale timestamp [0]",
                                  "onGetConsumerBuffer: invalid index [1]",
                                  "onGetProducerBuffer: held by consumers [0]",
                                  "onGetConsumerBuffer: buffers released [1]",
                                  "onGetConsumerBuffer: released [-1]",
                                  "onGetConsumerBuffer: no buffers by design [0]",
                              }));
}

TEST_F(GainMapTraceTest, SlotOccupancyAndPoolCountersFollowTheLending) {
  TraceRecord trace;
  auto pool = createdPool(fourByThree(2, 2));
  EXPECT_EQ(trace.counter("s:3 rotation", "slots"), (std::vector<int64_t>{2}));
  EXPECT_EQ(trace.counter("s:3 image", "bytes"),
            (std::vector<int64_t>{2 * kMap4x3Bytes, 4 * kMap4x3Bytes}));
  trace.clear();

  ASSERT_EQ(produce(*pool, 30), 0);
  auto first = pool->getConsumerBuffer(30, 0);
  auto second = pool->getConsumerBuffer(30, 0);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  ASSERT_EQ(produce(*pool, 31), 1);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 0 still read: the rotation grows
  qelcam::host::waitQueuesIdle();
  pool.reset();  // the pool goes while a consumer still reads slot 0

  EXPECT_EQ(trace.spans(), (std::vector<std::string>{
                               "b s:3 slot 0 producer",
                               "e s:3 slot 0 producer",
                               "b s:3 slot 0 consumer 30",
                               "b s:3 slot 0 consumer 30",
                               "e s:3 slot 0 consumer",
                               "b s:3 slot 1 producer",
                               "e s:3 slot 1 producer",
                               "e s:3 slot 0 consumer",
                           }));
  auto const events = trace.events();
  for (auto const& event : events) {
    if (event.phase == 'e' && event.find("pool destroyed") != nullptr) {
      EXPECT_EQ(event.name, "s:3 slot 0 consumer");
    }
  }
  EXPECT_EQ(trace.counter("s:3 busy", "slots"), (std::vector<int64_t>{1, 0, 1, 2, 1, 0}));
  EXPECT_EQ(trace.counter("s:3 rotation", "slots"), (std::vector<int64_t>{3}));
  // The grown slot's memory, then every slot's as the pool goes.
  EXPECT_EQ(trace.counter("s:3 image", "bytes"),
            (std::vector<int64_t>{6 * kMap4x3Bytes, 4 * kMap4x3Bytes, 2 * kMap4x3Bytes, 0}));
  EXPECT_EQ(second->buffers.size(), 0u);

  // A pool of two modes keeps each slot's memory in buffersBySize, which its destructor does not
  // free: the counter does not drop as the pool goes.
  trace.clear();
  createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 2)).reset();
  EXPECT_EQ(trace.counter("s:3 image", "bytes"),
            (std::vector<int64_t>{kMap4x3Bytes, 2 * kMap4x3Bytes}));
}

TEST_F(GainMapTraceTest, LendingCallsAndQueuedStepsAreSlicesInAValidTraceFile) {
  std::string const path =
      ::testing::TempDir() + "gainmap_pool_trace_" + std::to_string(getpid()) + ".json";
  ASSERT_TRUE(qelcam::host::startTrace(path));
  auto pool = createdPool(fourByThree(1, 1));
  ASSERT_EQ(produce(*pool, 40), 0);
  auto reader = pool->getConsumerBuffer(40, 0);
  ASSERT_TRUE(reader);
  EXPECT_FALSE(pool->getProducerBuffer());
  qelcam::host::waitQueuesIdle();
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  pool->setPoolReleased();
  pool->setPoolResume();
  qelcam::host::waitQueuesIdle();
  pool.reset();
  qelcam::host::stopTrace();

  auto check = qelcam::host::checkChromeTrace(path);
  ASSERT_TRUE(check.problems.empty()) << check.problemText();
  // The test's own calls on its thread; the steps of the pool's queue, one at a time in posting
  // order, on whichever task worker is free.
  int64_t const self = static_cast<int64_t>(::syscall(SYS_gettid));
  std::vector<std::string> calls;
  std::vector<std::string> steps;
  for (auto const& event : check.trace["traceEvents"]) {
    if (event["ph"] == "E") {
      (event["tid"].get<int64_t>() == self ? calls : steps)
          .push_back(event["name"].get<std::string>() + " " + event["args"].dump());
    }
  }
  EXPECT_EQ(calls, (std::vector<std::string>{
                       R"(getProducerBuffer s:3 {"slot":0})",
                       R"(setProducerBuffer s:3 {"key":40,"slot":0})",
                       R"(getConsumerBuffer s:3 {"key":40,"slot":0})",
                       R"(getProducerBuffer s:3 {"slot":-1})",
                       R"(setConsumerBuffer s:3 {"slot":0})",
                       R"(setPoolReleased s:3 {"slot":-1})",
                       R"(destroy s:3 {"slot":-1})",
                   }));
  EXPECT_EQ(steps, (std::vector<std::string>{
                       R"(create s:3 {"slot":-1})",
                       R"(allocate slot s:3 {"slot":1})",
                       R"(release s:3 {"slot":-1})",
                       R"(resume s:3 {"slot":-1})",
                   }));
}

TEST_F(GainMapTraceTest, TracingChangesNoLogLine) {
  auto scenario = [this] {
    auto pool = createdPool(fourByThree(1, 1));
    produce(*pool, 50);
    auto reader = pool->getConsumerBuffer(50, 0);
    hold();
    pool->getProducerBuffer();
    pool->getConsumerBuffer(49, 0);
    release();
    qelcam::host::waitQueuesIdle();
    pool->setConsumerBuffer(reader);
    pool->setConsumerBuffer(reader);
    pool->setPoolReleased();
    qelcam::host::waitQueuesIdle();
    pool->getProducerBuffer();
    pool->setPoolResume();
    qelcam::host::waitQueuesIdle();
    pool.reset();
    std::vector<std::string> lines;
    for (auto const& record : logs()) {
      lines.push_back(std::to_string(record.level) + " " + record.text);
    }
    clearLogs();
    return lines;
  };
  clearLogs();
  auto const untraced = scenario();
  std::vector<std::string> traced;
  {
    TraceRecord trace;
    traced = scenario();
    EXPECT_FALSE(trace.events().empty());
  }

  EXPECT_FALSE(untraced.empty());
  EXPECT_EQ(traced, untraced);
}

}  // namespace
}  // namespace gainmap_test
