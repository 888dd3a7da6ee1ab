#pragma once

// Shared fixture of the pool tests: opens every log gate towards the logger sink, records what
// the pool logs, and puts the platform's globals back after each test.

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <list>
#include <memory>
#include <mutex>
#include <string>
#include <unordered_map>
#include <vector>

#include "GainMapBufPoolImp.h"
#include "HostPlatform.h"
#include "camsys/ULog.h"

namespace gainmap_test {

using Pool = GainMapBufPoolImp;
using SlotImp = GainMapBufPoolImp::BufSlotImp;
using SlotPtr = std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool::BufSlot>;
using PoolParameters = GainMapBufPoolImp::PoolParameters;
using NSCam::MSize;

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";
constexpr char kDumpHeader[] = "(p, c, validSize, key, buffers.size()): {";

// Logger-sink levels of the message classes.
constexpr int kError = 1;
constexpr int kWarning = 2;
constexpr int kInfo = 3;
constexpr int kDebug = 5;

// Bytes of one 576-pixel row at 8 bits, and of the gain maps of common sensor sizes.
constexpr size_t kStride8 = 576;
constexpr size_t kMap4x3Bytes = 432 * kStride8;   // 4000x3000
constexpr size_t kMap16x9Bytes = 324 * kStride8;  // 4000x2250

// How long any wait of a test may take before the run is declared stuck. Generous: a stuck wait
// means a broken interleaving, never a slow machine.
constexpr std::chrono::seconds kPatience{120};

// A wait that ran out of patience: says what it waited for and ends the run, since the threads
// it waited on can neither be joined nor left behind.
[[noreturn]] inline void giveUp(std::string const& what) {
  std::fprintf(stderr, "test stuck: waited %lld s for %s\n",
               static_cast<long long>(kPatience.count()), what.c_str());
  std::fflush(stderr);
  std::abort();
}

// waitQueuesIdle with a bound.
inline void waitIdle(std::string const& what = "the task queues to go idle") {
  auto idle = std::async(std::launch::async, [] { qelcam::host::waitQueuesIdle(); });
  if (idle.wait_for(kPatience) != std::future_status::ready) {
    giveUp(what);
  }
}

template <class Predicate>
void waitUntil(std::condition_variable& changed, std::unique_lock<std::mutex>& lock,
               Predicate condition, std::string const& what) {
  if (!changed.wait_for(lock, kPatience, condition)) {
    giveUp(what);
  }
}

template <class T>
T getWithin(std::future<T>& future, std::string const& what) {
  if (future.wait_for(kPatience) != std::future_status::ready) {
    giveUp(what);
  }
  return future.get();
}

// Stands in for the platform's logger while alive: every line still reaches the logger it
// replaced (and so the capture), and chosen lines act on the thread that writes them.
// Create and destroy it only while the queues are idle: the platform reads the logger pointer
// without a lock.
class ScriptedLogger : public NSCam::Utils::ULog::ULogger {
 public:
  ScriptedLogger() : mPrevious(ULogger::sULogger) { ULogger::sULogger = this; }

  // Waits until the queues have run what they hold, then puts the replaced logger back.
  ~ScriptedLogger() override {
    waitIdle("the task queues to go idle after the scripted logger");
    ULogger::sULogger = mPrevious;
  }

  ScriptedLogger(ScriptedLogger const&) = delete;
  ScriptedLogger& operator=(ScriptedLogger const&) = delete;

  // The first thread that writes a line beginning with `line` runs `action` right after it.
  void onLine(std::string line, std::function<void()> action) {
    std::lock_guard<std::mutex> lock(mMutex);
    mCues.push_back(Cue{std::move(line), std::move(action), false});
  }

  void write(uint32_t moduleId, char const* tag, int level, char const* text, int length) override {
    mPrevious->write(moduleId, tag, level, text, length);
    std::unique_lock<std::mutex> lock(mMutex);
    for (Cue& cue : mCues) {
      if (cue.fired || std::string(text).rfind(cue.line, 0) != 0) {
        continue;
      }
      cue.fired = true;
      lock.unlock();
      cue.action();
      return;
    }
  }

 private:
  struct Cue {
    std::string line;
    std::function<void()> action;
    bool fired;
  };

