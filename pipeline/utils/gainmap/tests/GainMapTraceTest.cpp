// The trace a pool leaves: every refusal as an instant with its reason, the slot spans and the
// pool's counters; and, for the same refusals, the literal messages and dumps a user reads.

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <string>
#include <vector>

#include "PoolTestSupport.h"

namespace gainmap_test {
namespace {

using qelcam::host::TraceEvent;
using Lines = std::vector<std::string>;

// What the trace service hands its listeners while alive.
class TraceRecord {
 public:
  explicit TraceRecord(uint32_t kinds = NSCam::Utils::Trace::kAllKinds)
      : mListener(
            [this](TraceEvent const& event) {
              std::lock_guard<std::mutex> lock(mMutex);
              mEvents.push_back(event);
            },
            kinds) {}

  // "call: reason [slot]" of every refusal, "b name key" / "e name" of every slot span, in order.
  Lines marks() {
    Lines out;
    for (auto const& event : events()) {
      if (event.phase == 'i') {
        EXPECT_EQ(event.name, "refused: " + event.find("reason")->text);
        EXPECT_EQ(event.find("sensor")->number, 3);
        out.push_back(event.find("call")->text + ": " + event.find("reason")->text + " [" +
                      std::to_string(event.find("slot")->number) + "]");
      } else if (event.phase == 'b' || event.phase == 'e') {
        auto const* key = event.find("key");
        auto const* destroyed = event.find("pool destroyed");
        out.push_back(
            std::string(1, event.phase) + " " + event.name +
            (event.phase == 'b' && key != nullptr ? " " + std::to_string(key->number) : "") +
            (destroyed != nullptr ? " (pool destroyed " + std::to_string(destroyed->number) + ")"
                                  : ""));
      }
    }
    return out;
  }
  // "slot key" of every slice that ended with a slot ("slot" alone without a key), sorted.
  Lines sliceArgs() {
    Lines out;
    for (auto const& event : events()) {
      if (auto const* slot = event.phase == 'E' ? event.find("slot") : nullptr) {
        auto const* key = event.find("key");
        out.push_back(std::to_string(slot->number) +
                      (key != nullptr ? " " + std::to_string(key->number) : ""));
      }
    }
    std::sort(out.begin(), out.end());
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

 private:
  std::vector<TraceEvent> events() {
    std::lock_guard<std::mutex> lock(mMutex);
    return mEvents;
  }

  std::mutex mMutex;
  std::vector<TraceEvent> mEvents;  // guarded by mMutex
  qelcam::host::TraceListener mListener;
};

class GainMapTraceTest : public PoolTest {
 protected:
  // The errors and warnings logged, and the debug line of a slot without buffers.
  Lines messages() const {
    Lines out;
    for (std::string const& line : lines()) {
      if (line[0] == '1' || line[0] == '2' ||
          line.find("slot buffers has been released") != std::string::npos) {
        out.push_back(line);
      }
    }
    return out;
  }

  static std::string dumpOf(bool released, std::string const& slots) {
    return "D [s:3] released(" + std::to_string(released ? 1 : 0) + ") " + kDumpHeader + slots +
           "}";
  }
};

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
  EXPECT_EQ(lines().back(), dumpOf(false, "[0]: (1, 0, 1, 0, 1), [1]: (0, 0, 1, 0, 0), "));
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
  ASSERT_EQ(produce(*pool, 21), 0);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 1 waits for its memory on the held queue
  releaseQueues();
  waitQueuesIdle();
  ASSERT_EQ(produce(*pool, 22), 1);
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
  EXPECT_EQ(lines().back(), dumpOf(true, "[0]: (0, 0, 1, 21, 0), [1]: (0, 0, 1, 22, 0), "));
  EXPECT_FALSE(createdPool(fourByThree(1, 0))->getProducerBuffer());
  auto twoModes = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 1));
  EXPECT_FALSE(twoModes->getConsumerBuffer(0, 0));

