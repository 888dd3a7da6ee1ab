#include "GainMapBufPoolMgrImp.h"

#include <mutex>
#include <vector>

#include "GainMapBufPoolImp.h"
#include "GainMapLog.h"
#include "camsys/Properties.h"

using gainmap::MutexLocker;
using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;

namespace {
constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";
constexpr int kBadValue = -22;
}  // namespace

std::shared_ptr<IGainMapBufPoolManager> IGainMapBufPoolManager::getInstance() {
  // The pointer is constructed after the mutex, so it is destroyed first at exit.
  static std::mutex sCreationLock;
  static std::shared_ptr<GainMapBufPoolMgrImp> sInstance;
  std::lock_guard<std::mutex> creationLock(sCreationLock);
  if (!sInstance) {
    sInstance = std::make_shared<GainMapBufPoolMgrImp>();
  }
  if (!sInstance) {
    GMP_LOGF("[%s:line-%d] fail to init GainMapBufPoolMgr");
  }
  return sInstance;
}

GainMapBufPoolMgrImp::GainMapBufPoolMgrImp()
    : mLogLevel(NSCam::Utils::Properties::property_get_int32(kDebugProperty, 0)) {
  mPools.max_load_factor(1.0f);
  GMP_LOGD("[%s] %p", static_cast<void*>(this));
}

int GainMapBufPoolMgrImp::createPool(PoolParameters const& params, bool laggingAlloc) {
  GMP_LOGD("[%s] sensorId: %d, uniKey: %d", params.sensorId, params.uniKey);
  MutexLocker managerLock(mLock);
  auto pool = std::make_shared<GainMapBufPoolImp>(params, laggingAlloc);
  // A pool already filed for the sensor is replaced; if nobody holds it, it is destroyed here.
  mPools[static_cast<uint32_t>(params.sensorId)] = pool;
  return 0;
}

std::shared_ptr<IGainMapBufPool> GainMapBufPoolMgrImp::getPool(int sensorId) {
  MutexLocker managerLock(mLock);
  auto entry = mPools.find(static_cast<uint32_t>(sensorId));
  if (entry == mPools.end()) {
    GMP_LOGE("[%s] [s:%d] pool does not exist", sensorId);
    return nullptr;
  }
  return entry->second;
}

int GainMapBufPoolMgrImp::resumePool(int sensorId) {
  return forwardToPool(__func__, PoolAction::Resume, sensorId);
}

int GainMapBufPoolMgrImp::releasePool(int sensorId) {
  return forwardToPool(__func__, PoolAction::Release, sensorId);
}

int GainMapBufPoolMgrImp::forwardToPool(char const* func, PoolAction action, int sensorId) {
  MutexLocker managerLock(mLock);
  auto entry = mPools.find(static_cast<uint32_t>(sensorId));
  if (entry == mPools.end()) {
    GMP_LOGE_AS(func, "[%s] [s:%d] pool does not exist", sensorId);
    return kBadValue;
  }
  std::shared_ptr<IGainMapBufPool> pool = entry->second;
  if (!pool) {
    return 0;
  }
  // The pool's barrier wait happens under the manager's lock; pools never call the manager.
  if (action == PoolAction::Release) {
    GMP_LOGD_AS(func, "[%s] [s:%d] set pool released", sensorId);
    pool->setPoolReleased();
  } else {
    GMP_LOGD_AS(func, "[%s] [s:%d] set pool resume", sensorId);
    pool->setPoolResume();
  }
  return 0;
}

int GainMapBufPoolMgrImp::destroyAllPools(int const& uniKey) {
  GMP_LOGD("[%s] destroy pool w/ uniKey(%d)", uniKey);
  std::vector<uint32_t> matched;
  MutexLocker managerLock(mLock);
  // Collect first, erase afterwards: the walk never sees an erasure.
  for (auto const& [sensorKey, pool] : mPools) {
    if (pool && pool->getUniKey() == uniKey) {
      GMP_LOGD("[%s] [s:%d] uniKey matched, clear pool", static_cast<int>(sensorKey));
      matched.push_back(sensorKey);
    }
  }
  for (uint32_t sensorKey : matched) {
    auto entry = mPools.find(sensorKey);
    if (entry != mPools.end()) {
      // The last reference may go here: the pool's destructor drains its queue under mLock.
      mPools.erase(entry);
    }
  }
  return 0;
}

void GainMapBufPoolMgrImp::dump() {
  MutexLocker managerLock(mLock);
  for (auto const& entry : mPools) {
    if (entry.second) {
      entry.second->dump();
    }
  }
}