  ULogger* const mPrevious;
  std::mutex mMutex;
  // A list: cues keep their place while their actions run.
  std::list<Cue> mCues;
};

inline PoolParameters poolParams(std::unordered_map<uint32_t, MSize> sizes, uint32_t batchSize,
                                 uint32_t slotCount, int32_t sensorId = 3, int32_t uniKey = 77) {
  PoolParameters params;
  params.sensorId = sensorId;
  params.sensorSizes = std::move(sizes);
  params.batchSize = batchSize;
  params.slotCount = slotCount;
  params.uniKey = uniKey;
  return params;
}

// A single 4:3 sensor mode: gain maps of 576x432.
inline PoolParameters fourByThree(uint32_t batchSize, uint32_t slotCount) {
  return poolParams({{0, MSize(4000, 3000)}}, batchSize, slotCount);
}

// A slot's bookkeeping, read under its lock.
struct SlotState {
  int32_t index;
  bool producerUser;
  size_t consumerUserCount;
  int64_t key;
  int32_t validSize;
  size_t buffers;
  size_t sizeKeys;
  bool useSizeMap;
  bool ready;
};

inline SlotState stateOf(SlotPtr const& slot) {
  auto imp = std::static_pointer_cast<SlotImp>(slot);
  gainmap::MutexLocker lock(imp->lock);
  return {imp->index,       imp->producerUser,   imp->consumerUserCount,    imp->key,
          imp->validSize,   imp->buffers.size(), imp->buffersBySize.size(), imp->useSizeMap,
          imp->ready.load()};
}

// The slot's batch as it stands, read under the slot's lock: the pool's queue may fill the batch
// of a slot whose buffers were freed while a client holds it.
inline std::vector<std::shared_ptr<qcam::IImageBuffer>> buffersOf(SlotPtr const& slot) {
  auto imp = std::static_pointer_cast<SlotImp>(slot);
  gainmap::MutexLocker lock(imp->lock);
  return imp->buffers;
}

inline uint8_t* bytesOf(std::shared_ptr<qcam::IImageBuffer> const& buffer) {
  return reinterpret_cast<uint8_t*>(buffer->getBufVA(0));
}

class PoolTest : public ::testing::Test {
 protected:
  using ULogger = NSCam::Utils::ULog::ULogger;

  void SetUp() override {
    mGates.set(0x2, 5, ULogger::sNormalDetailsMask | 0x201000);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
    mCapture = std::make_unique<qelcam::host::LogCapture>();
    mBaseline = qelcam::host::heapStats();
  }

  void TearDown() override {
    if (mHeld.load()) {
      qelcam::host::releaseQueues();
    }
    waitIdle("the task queues to go idle at the end of the test");
    mCapture.reset();
    qelcam::host::clearProperty(kDebugProperty);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
    qelcam::host::failHeapCreates(0);
    qelcam::host::failLockBufAt(-1);
  }

  // The pool once its creation task has run.
  std::shared_ptr<Pool> createdPool(PoolParameters const& params, bool laggingAlloc = false) {
    auto pool = std::make_shared<Pool>(params, laggingAlloc);
    waitIdle("the creation task of the pool");
    return pool;
  }

  void verbose() { qelcam::host::setProperty(kDebugProperty, "1"); }

  // Either may run on a queue thread, from a scripted log line.
  void hold() {
    qelcam::host::holdQueues();
    mHeld.store(true);
  }
  void release() {
    mHeld.store(false);
    qelcam::host::releaseQueues();
  }

  std::vector<qelcam::host::LogRecord> logs() const {
    std::vector<qelcam::host::LogRecord> out;
    for (auto& record : mCapture->records()) {
      if (record.sink == qelcam::host::LogRecord::Sink::Logger) {
        out.push_back(record);
      }
    }
    return out;
  }
  void clearLogs() { mCapture->clear(); }

  int count(std::string const& text, int level) const {
    int n = 0;
    for (auto& record : logs()) {
      n += record.text == text && record.level == level ? 1 : 0;
    }
    return n;
  }
  int countContaining(std::string const& piece) const {
    int n = 0;
    for (auto& record : logs()) {
      n += record.text.find(piece) != std::string::npos ? 1 : 0;
    }
    return n;
  }
  // Position of the first record with this text, or -1.
  long positionOf(std::string const& text) const {
    auto records = logs();
    for (size_t i = 0; i < records.size(); ++i) {
      if (records[i].text == text) {
        return static_cast<long>(i);
      }
    }
    return -1;
  }

  // The dump lines logged since the last clear, without their "[dump] " head.
  std::vector<std::string> dumps() const {
    std::vector<std::string> out;
    for (auto& record : logs()) {
      if (record.text.rfind("[dump] ", 0) == 0) {
        EXPECT_EQ(record.level, kDebug);
        out.push_back(record.text.substr(7));
      }
    }
    return out;
  }
  std::string lastDump() const {
    auto all = dumps();
    return all.empty() ? std::string() : all.back();
  }
  std::string dumpNow(Pool& pool) {
    pool.dump();
    return lastDump();
  }

  uint64_t heapsAdded() const {
    return qelcam::host::heapStats().heapsAlive - mBaseline.heapsAlive;
  }
  uint64_t bytesAdded() const {
    return qelcam::host::heapStats().bytesAlive - mBaseline.bytesAlive;
  }
  uint64_t lockedAdded() const {
    return qelcam::host::heapStats().buffersLocked - mBaseline.buffersLocked;
  }
  uint64_t droppedLockedAdded() const {
    return qelcam::host::heapStats().buffersDroppedLocked - mBaseline.buffersDroppedLocked;
  }

  // Takes the next slot and hands it back stamped with `key`; the slot's index.
  int produce(Pool& pool, int64_t key) {
    auto slot = pool.getProducerBuffer();
    EXPECT_TRUE(slot) << "no slot for frame " << key;
    if (!slot) {
      return -1;
    }
    int validSize = static_cast<int>(slot->buffers.size());
    EXPECT_EQ(pool.setProducerBuffer(key, validSize, slot), 0);
    return slot->index;
  }

  qelcam::host::HeapStats mBaseline{};

 private:
  qelcam::host::LogGates mGates;
  std::unique_ptr<qelcam::host::LogCapture> mCapture;
  std::atomic<bool> mHeld{false};
};

}  // namespace gainmap_test