  EXPECT_EQ(messages(), (Lines{
                            "2 [onGetProducerBuffer] [s:3] pool has not been initialized",
                            "1 [onGetProducerBuffer] [s:3][i:0] still has producer user",
                            "1 [onGetConsumerBuffer] [s:3][i:0] slot has producer user",
                            "1 [onSetConsumerBuffer] [s:3][i:0] slot has producer user (p:1, c:0)",
                            "1 [onSetProducerBuffer] [s:3][i:0] user validSize(2) exceeds slot "
                            "buffer num(1)",
                            "1 [onSetProducerBuffer] [s:3][i:0] cannot set producer buffer (p:0, "
                            "c:0)",
                            "1 [onSetConsumerBuffer] [s:3][i:0] slot has no consumer user (p:0, "
                            "c:0)",
                            "1 [onGetConsumerBuffer] [s:3][i:0] timestamp mismatch, slot "
                            "timestamp: 20consumer timestamp: 19",
                            "1 [onGetConsumerBuffer] [s:3] request invalid index(1). Number of "
                            "slots(1)",
                            "2 [onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)",
                            "5 [onGetConsumerBuffer] [s:3][i:1] slot buffers has been released. "
                            "mbReleased(0)",
                            "2 [onGetProducerBuffer] [s:3][i:1] slot is not ready",
                            "2 [onGetProducerBuffer] [s:3][i:0] still has consumer users (c:1)",
                            "1 [preAllocOneSlotLocked] [s:3] slot count(2) reach max(2), stop "
                            "alloc new slot",
                            "1 [onGetProducerBuffer] [s:3] pool has been marked released",
                            "1 [onGetConsumerBuffer] [s:3] pool has been marked released",
                            "1 [onGetProducerBuffer] [s:3] pool has no slot to lend",
                            "5 [onGetConsumerBuffer] [s:3][i:0] slot buffers has been released. "
                            "mbReleased(0)",
                        }));
  EXPECT_EQ(trace.marks(), (Lines{
                               "onGetProducerBuffer: not initialised [-1]",
                               "onGetProducerBuffer: held by the producer [0]",
                               "onGetConsumerBuffer: held by the producer [0]",
                               "onSetConsumerBuffer: held by the producer [0]",
                               "onSetProducerBuffer: valid size exceeds buffers [0]",
                               "onSetProducerBuffer: not held by the producer [0]",
                               "onSetConsumerBuffer: not held by a consumer [0]",
                               "onGetConsumerBuffer: stale timestamp [0]",
                               "onGetConsumerBuffer: invalid index [1]",
                               "onGetProducerBuffer: held by consumers [0]",
                               "onGetConsumerBuffer: buffers released [1]",
                               "onGetProducerBuffer: not ready [1]",
                               "onGetProducerBuffer: rotation at its maximum [0]",
                               "onGetProducerBuffer: released [-1]",
                               "onGetConsumerBuffer: released [-1]",
                               "onGetProducerBuffer: no slot in the rotation [-1]",
                               "onGetConsumerBuffer: no buffers by design [0]",
                           }));
}

TEST_F(GainMapTraceTest, SlotSpansAndPoolCountersFollowTheLending) {
  TraceRecord trace;
  auto pool = createdPool(fourByThree(2, 2));
  ASSERT_EQ(produce(*pool, 30), 0);
  auto first = pool->getConsumerBuffer(30, 0);
  auto second = pool->getConsumerBuffer(30, 0);
  ASSERT_TRUE(first && second);
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  ASSERT_EQ(produce(*pool, 31), 1);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 0 still read: the rotation grows
  waitQueuesIdle();
  pool.reset();  // the pool goes while a consumer still reads slot 0

  EXPECT_EQ(trace.marks(), (Lines{
                               "b s:3 slot 0 producer",
                               "e s:3 slot 0 producer",
                               "b s:3 slot 0 consumer 30",
                               "b s:3 slot 0 consumer 30",
                               "e s:3 slot 0 consumer",
                               "b s:3 slot 1 producer",
                               "e s:3 slot 1 producer",
                               "onGetProducerBuffer: held by consumers [0]",
                               "e s:3 slot 0 consumer (pool destroyed 1)",
                           }));
  // Every slice names its slot, -1 where it has none (creation, the refused call, destruction),
  // and the producer's returns and the consumers' borrows carry the frame's key. Sorted: the
  // growth's step may end on the queue before the refused call's slice ends.
  EXPECT_EQ(trace.sliceArgs(),
            (Lines{"-1", "-1", "-1", "0", "0", "0 30", "0 30", "0 30", "1", "1 31", "2"}));
  EXPECT_EQ(trace.counter("s:3 busy", "slots"), (std::vector<int64_t>{1, 0, 1, 2, 1, 0}));
  EXPECT_EQ(trace.counter("s:3 rotation", "slots"), (std::vector<int64_t>{2, 3}));
  // Both slots' memory at creation, the grown slot's, then every slot's as the pool goes.
  EXPECT_EQ(trace.counter("s:3 image", "bytes"),
            (std::vector<int64_t>{2 * kMap4x3Bytes, 4 * kMap4x3Bytes, 6 * kMap4x3Bytes,
                                  4 * kMap4x3Bytes, 2 * kMap4x3Bytes, 0}));

  // A pool of two modes keeps each slot's memory in buffersBySize, which its destructor does not
  // free: the counter does not drop as the pool goes.
  // Its producer's span is cut as it goes.
  TraceRecord twoModes;
  auto twoModePool =
      createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 2));
  auto held = twoModePool->getProducerBuffer();
  twoModePool.reset();
  EXPECT_EQ(twoModes.marks(),
            (Lines{"b s:3 slot 0 producer", "e s:3 slot 0 producer (pool destroyed 1)"}));
  EXPECT_EQ(twoModes.counter("s:3 image", "bytes"),
            (std::vector<int64_t>{kMap4x3Bytes, 2 * kMap4x3Bytes}));
}

}  // namespace
}  // namespace gainmap_test
