// What the reference model cannot vouch for: literal geometry and the parameters that cannot make
// a pool, the debug lines of a pool's life, the trace it leaves (every refusal's reason, the slot
// spans and the pool's counters), and the process ending after our own fatal lines.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <iterator>
#include <map>
#include <memory>
#include <sstream>
#include <string>
#include <tuple>
#include <unordered_map>
#include <vector>

#include "GainMapBufPoolImp.h"
#include "HostPlatform.h"
#include "camsys/ULog.h"

namespace {

using NSCam::MSize;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using qelcam::host::holdQueues;
using qelcam::host::kFormatGainMap8;
using qelcam::host::releaseQueues;
using qelcam::host::TraceEvent;
using qelcam::host::waitQueuesIdle;
using Lines = std::vector<std::string>;
using Pool = GainMapBufPoolImp;

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";

Pool::PoolParameters poolParams(std::unordered_map<uint32_t, MSize> sizes, uint32_t batchSize,
                                uint32_t slotCount, int32_t sensorId = 3) {
  return {sensorId, std::move(sizes), batchSize, slotCount, 77};
}

// A single 4:3 sensor mode: gain maps of 576x432.
Pool::PoolParameters fourByThree(uint32_t batchSize, uint32_t slotCount) {
  return poolParams({{0, MSize(4000, 3000)}}, batchSize, slotCount);
}

// The pool once its creation task has run.
std::shared_ptr<Pool> createdPool(Pool::PoolParameters const& params, bool lagging = false) {
  auto pool = std::make_shared<Pool>(params, lagging);
  waitQueuesIdle();
  return pool;
}

class GainMapPoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mGates.set(0x2, 5, NSCam::Utils::ULog::ULogger::sNormalDetailsMask | 0x201000);
  }

  void TearDown() override {
    // Lets the queues go even when a test failed while it held them.
    releaseQueues();
    waitQueuesIdle();
    qelcam::host::clearProperty(kDebugProperty);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  }

  // The lines of one level since the last take, dumps left out; a slot's address reads "<p>".
  Lines take(char level) {
    Lines out;
    for (auto const& record : mCapture.records()) {
      std::string text = record.text;
      size_t const at = text.find("slot:0x");
      if (at != std::string::npos) {
        text.replace(at + 5, text.find_first_not_of("0123456789abcdef", at + 7) - at - 5, "<p>");
      }
      if (text.rfind("[dump] ", 0) != 0 && '0' + record.level == level) {
        out.push_back(text);
      }
    }
    mCapture.clear();
    return out;
  }

 private:
  qelcam::host::LogGates mGates;
  qelcam::host::LogCapture mCapture;
};

// The trace events seen while alive, each a line led by its phase: "i call: reason [slot n]" (a
// refusal), "b name key" and "e name" (a slot span), "E slot key" (a slice end), "C name value".
class TraceRecord {
 public:
  explicit TraceRecord(uint32_t kinds = NSCam::Utils::Trace::kAllKinds)
      : mListener([this](TraceEvent const& event) { mLines.push_back(describe(event)); }, kinds) {}

