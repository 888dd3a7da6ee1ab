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

// Sensor 3's.
inline Pool::PoolParameters poolParams(std::unordered_map<uint32_t, MSize> sizes,
                                       uint32_t batchSize, uint32_t slotCount) {
  return {3, std::move(sizes), batchSize, slotCount, 77};
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

  // The lines of one level ('D' for dumps) since the last take; a slot's address reads "<p>".
  // Only the logger sink is open.
  Lines take(char level) {
    Lines out;
    for (auto const& record : mCapture.records()) {
      std::string text = record.text;
      size_t const at = text.find("slot:0x");
      if (at != std::string::npos) {
        text.replace(at + 5, text.find_first_not_of("0123456789abcdef", at + 7) - at - 5, "<p>");
      }
      bool const dump = text.rfind("[dump] ", 0) == 0;
      if ((dump ? 'D' : '0' + record.level) == level) {
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

}  // namespace gainmap_test
