// The trace a pool leaves: every refusal as an instant with its reason, the slot spans and the
// pool's counters.

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using qelcam::host::TraceEvent;

// Every event the trace service hands its listeners while alive, as a line led by its phase:
// "i call: reason [slot n]" (a refusal), "b name key" and "e name" (a slot span), "E slot key" (a
// slice's end) and "C name value" (a counter).
class TraceRecord {
 public:
  explicit TraceRecord(uint32_t kinds = NSCam::Utils::Trace::kAllKinds)
      : mListener([this](TraceEvent const& event) { mLines.push_back(describe(event)); }, kinds) {}

  // The lines that match `pattern`, in order. Called once the queues are idle.
  Lines of(char const* pattern) {
    Lines out;
    for (std::string const& line : mLines) {
      if (std::regex_search(line, std::regex(pattern))) {
        out.push_back(line);
      }
    }
    return out;
  }

 private:
  static std::string describe(TraceEvent const& event) {
    auto const arg = [&](char const* name) {
      auto const* found = event.find(name);
      return !found ? "" : " " + (found->isText ? found->text : std::to_string(found->number));
    };
    auto const destroyed = arg("pool destroyed");
    switch (event.phase) {
      case 'i':
        // A refusal is named by its reason, for its sensor.
        EXPECT_EQ(event.name + arg("sensor"), "refused:" + arg("reason") + " 3");
        return "i" + arg("call") + ":" + arg("reason") + " [slot" + arg("slot") + "]";
      case 'b':
        return "b " + event.name + arg("key");
      case 'e':
        return "e " + event.name + (destroyed.empty() ? "" : " (pool destroyed" + destroyed + ")");
      case 'E':
        return "E" + arg("slot") + arg("key");
      case 'C':
        return "C " + event.name + arg("slots") + arg("bytes");
    }
    return std::string(1, event.phase) + " " + event.name;
  }

  Lines mLines;  // written under the trace service's lock, read once the queues are idle
  qelcam::host::TraceListener mListener;
};

using GainMapTraceTest = PoolTest;

TEST_F(GainMapTraceTest, EveryRefusalIsAnInstantWithItsReasonAndALoggedMessage) {
  // Refusals alone, as a tool that follows them without the timeline sees them.
  TraceRecord trace(NSCam::Utils::Trace::kInstants);
  holdQueues();
  auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
  EXPECT_FALSE(pool->getProducerBuffer());
  releaseQueues();
  waitQueuesIdle();

  auto taken = pool->getProducerBuffer();
  ASSERT_TRUE(taken);
  EXPECT_FALSE(pool->getProducerBuffer());
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
  holdQueues();
  EXPECT_FALSE(pool->getProducerBuffer());  // grows the rotation to its maximum of two
  EXPECT_FALSE(pool->getConsumerBuffer(0, 1));
  EXPECT_EQ(pool->setConsumerBuffer(reader), 0);
  ASSERT_EQ(pool->setProducerBuffer(21, 1, pool->getProducerBuffer()), 0);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 1 waits for its memory on the held queue
  releaseQueues();
  waitQueuesIdle();
  ASSERT_EQ(pool->setProducerBuffer(22, 1, pool->getProducerBuffer()), 0);
  auto first = pool->getConsumerBuffer(21, 0);
  auto second = pool->getConsumerBuffer(22, 1);
  ASSERT_TRUE(first && second);
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  pool->setPoolReleased();
  waitQueuesIdle();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_FALSE(pool->getConsumerBuffer(20, 0));
  // A golden dump: a released pool whose slots have lost their buffers but keep their keys.
  EXPECT_EQ(
      take('D').back(),
      "[dump] [s:3] released(1) (p, c, validSize, key, buffers.size()): {[0]: (0, 0, 1, 21, 0), "
      "[1]: (0, 0, 1, 22, 0), }");
  EXPECT_FALSE(createdPool(fourByThree(1, 0))->getProducerBuffer());
  auto twoModes = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 1));
  EXPECT_FALSE(twoModes->getConsumerBuffer(0, 0));

  // The model checks the errors, warnings and dumps of each step, not this debug line.
  EXPECT_EQ(take('5').back(),
            "[onGetConsumerBuffer] [s:3][i:0] slot buffers has been released. mbReleased(0)");
  Lines const refusals = {
      "i onGetProducerBuffer: not initialised [slot -1]",
      "i onGetProducerBuffer: held by the producer [slot 0]",
      "i onGetConsumerBuffer: held by the producer [slot 0]",
      "i onSetConsumerBuffer: held by the producer [slot 0]",
      "i onSetProducerBuffer: valid size exceeds buffers [slot 0]",
      "i onSetProducerBuffer: not held by the producer [slot 0]",
      "i onSetConsumerBuffer: not held by a consumer [slot 0]",
      "i onGetConsumerBuffer: stale timestamp [slot 0]",
      "i onGetConsumerBuffer: invalid index [slot 1]",
      "i onGetProducerBuffer: held by consumers [slot 0]",
      "i onGetConsumerBuffer: buffers released [slot 1]",
      "i onGetProducerBuffer: not ready [slot 1]",
      "i onGetProducerBuffer: rotation at its maximum [slot 0]",
      "i onGetProducerBuffer: released [slot -1]",
      "i onGetConsumerBuffer: released [slot -1]",
      "i onGetProducerBuffer: no slot in the rotation [slot -1]",
      "i onGetConsumerBuffer: no buffers by design [slot 0]",
  };
  EXPECT_EQ(trace.of("^i"), refusals);
}

