#include "PoolClient.h"

#include "FramePattern.h"
#include "HostPlatform.h"

namespace gainmapsim {
namespace {

namespace framepattern = qelcam::framepattern;

bool matches(uint8_t const* data, size_t size, uint64_t seed, Coverage coverage) {
  return coverage == Coverage::Whole ? framepattern::matches(data, size, seed)
                                     : framepattern::matchesSparse(data, size, seed);
}

bool zero(uint8_t const* data, size_t size, uint64_t seed, Coverage coverage) {
  return coverage == Coverage::Whole ? framepattern::allZero(data, size)
                                     : framepattern::zeroSparse(data, size, seed);
}

}  // namespace

NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters poolParameters(
    SensorConfig const& sensor) {
  NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters params;
  params.sensorId = sensor.id;
  params.sensorSizes.insert(sensor.modes.begin(), sensor.modes.end());
  params.batchSize = sensor.batch;
  params.slotCount = sensor.slots;
  params.uniKey = kUniKey;
  return params;
}

Contents inspect(Slot const& slot, long key, Coverage coverage) {
  if (slot->validSize < 0 || static_cast<size_t>(slot->validSize) > slot->buffers.size()) {
    return Contents::Corrupt;
  }
  Contents found = Contents::Intact;
  for (size_t b = 0; b < static_cast<size_t>(slot->validSize); ++b) {
    auto const& buffer = slot->buffers[b];
    for (size_t p = 0; p < buffer->getPlaneCount(); ++p) {
      auto const* data = reinterpret_cast<uint8_t const*>(buffer->getBufVA(p));
      size_t const size = buffer->getBufSizeInBytes(p);
      uint64_t const seed = framepattern::seedOf(key, b, p);
      if (data == nullptr) {
        return Contents::Corrupt;
      }
      if (!matches(data, size, seed, coverage)) {
        if (!zero(data, size, seed, coverage)) {
          return Contents::Corrupt;
        }
        found = Contents::Fresh;
      }
    }
  }
  return found;
}

bool fill(Slot const& slot, size_t count, long key, Coverage coverage) {
  for (size_t b = 0; b < count; ++b) {
    auto const& buffer = slot->buffers[b];
    for (size_t p = 0; p < buffer->getPlaneCount(); ++p) {
      uintptr_t const address = buffer->getBufVA(p);
      if (address == 0) {
        return false;
      }
      auto* data = reinterpret_cast<uint8_t*>(address);
      size_t const size = buffer->getBufSizeInBytes(p);
      uint64_t const seed = framepattern::seedOf(key, b, p);
      if (coverage == Coverage::Whole) {
        framepattern::write(data, size, seed);
      } else {
        framepattern::writeSparse(data, size, seed);
      }
    }
  }
  return true;
}

void destroyPools(NSCam::v3::Utils::IGainMapBufPoolManager& manager,
                  std::vector<std::weak_ptr<NSCam::v3::Utils::IGainMapBufPool>> const& replaced,
                  Report& report) {
  for (auto const& pool : replaced) {
    report.scenarios.replacedPoolsAlive += pool.expired() ? 0 : 1;
  }
  manager.destroyAllPools(kUniKey);
  qelcam::host::waitQueuesIdle();
  auto const stats = qelcam::host::heapStats();
  report.heapsLeft = stats.heapsAlive;
  report.bytesLeft = stats.bytesAlive;
}

}  // namespace gainmapsim
