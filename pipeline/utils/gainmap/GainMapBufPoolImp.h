#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "GainMapMutex.h"
#include "IGainMapBufPool.h"
#include "camsys/ImageBuffer.h"
#include "camsys/TaskMgr.h"
#include "camsys/Types.h"

// The gain-map buffer pool of one sensor. Lock order: the manager's lock, then mLock, then one
// slot's lock (slot 0's lock may follow another slot's on the producer path). No pool routine
// calls the manager, and none waits on its own queue from inside one of its tasks.
class GainMapBufPoolImp final : public NSCam::v3::Utils::IGainMapBufPool {
 public:
  using PoolParameters = NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters;
  using ImgParam = qcam::IImageBufferAllocator::ImgParam;
  using ImgParamMap = std::unordered_map<unsigned int, ImgParam>;
  using ImgBufInfoMap = std::unordered_map<unsigned int, NSCam::ImageBufferInfo>;

  struct BufSlotImp : public BufSlot {
    // guards every other field of the slot, and the BufSlot fields the pool writes
    gainmap::Mutex lock;
    bool producerUser GMP_GUARDED_BY(lock) = false;
    size_t consumerUserCount GMP_GUARDED_BY(lock) = 0;
    int64_t key GMP_GUARDED_BY(lock) = 0;
    // Set by the release task on a slot it found in use, so that the slot's last user frees its
    // buffers; cleared then, or when a resume reaches the slot first.
    bool freeOnReturn GMP_GUARDED_BY(lock) = false;
    // Set once the slot has buffers; never cleared. Release store after the buffers are filed,
    // acquire loads by the producer (which reads it before taking the slot's lock) and by the
    // pre-allocation task: whoever sees it true sees the slot's buffers.
    gainmap::Atomic<bool> ready{false};
  };

  GainMapBufPoolImp(PoolParameters const& params, bool laggingAlloc);
  ~GainMapBufPoolImp() override GMP_EXCLUDES(mLock);
  GainMapBufPoolImp(GainMapBufPoolImp const&) = delete;
  GainMapBufPoolImp& operator=(GainMapBufPoolImp const&) = delete;

  std::shared_ptr<BufSlot> getProducerBuffer() override GMP_EXCLUDES(mLock);
  int setProducerBuffer(long const& key, int const& validSize,
                        std::shared_ptr<BufSlot> slot) override GMP_EXCLUDES(mLock);
  std::shared_ptr<BufSlot> getConsumerBuffer(long const& key, int index) override
      GMP_EXCLUDES(mLock);
  int setConsumerBuffer(std::shared_ptr<BufSlot> slot) override GMP_EXCLUDES(mLock);
  // Waits for the queue to run what was posted before; never call it from the pool's queue.
  int setPoolReleased() override GMP_EXCLUDES(mLock);
  int setPoolResume() override GMP_EXCLUDES(mLock);
  ImgParamMap getPoolImgParams() override;
  int getUniKey() override;
  uint32_t getMaxSlotCount() override;
  uint32_t getBufBatchSize() override;
  void dump() override GMP_EXCLUDES(mLock);

  std::pair<uint32_t, NSCam::MSize> determineWorstSensorSize();
  ImgParamMap determineBufferParams();
  ImgParam determineAllocParam();
  ImgBufInfoMap determineImgBufInfos();

  int allocSlotBuffersLocked(std::shared_ptr<BufSlotImp> const& slot, int index)
      GMP_REQUIRES(slot->lock);
  int preAllocOneSlotLocked() GMP_REQUIRES(mLock);
  int releaseSlotBuffersLocked(std::shared_ptr<BufSlotImp> const& slot) GMP_REQUIRES(slot->lock);