TEST_F(GainMapTraceTest, SlotSpansAndPoolCountersFollowTheLending) {
  TraceRecord trace;
  auto pool = createdPool(fourByThree(2, 2));
  ASSERT_EQ(pool->setProducerBuffer(30, 2, pool->getProducerBuffer()), 0);
  auto first = pool->getConsumerBuffer(30, 0);
  auto second = pool->getConsumerBuffer(30, 0);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  ASSERT_EQ(pool->setProducerBuffer(31, 2, pool->getProducerBuffer()), 0);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 0 still read: the rotation grows
  waitQueuesIdle();
  pool.reset();  // the pool goes while a consumer still reads slot 0

  EXPECT_EQ(trace.of("^[ibe] "),
            (Lines{"b s:3 slot 0 producer", "e s:3 slot 0 producer", "b s:3 slot 0 consumer 30",
                   "b s:3 slot 0 consumer 30", "e s:3 slot 0 consumer", "b s:3 slot 1 producer",
                   "e s:3 slot 1 producer", "i onGetProducerBuffer: held by consumers [slot 0]",
                   "e s:3 slot 0 consumer (pool destroyed 1)"}));
  // Every slice names its slot, -1 where it has none (creation, the refused call, destruction),
  // and the producer's returns and the consumers' borrows carry the frame's key. Sorted: the
  // growth's step may end on the queue before the refused call's slice ends.
  Lines slices = trace.of("^E");
  std::sort(slices.begin(), slices.end());
  EXPECT_EQ(slices, (Lines{"E -1", "E -1", "E -1", "E 0", "E 0", "E 0 30", "E 0 30", "E 0 30",
                           "E 1", "E 1 31", "E 2"}));
  EXPECT_EQ(trace.of("^C s:3 (busy|rotation)"),
            (Lines{"C s:3 rotation 2", "C s:3 busy 1", "C s:3 busy 0", "C s:3 busy 1",
                   "C s:3 busy 2", "C s:3 busy 1", "C s:3 rotation 3", "C s:3 busy 0"}));
  // Both slots' memory at creation (a map is 248832 bytes), the grown slot's, then every slot's
  // as the pool goes.
  EXPECT_EQ(trace.of("^C s:3 image"),
            (Lines{"C s:3 image 497664", "C s:3 image 995328", "C s:3 image 1492992",
                   "C s:3 image 995328", "C s:3 image 497664", "C s:3 image 0"}));

  // A pool of two modes keeps each slot's memory in buffersBySize, which its destructor does not
  // free: the counter does not drop as the pool goes.
  // Its producer's span is cut as it goes.
  TraceRecord twoModes;
  auto twoModePool =
      createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 2));
  auto held = twoModePool->getProducerBuffer();
  twoModePool.reset();
  EXPECT_EQ(twoModes.of("^[be] |^C s:3 image"),
            (Lines{"C s:3 image 248832", "C s:3 image 497664", "b s:3 slot 0 producer",
                   "e s:3 slot 0 producer (pool destroyed 1)"}));
}

}  // namespace
}  // namespace gainmap_test
