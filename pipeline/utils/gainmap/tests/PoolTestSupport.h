#pragma once

// Shared fixture of the pool tests: opens every log gate towards the logger sink, records what
// the pool logs, and puts the platform's globals back after each test.

#include <gtest/gtest.h>

#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "GainMapBufPoolImp.h"
#include "HostPlatform.h"
#include "camsys/ULog.h"

namespace gainmap_test {

using Pool = GainMapBufPoolImp;
using PoolParameters = GainMapBufPoolImp::PoolParameters;
using NSCam::MSize;
using qelcam::host::holdQueues;
using qelcam::host::releaseQueues;
using qelcam::host::waitQueuesIdle;

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";
constexpr char kDumpHeader[] = "(p, c, validSize, key, buffers.size()): {";

// Logger-sink levels of the message classes the tests pick out.
constexpr int kError = 1;
constexpr int kDebug = 5;

// Bytes of the gain map of a 4000x3000 sensor: 432 rows of 576 bytes.
constexpr size_t kMap4x3Bytes = 432 * 576;

inline PoolParameters poolParams(std::unordered_map<uint32_t, MSize> sizes, uint32_t batchSize,
                                 uint32_t slotCount) {
  PoolParameters params;
  params.sensorId = 3;
  params.sensorSizes = std::move(sizes);
  params.batchSize = batchSize;
  params.slotCount = slotCount;
  params.uniKey = 77;
  return params;
}

// A single 4:3 sensor mode: gain maps of 576x432.
inline PoolParameters fourByThree(uint32_t batchSize, uint32_t slotCount) {
  return poolParams({{0, MSize(4000, 3000)}}, batchSize, slotCount);
}

class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mGates.set(0x2, 5, NSCam::Utils::ULog::ULogger::sNormalDetailsMask | 0x201000);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
    mCapture = std::make_unique<qelcam::host::LogCapture>();
  }

  void TearDown() override {
    // Lets the queues go even when a test failed while it held them.
    releaseQueues();
    waitQueuesIdle();
    mCapture.reset();
    qelcam::host::clearProperty(kDebugProperty);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  }

  // The pool once its creation task has run.
  std::shared_ptr<Pool> createdPool(PoolParameters const& params, bool laggingAlloc = false) {
    auto pool = std::make_shared<Pool>(params, laggingAlloc);
    waitQueuesIdle();
    return pool;
  }

  // The logger-sink lines since the last clear.
  std::vector<qelcam::host::LogRecord> records() const {
    std::vector<qelcam::host::LogRecord> out;
    for (auto const& record : mCapture->records()) {
      if (record.sink == qelcam::host::LogRecord::Sink::Logger) {
        out.push_back(record);
      }
    }
    return out;
  }
  // Those lines as "level text", dumps as "D text" without their "[dump] " head.
  std::vector<std::string> lines() const {
    std::vector<std::string> out;
    for (auto const& record : records()) {
      bool const dump = record.level == kDebug && record.text.rfind("[dump] ", 0) == 0;
      out.push_back(dump ? "D " + record.text.substr(7)
                         : std::to_string(record.level) + " " + record.text);
    }
    return out;
  }
  void clearLogs() { mCapture->clear(); }

  // Takes the next slot and hands it back stamped with `key`; the slot's index.
  int produce(Pool& pool, int64_t key) {
    auto slot = pool.getProducerBuffer();
    EXPECT_TRUE(slot) << "no slot for frame " << key;
    if (!slot) {
      return -1;
    }
    EXPECT_EQ(pool.setProducerBuffer(key, static_cast<int>(slot->buffers.size()), slot), 0);
    return slot->index;
  }

 private:
  qelcam::host::LogGates mGates;
  std::unique_ptr<qelcam::host::LogCapture> mCapture;
};

}  // namespace gainmap_test