  // The lines that begin with one of `heads`, in order. Called once the queues are idle.
  Lines of(std::initializer_list<char const*> heads) {
    Lines out;
    std::copy_if(mLines.begin(), mLines.end(), std::back_inserter(out),
                 [&](std::string const& line) {
                   return std::any_of(heads.begin(), heads.end(),
                                      [&](char const* head) { return line.rfind(head, 0) == 0; });
                 });
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
      case 'i':  // a refusal, named by its reason, for sensor 3
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

// The geometry of a pool as "mode:WxH/step stride S ... block WxH": each mode's gain map, the
// bytes between two maps of a batch and the row stride, then the one block a slot allocates.
// The format and usage every mode shares are checked on the way.
std::string geometryOf(Pool& pool, int32_t format) {
  std::ostringstream text;
  auto const params = pool.getPoolImgParams();
  auto const infos = pool.determineImgBufInfos();
  for (auto const& [mode, param] :
       std::map<uint32_t, Pool::ImgParam>(params.begin(), params.end())) {
    EXPECT_EQ(std::tie(param.imgFormat, param.usage), std::make_tuple(format, int64_t{0x6000f}));
    text << mode << ":" << param.imgSize.w << "x" << param.imgSize.h << "/"
         << infos.at(mode).bufStep << " stride " << param.strideInBytes << " ";
  }
  auto const alloc = pool.determineAllocParam();
  EXPECT_EQ(std::tie(alloc.imgFormat, alloc.usage, alloc.strideInBytes),
            std::make_tuple(qelcam::host::kFormatBlob, int64_t{0x6000f}, size_t{0}));
  text << "block " << alloc.imgSize.w << "x" << alloc.imgSize.h;
  return text.str();
}

struct GeometryRow {
  Pool::PoolParameters params;
  int32_t format;  // the first the platform offers, ahead of kFormatGainMap8
  // The geometry, or the error lines of parameters that cannot make a pool.
  std::string geometry;
};

TEST_F(GainMapPoolTest, GainMapsKeepTheAspectAtWidth576AndOneBlockFitsTheTallestBatch) {
  GeometryRow const rows[] = {
      // Equal ratios share one map; whichever 4:3 mode is the worst, the block is the same.
      {poolParams({{0, MSize(4000, 2250)}, {1, MSize(4000, 3000)}, {2, MSize(2000, 1500)}}, 4, 1),
       kFormatGainMap8,
       "0:576x324/186624 stride 576 1:576x432/248832 stride 576 2:576x432/248832 stride 576 "
       "block 995328x1"},
      // Batch 0 means one buffer; only the first format counts; 16 bits double the stride.
      {poolParams({{0, MSize(4000, 3000)}}, 0, 1), qelcam::host::kFormatGainMap16,
       "0:576x432/497664 stride 1152 block 497664x1"},
      // Heights round up to even; the portrait mode is the worst and sizes the block.
      {poolParams({{0, MSize(4000, 1800)}, {1, MSize(3000, 4000)}, {4, MSize(576, 1)}}, 1, 1),
       kFormatGainMap8,
       "0:576x260/149760 stride 576 1:576x768/442368 stride 576 4:576x2/1152 stride 576 "
       "block 442368x1"},
      // A block of no bytes makes no pool.
      {poolParams({{0, MSize(100000, 1)}}, 1, 1), kFormatGainMap8,
       "[isWorkable] [s:3] sensorSizes[0] (100000x1) with batchSize(1) gives slots of 0 bytes, 0 "
       "in 32 bits; a slot takes 1 to 2147483647 bytes\n"},
      // Every problem is named.
      {poolParams({{0, MSize(-1, -1)}}, 1, 0x80000000u), kFormatGainMap8,
       "[isWorkable] [s:3] sensorSizes[0] (-1x-1) is not a positive size\n"
       "[isWorkable] [s:3] slotCount(2147483648) is not below 1024\n"},
  };
  for (GeometryRow const& row : rows) {
    qelcam::host::setGainMapFormats({row.format, kFormatGainMap8});
    auto pool = createdPool(row.params, true);
    // A pool that cannot work has no slots.
    std::string text = pool->getMaxSlotCount() == 0 ? "" : geometryOf(*pool, row.format);
    for (std::string const& problem : take('1')) {
      text += problem + "\n";
    }
    EXPECT_EQ(text, row.geometry);
  }
}

TEST_F(GainMapPoolTest, VerboseDebugTellsAPoolsCreationLendingAndRelease) {
  qelcam::host::setProperty(kDebugProperty, "1");
  auto pool = createdPool(fourByThree(1, 2));
  EXPECT_EQ(
      take('5'),
      (Lines{"[determineBufferParams] [s:3] sensor mode(0) sensor size:(4000x3000), gain map "
             "size:(576x432) strideAlignInByte(576)",
             "[determineAllocParam] [s:3] worst size:(576x432), alloc size:(248832x1)",
             "[determineImgBufInfos] [s:3] mode (0), imgBufInfo size:(576x432), count(1), "
             "planes[0].sizeInBytes(248832), planes[0].rowStrideInBytes(576), bufStep(248832)",
             "[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } "
             "mBatchSize(1), mSlotCount(2), mMaxSlotCount(4) laggingAlloc(0)",
             "[operator()] [s:3] async create pool start",
             "[allocSlotBuffersLocked] [s:3][i:0][b:0] buffer created",
             "[allocSlotBuffersLocked] [s:3][i:1][b:0] buffer created",
             "[operator()] [s:3] async create pool done"}));

  // Lend frame 100 to a consumer, then slot 1 to the producer.
  pool->setProducerBuffer(100, 1, pool->getProducerBuffer());
  auto reader = pool->getConsumerBuffer(100, 0);
  auto writer = pool->getProducerBuffer();
  EXPECT_EQ(take('5'), (Lines{"[onGetProducerBuffer] [s:3] current index: 0",
                              "[onGetProducerBuffer] [s:3][i:0] slot:<p>, size:1",
                              "[onSetProducerBuffer] [s:3] key: 100, validSize: 1, slot index: 0",
                              "[onSetProducerBuffer] [s:3][i:0] slot:<p>, size:1, valid size:1",
                              "[onGetConsumerBuffer] index: 0, key: 100",
                              "[onGetConsumerBuffer] [s:3][i:0] slot:<p>, size:1, validSize:1, c:1",
                              "[onGetProducerBuffer] [s:3] current index: 1",
                              "[onGetProducerBuffer] [s:3][i:1] slot:<p>, size:1"}));

  // Slot 0 is still read: the rotation grows.
  pool->getProducerBuffer();
  waitQueuesIdle();
  EXPECT_EQ(take('5'), (Lines{"[onGetProducerBuffer] need pre alloc slot",
                              "[operator()] [s:3] async pre alloc slot(i:2) +",
                              "[allocSlotBuffersLocked] [s:3][i:2][b:0] buffer created",
                              "[operator()] [s:3] async pre alloc slot(i:2) -"}));

  // Released while both slots are lent.
  pool->setPoolReleased();
  waitQueuesIdle();
  EXPECT_EQ(take('5'), (Lines{"[operator()] Wait for CTM createPool/resumePool done",
                              "[operator()] [setPoolReleased] [s:3] async +",
                              "[operator()] [s:3][i:0] still has users (p:0, c: 1)",
                              "[operator()] [s:3][i:1] still has users (p:1, c: 0)",
                              "[releaseSlotBuffersLocked] [s:3][i:2] released size (0)",
                              "[releaseSlotBuffersLocked] [s:3][i:3] released size (0)",
                              "[operator()] [setPoolReleased] [s:3] async -"}));

  // Both slots come back and lose their buffers.
  pool->setConsumerBuffer(reader);
  pool->setProducerBuffer(102, 1, writer);
  EXPECT_EQ(take('5'),
            (Lines{"[onSetConsumerBuffer] [s:3] consumer slot index(0), slot count(3)",
                   "[onSetConsumerBuffer] [s:3][i:0] pool marked released and no consumer, "
                   "release slot buffers",
                   "[releaseSlotBuffersLocked] [s:3][i:0] released size (0)",
                   "[onSetConsumerBuffer] [s:3][i:0] slot:<p>, size:0, c:0",
                   "[onSetProducerBuffer] [s:3] key: 102, validSize: 1, slot index: 1",
                   "[onSetProducerBuffer] [s:3][i:1] pool marked released, release slot buffers",
                   "[releaseSlotBuffersLocked] [s:3][i:1] released size (0)",
                   "[onSetProducerBuffer] [s:3][i:1] slot:<p>, size:0, valid size:1"}));

  // A lagging pool says so in its constructor's line.
  createdPool(fourByThree(1, 2), true);
  Lines const lagging = take('5');
  EXPECT_NE(std::find(lagging.begin(), lagging.end(),
                      "[GainMapBufPoolImp] ctor: mSensorId(3), mSensorSizes{[0]:(4000x3000) } "
                      "mBatchSize(1), mSlotCount(2), mMaxSlotCount(4) laggingAlloc(1)"),
            lagging.end());
}

struct FatalRow {
  void (*fault)();  // what the platform cannot give
  // Our own last lines before the process ends: the plain text to the logger sink, the fatal
  // notification, then the suffixed text to the assertion.
  char const* lines;
};

TEST_F(GainMapPoolTest, WhatThePoolCannotGoOnWithoutEndsTheProcessAfterItsOwnLines) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  FatalRow const rows[] = {
      {[] { qelcam::host::failHeapCreates(1); },
       "\\[allocSlotBuffersLocked:line-[0-9]+\\] \\[s:3\\]\\[i:0\\] create heap fail\n(.|\n)*"
       "fatal notification 1(.|\n)*create heap fail \\(allocSlotBuffersLocked\\)"
       "\\{#[0-9]+:pipeline/utils/gainmap/GainMapPool\\}"},
      {[] { qelcam::host::setGainMapFormats({}); },
       "\\[determineBufferParams:line-[0-9]+\\] does not support gain map, should not reach here"},
  };
  for (FatalRow const& row : rows) {
    EXPECT_DEATH(
        {
          qelcam::host::LogGates gates;
          gates.set(0x2, 4, 0);
          row.fault();
          createdPool(fourByThree(1, 2));
        },
        row.lines);
  }
}

TEST_F(GainMapPoolTest, ConcurrentFirstCallsConstructOneManager) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  // A fresh process, so that these are really the first calls. One manager, constructed once: its
  // constructor's is the only line.
  EXPECT_EXIT(
      {
        auto first = std::async(std::launch::async, IGainMapBufPoolManager::getInstance);
        auto second = std::async(std::launch::async, IGainMapBufPoolManager::getInstance);
        std::exit(first.get() == second.get() && take('5').size() == 1 ? 0 : 1);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST_F(GainMapPoolTest, EveryRefusalIsAnInstantWithItsReason) {
  // Refusals alone, as a tool that follows them without the timeline sees them.
  TraceRecord trace(NSCam::Utils::Trace::kInstants);
  holdQueues();
  auto pool = std::make_shared<Pool>(fourByThree(1, 1), false);
  EXPECT_FALSE(pool->getProducerBuffer());
  releaseQueues();
  waitQueuesIdle();

  auto taken = pool->getProducerBuffer();
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
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  EXPECT_EQ(pool->setConsumerBuffer(second), 0);
  pool->setPoolReleased();
  waitQueuesIdle();
  EXPECT_FALSE(pool->getProducerBuffer());
  EXPECT_FALSE(pool->getConsumerBuffer(20, 0));
  EXPECT_FALSE(createdPool(fourByThree(1, 0))->getProducerBuffer());
  auto twoModes = createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 1));
  EXPECT_FALSE(twoModes->getConsumerBuffer(0, 0));

  // The model checks the errors, warnings and dumps of each step, not this debug line.
  EXPECT_EQ(take('5').back(),
            "[onGetConsumerBuffer] [s:3][i:0] slot buffers has been released. mbReleased(0)");
  EXPECT_EQ(trace.of({"i "}), (Lines{
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
                              }));
}

TEST_F(GainMapPoolTest, SlotSpansAndPoolCountersFollowTheLending) {
  TraceRecord trace;
  auto pool = createdPool(fourByThree(2, 2));
  ASSERT_EQ(pool->setProducerBuffer(30, 2, pool->getProducerBuffer()), 0);
  auto first = pool->getConsumerBuffer(30, 0);
  auto second = pool->getConsumerBuffer(30, 0);
  EXPECT_EQ(pool->setConsumerBuffer(first), 0);
  ASSERT_EQ(pool->setProducerBuffer(31, 2, pool->getProducerBuffer()), 0);
  EXPECT_FALSE(pool->getProducerBuffer());  // slot 0 still read: the rotation grows
  waitQueuesIdle();
  pool.reset();  // the pool goes while a consumer still reads slot 0

  EXPECT_EQ(trace.of({"i ", "b ", "e "}),
            (Lines{"b s:3 slot 0 producer", "e s:3 slot 0 producer", "b s:3 slot 0 consumer 30",
                   "b s:3 slot 0 consumer 30", "e s:3 slot 0 consumer", "b s:3 slot 1 producer",
                   "e s:3 slot 1 producer", "i onGetProducerBuffer: held by consumers [slot 0]",
                   "e s:3 slot 0 consumer (pool destroyed 1)"}));
  // Every slice names its slot, -1 where it has none, and the producer's returns and the
  // consumers' borrows carry the frame's key. Sorted: a queued step may end before its caller's.
  Lines slices = trace.of({"E "});
  std::sort(slices.begin(), slices.end());
  EXPECT_EQ(slices, (Lines{"E -1", "E -1", "E -1", "E 0", "E 0", "E 0 30", "E 0 30", "E 0 30",
                           "E 1", "E 1 31", "E 2"}));
  EXPECT_EQ(trace.of({"C s:3 busy", "C s:3 rotation"}),
            (Lines{"C s:3 rotation 2", "C s:3 busy 1", "C s:3 busy 0", "C s:3 busy 1",
                   "C s:3 busy 2", "C s:3 busy 1", "C s:3 rotation 3", "C s:3 busy 0"}));
  // Both slots' memory at creation (a map is 248832 bytes), the grown slot's, then every slot's
  // as the pool goes.
  EXPECT_EQ(trace.of({"C s:3 image"}),
            (Lines{"C s:3 image 497664", "C s:3 image 995328", "C s:3 image 1492992",
                   "C s:3 image 995328", "C s:3 image 497664", "C s:3 image 0"}));

  // A pool of two modes keeps each slot's memory in buffersBySize, which its destructor does not
  // free: the counter does not drop as the pool goes, and the producer's span is cut. Sensor 4's
  // counter keeps that memory for good, so sensor 3's starts from 0 whenever this test runs.
  auto twoModePool =
      createdPool(poolParams({{0, MSize(4000, 3000)}, {1, MSize(4000, 2250)}}, 1, 2, 4));
  TraceRecord twoModes;
  auto held = twoModePool->getProducerBuffer();
  twoModePool.reset();
  EXPECT_EQ(twoModes.of({"b ", "e ", "C s:4 image"}),
            (Lines{"b s:4 slot 0 producer", "e s:4 slot 0 producer (pool destroyed 1)"}));
}

}  // namespace
