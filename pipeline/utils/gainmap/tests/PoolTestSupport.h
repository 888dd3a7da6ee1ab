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
using NSCam::MSize;
using qelcam::host::holdQueues;
using qelcam::host::releaseQueues;
using qelcam::host::waitQueuesIdle;
using Lines = std::vector<std::string>;

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";

inline Pool::PoolParameters poolParams(std::unordered_map<uint32_t, MSize> sizes,
                                       uint32_t batchSize, uint32_t slotCount) {
  Pool::PoolParameters params;
  params.sensorId = 3;
  params.sensorSizes = std::move(sizes);
  params.batchSize = batchSize;
  params.slotCount = slotCount;
  params.uniKey = 77;
  return params;
}

// A single 4:3 sensor mode: gain maps of 576x432.
inline Pool::PoolParameters fourByThree(uint32_t batchSize, uint32_t slotCount) {
  return poolParams({{0, MSize(4000, 3000)}}, batchSize, slotCount);
}

// The pool once its creation task has run.
inline std::shared_ptr<Pool> createdPool(Pool::PoolParameters const& params, bool lagging = false) {
  auto pool = std::make_shared<Pool>(params, lagging);
  waitQueuesIdle();
  return pool;
}

class PoolTest : public ::testing::Test {
 protected:
  void SetUp() override {
    mGates.set(0x2, 5, NSCam::Utils::ULog::ULogger::sNormalDetailsMask | 0x201000);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  }

  void TearDown() override {
    // Lets the queues go even when a test failed while it held them.
    releaseQueues();
    waitQueuesIdle();
    qelcam::host::clearProperty(kDebugProperty);
    qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  }

  // The logger-sink lines since the last clear as "level text", dumps as "D text" without their
  // "[dump] " head.
  Lines lines() const {
    Lines out;
    for (auto const& record : mCapture.records()) {
      if (record.sink != qelcam::host::LogRecord::Sink::Logger) {
        continue;
      }
      bool const dump = record.level == 5 && record.text.rfind("[dump] ", 0) == 0;
      out.push_back(dump ? "D " + record.text.substr(7)
                         : std::to_string(record.level) + " " + record.text);
    }
    return out;
  }
  void clearLogs() { mCapture.clear(); }

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
  qelcam::host::LogCapture mCapture;
};

}  // namespace gainmap_test
