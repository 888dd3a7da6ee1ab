#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "GainMapMutex.h"
#include "IGainMapBufPool.h"

// The process-wide registry of pools, one per sensor id. Its mLock is held while it constructs,
// releases, resumes, dumps or destroys a pool, so pool locks are always taken inside it.
class GainMapBufPoolMgrImp final : public NSCam::v3::Utils::IGainMapBufPoolManager {
 public:
  GainMapBufPoolMgrImp();
  ~GainMapBufPoolMgrImp() override = default;
  GainMapBufPoolMgrImp(GainMapBufPoolMgrImp const&) = delete;
  GainMapBufPoolMgrImp& operator=(GainMapBufPoolMgrImp const&) = delete;

  int createPool(PoolParameters const& params, bool laggingAlloc) override;
  std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool> getPool(int sensorId) override;
  int resumePool(int sensorId) override;
  int releasePool(int sensorId) override;
  int destroyAllPools(int const& uniKey) override;
  void dump() override;

 private:
  enum class PoolAction { Release, Resume };
  // releasePool and resumePool, logging as `func`.
  int forwardToPool(char const* func, PoolAction action, int sensorId);

  int32_t mLogLevel;
  std::unordered_map<uint32_t, std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool>> mPools
      GMP_GUARDED_BY(mLock);
  // guards mPools
  gainmap::Mutex mLock;
};