 private:
  // Whether this call's verbose debug lines or timeline events would go anywhere; read once by
  // each lending call, whose routine leaves them out when not.
  bool isObserved() const;
  // The lending routines under their public wrappers, which add the trace slice and the dump on
  // refusal; `observed` is the wrapper's isObserved().
  std::shared_ptr<BufSlot> onGetProducerBuffer(bool observed) GMP_EXCLUDES(mLock);
  int onSetProducerBuffer(long const& key, int const& validSize,
                          std::shared_ptr<BufSlot> const& slot, bool observed);
  std::shared_ptr<BufSlot> onGetConsumerBuffer(long const& key, int index, bool observed);
  int onSetConsumerBuffer(std::shared_ptr<BufSlot> const& slot, bool observed);

  // The steps run on the pool's queue, one at a time in posting order; each takes the locks it
  // needs.
  void runCreation() GMP_EXCLUDES(mLock);
  void runPreAlloc(int32_t index);
  static void runReleaseBarrier();
  void runRelease() GMP_EXCLUDES(mLock);
  void runResume() GMP_EXCLUDES(mLock);

  // Whether the parameters can make a working pool: at least one sensor mode, positive sensor
  // sizes, a slot count below PoolParameters::kSlotCountLimit, and a worst-mode block of 1 byte to
  // 2^31 - 1 bytes as the geometry computes it without wrapping. Logs one error per problem.
  bool isWorkable(PoolParameters const& params);
  // The worst mode's block, computed without wrapping (saturated); every size positive.
  uint64_t exactBlockBytes() const;
  // Whether a user returning `slot` is its last user in a released pool and so frees it.
  bool lastUserFrees(BufSlotImp const& slot) GMP_REQUIRES(slot.lock);
  // Whether the pool lends slots now; logs why not as `func`.
  bool isLending(char const* func);
  // Whether a returning user's slot `index` names a slot of the rotation (logged as `func` when
  // it does not, or when the slots do not exist yet).
  bool isReturnable(char const* func, int index);
  // Posts `step` to the pool's queue; the handle carries the step's future.
  std::shared_ptr<NSCam::CTM::TaskHandle> post(std::function<void()> step);
  static void waitFor(std::shared_ptr<NSCam::CTM::TaskHandle> const& handle);

  std::string mCallerName;
  std::string mPoolName;
  int32_t mLogLevel;
  int32_t mUniKey;
  int32_t mSensorId;
  std::unordered_map<uint32_t, NSCam::MSize> mSensorSizes;
  uint32_t mWorstSensorMode;
  NSCam::MSize mWorstSensorSize;
  uint32_t mBatchSize;
  // Slots in the rotation. Grown only under mLock, by a sequentially consistent increment made
  // before the new slot's task is posted; the set and consumer paths read it with acquire loads
  // and no lock, for a range check only: the slot's own lock orders its fields, and mSlots never
  // changes once mbInitialized is published.
  gainmap::Atomic<uint32_t> mSlotCount;
  uint32_t mMaxSlotCount;
  bool mbLaggingAlloc;
  // the producer's round-robin cursor; always below mSlotCount
  size_t mCurrentIndex GMP_GUARDED_BY(mLock);
  // Filled once under mLock by the creation task, before mbInitialized is published; never
  // resized afterwards, so the lending paths read it without mLock.
  std::vector<std::shared_ptr<BufSlotImp>> mSlots;
  // the slot most recently added to the rotation, -1 when none is pending
  int32_t mPreAllocIndex GMP_GUARDED_BY(mLock);
  // guards mCurrentIndex and mPreAllocIndex, and orders the queue's tasks against the producer
  gainmap::Mutex mLock;
  // Written only by the queue's steps, with release stores (release and resume under mLock).
  // Acquire loads without a lock refuse early; the producer loads it again under mLock, which
  // orders it against the release task, and a returning user frees a slot only with the slot's own
  // mark, set under the slot's lock, so neither path needs a stronger order.
  gainmap::Atomic<bool> mbReleased;
  // Release store at the end of creation, after mSlots is filled: an acquire load that sees true
  // sees every slot object.
  gainmap::Atomic<bool> mbInitialized;
  ImgParamMap mImgParams;
  ImgParam mAllocParam;
  ImgBufInfoMap mImgBufInfos;
  std::shared_ptr<NSCam::CTM::TaskQueue> mTaskQueue;
};
