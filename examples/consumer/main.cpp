// One lending cycle through the installed library: create a pool, let the producer write a gain
// map for a frame, let a consumer read it back, and remove the pool.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;

namespace {

constexpr int kSensorId = 0;
constexpr int kClientKey = 42;
constexpr long kFrameKey = 1000;
constexpr unsigned char kPattern = 0x5a;

bool fail(char const* what) {
  std::fprintf(stderr, "gainmap_consumer: %s\n", what);
  return false;
}

bool lendOneFrame(IGainMapBufPool& pool) {
  std::shared_ptr<IGainMapBufPool::BufSlot> slot = pool.getProducerBuffer();
  if (!slot || slot->buffers.empty()) {
    return fail("the producer got no slot");
  }
  std::shared_ptr<qcam::IImageBuffer> const& written = slot->buffers[0];
  auto* bytes = reinterpret_cast<unsigned char*>(written->getBufVA(0));
  size_t size = written->getBufSizeInBytes(0);
  std::memset(bytes, kPattern, size);
  if (pool.setProducerBuffer(kFrameKey, 1, slot) != 0) {
    return fail("the pool did not take the filled slot back");
  }

  std::shared_ptr<IGainMapBufPool::BufSlot> borrowed =
      pool.getConsumerBuffer(kFrameKey, slot->index);
  if (!borrowed) {
    return fail("the consumer could not borrow the frame");
  }
  auto const* read = reinterpret_cast<unsigned char const*>(borrowed->buffers[0]->getBufVA(0));
  for (size_t i = 0; i < size; ++i) {
    if (read[i] != kPattern) {
      return fail("the consumer read other bytes than the producer wrote");
    }
  }
  if (pool.setConsumerBuffer(borrowed) != 0) {
    return fail("the pool did not take the borrowed slot back");
  }
  std::printf("lent slot %d: %zu bytes written and read back\n", slot->index, size);
  return true;
}

}  // namespace

int main() {
  std::shared_ptr<IGainMapBufPoolManager> manager = IGainMapBufPoolManager::getInstance();
  IGainMapBufPoolManager::PoolParameters params;
  params.sensorId = kSensorId;
  params.sensorSizes = {{0, NSCam::MSize(4000, 3000)}};
  params.batchSize = 1;
  params.slotCount = 2;
  params.uniKey = kClientKey;
  manager->createPool(params, false);
  // The pool allocates its slots on its own queue; the host platform can wait for that.
  qelcam::host::waitQueuesIdle();

  std::shared_ptr<IGainMapBufPool> pool = manager->getPool(kSensorId);
  bool ok = pool ? lendOneFrame(*pool) : fail("no pool for the sensor");
  pool.reset();
  manager->destroyAllPools(kClientKey);
  return ok ? 0 : 1;
}
