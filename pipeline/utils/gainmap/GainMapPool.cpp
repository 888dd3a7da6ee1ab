// Lock order: the manager's mLock, then the pool's mLock, then one slot's lock; the producer's
// get path may add slot 0's lock after the cursor slot's. No pool routine calls the manager.
//
// Tasks on the pool's queue reach the pool through a plain pointer: the destructor drains the
// queue before any member goes, and no task ever owns the pool, so the last reference is never
// dropped on the queue's own thread.

#include "GainMapBufPoolImp.h"

#include <cinttypes>
#include <sstream>
#include <tuple>

#include "GainMapLog.h"
#include "GainMapTrace.h"
#include "camsys/Format.h"
#include "camsys/Properties.h"
#include "camsys/SensorInfo.h"

// The exceptions on a lending path: an observed call, a refusal and its dump, pending growth, a
// freeing return.
#define GMP_UNLIKELY(condition) __builtin_expect(static_cast<bool>(condition), 0)

using gainmap::MutexLocker;
using NSCam::MSize;
using NSCam::CTM::CentralTaskMgr;
using NSCam::CTM::TaskHandle;

namespace {

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";
constexpr char kCallerName[] = "ppl";
constexpr char kPoolNamePrefix[] = "GMP_";
constexpr int32_t kGainMapWidth = 576;
constexpr int kBufferUsage = 0x6000f;
constexpr int32_t kBlobFormat = 0x21;
constexpr int kBadValue = -22;
constexpr unsigned int kPostPriority = 1;
constexpr int32_t kQueuePriority = 1;

// A slot's block must be allocatable as one 32-bit signed size.
constexpr uint64_t kMaxBlockBytes = 0x7fffffff;

// Queued steps log under the name of the lambdas that run them on the queue.
constexpr char kStepName[] = "operator()";

// Every flag and count is published with a release store and read with acquire loads: a reader
// that sees the new value sees what was written before it (slots, buffers). Nothing needs a total
// order across different atomics; where two must agree, a lock orders them.
constexpr auto kAcquire = std::memory_order_acquire;
constexpr auto kRelease = std::memory_order_release;

// The gain map keeps the sensor's aspect ratio at a fixed width, rounded up to an even height.
// 32-bit arithmetic that wraps rather than overflows, as the device's does.
int32_t gainMapHeight(MSize const& sensorSize) {
  if (sensorSize.w == 0) {
    return 0;
  }
  auto const scaled = static_cast<int32_t>(static_cast<uint32_t>(sensorSize.h) *
                                           static_cast<uint32_t>(kGainMapWidth));
  auto const q = static_cast<uint32_t>(static_cast<int64_t>(scaled) / sensorSize.w);
  return static_cast<int32_t>((q + 1u) & ~1u);
}

float aspectRatio(MSize const& size) {
  return static_cast<float>(size.w) / static_cast<float>(size.h);
}

std::string toString(std::unordered_map<unsigned int, MSize> sizes) {
  std::ostringstream text;
  for (auto const& [mode, size] : sizes) {
    text << "[" << mode << "]:(" << size.w << "x" << size.h << ") ";
  }
  return text.str();
}

int indexOf(std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool::BufSlot> const& slot) {
  return slot ? slot->index : -1;
}

// A lending call refused before it looks at a slot; cold, out of the lent path's way.
__attribute__((cold, noinline)) void refuseLending(char const* func, int32_t sensorId,
                                                   bool initialized) {
  if (!initialized) {
    GMP_LOGW_AS(func, "[%s] [s:%d] pool has not been initialized", sensorId);
    GMP_TRACE_INSTANT(gainmap::trace::refused(func, sensorId, gainmap::trace::kNotInitialized));
  } else {
    GMP_LOGE_AS(func, "[%s] [s:%d] pool has been marked released", sensorId);
    GMP_TRACE_INSTANT(gainmap::trace::refused(func, sensorId, gainmap::trace::kReleased));
  }
}

// A slot handed back with an index outside the rotation, or before the slots exist; cold.
__attribute__((cold, noinline)) void refuseReturn(char const* func, int32_t sensorId, int index,
                                                  uint32_t slotCount, bool inRotation) {
  if (!inRotation) {
    GMP_LOGE_AS(func, "[%s] [s:%d] invalid slot index(%d). Number of slots(%d)", sensorId, index,
                slotCount);
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(func, sensorId, gainmap::trace::kInvalidIndex, index));
  } else {
    GMP_LOGW_AS(func, "[%s] [s:%d] pool has not been initialized", sensorId);
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(func, sensorId, gainmap::trace::kNotInitialized, index));
  }
}

}  // namespace

GainMapBufPoolImp::GainMapBufPoolImp(PoolParameters const& params, bool laggingAlloc)
    : mLogLevel(NSCam::Utils::Properties::property_get_int32(kDebugProperty, 0)),
      mUniKey(params.uniKey),
      mSensorId(params.sensorId),
      mSensorSizes(params.sensorSizes),
      mWorstSensorMode(0),
      mBatchSize(params.batchSize > 1 ? params.batchSize : 1),
      mSlotCount(params.slotCount),
      mMaxSlotCount(2 * params.slotCount),
      mbLaggingAlloc(laggingAlloc),
      mCurrentIndex(0),
      mPreAllocIndex(-1),
      mbReleased(false),
      mbInitialized(false) {
  std::tie(mWorstSensorMode, mWorstSensorSize) = determineWorstSensorSize();
  mImgParams = determineBufferParams();
  mAllocParam = determineAllocParam();
  mImgBufInfos = determineImgBufInfos();
  GMP_LOGD(
      "[%s] ctor: mSensorId(%d), mSensorSizes{%s} mBatchSize(%d), mSlotCount(%d), "
      "mMaxSlotCount(%d) laggingAlloc(%d)",
      mSensorId, toString(mSensorSizes).c_str(), mBatchSize, mSlotCount.load(kAcquire),
      mMaxSlotCount, laggingAlloc ? 1 : 0);
  if (!isWorkable(params)) {
    // Like a pool of no slots: nothing is made or allocated, nothing is lent.
    // Not yet shared: any order would do; release matches every other store.
    mSlotCount.store(0, kRelease);
    mMaxSlotCount = 0;
  }
  mCallerName = kCallerName;
  mPoolName = kPoolNamePrefix + std::to_string(mSensorId);

  CentralTaskMgr::QueueParam queueParam;
  queueParam.name = mPoolName;
  queueParam.priority = kQueuePriority;
  mTaskQueue = CentralTaskMgr::createQueue(queueParam);

  // Slots and their memory are made on the queue: the caller holds the manager's lock.
  post([this] { runCreation(); });
}

GainMapBufPoolImp::~GainMapBufPoolImp() {
  gainmap::trace::Slice slice("destroy", mSensorId);
  // Every task posted before this barrier holds a plain pointer to the pool.
  std::shared_ptr<TaskHandle> barrier = post([] {});
  waitFor(barrier);
  mTaskQueue.reset();

  MutexLocker poolLock(mLock);
  std::ostringstream busySlots;
  // A pool whose queue never ran its creation task has no slot objects.
  for (size_t i = 0; i < mSlotCount.load(kAcquire) && i < mSlots.size(); ++i) {
    std::shared_ptr<BufSlotImp>& slot = mSlots[i];
    MutexLocker slotLock(slot->lock);
    if (slot->producerUser || slot->consumerUserCount != 0) {
      busySlots << "[" << i << "]: "
                << "(p: " << slot->producerUser << " c:" << slot->consumerUserCount << "), ";
      GMP_TRACE(gainmap::trace::holdsDropped(mSensorId, slot.get(), slot->producerUser,
                                             slot->consumerUserCount));
    }
    if (!slot->buffers.empty()) {
      releaseSlotBuffersLocked(slot);
      GMP_LOGVD(this, "[%s] [s:%d][i:%zu] buffers released", mSensorId, i);
    }
    // A slot of several modes keeps its memory in buffersBySize until the slot object goes.
    GMP_TRACE(gainmap::trace::slotBytes(
        mSensorId, slot.get(),
        slot->buffersBySize.empty() ? 0u : static_cast<uint32_t>(mAllocParam.imgSize.w)));
  }
  if (!busySlots.str().empty()) {
    GMP_LOGI("[%s] [s:%d] buffer slots still have users while destructing {%s}", mSensorId,
             busySlots.str().c_str());
  }
  // Slots that clients still hold live on, without the buffers freed above.
  mSlots.clear();
}

std::pair<uint32_t, MSize> GainMapBufPoolImp::determineWorstSensorSize() {
  if (mSensorSizes.empty()) {
    return {0, MSize()};
  }
  auto entry = mSensorSizes.begin();
  std::pair<uint32_t, MSize> worst = *entry;
  float worstRatio = aspectRatio(worst.second);
  for (++entry; entry != mSensorSizes.end(); ++entry) {
    float ratio = aspectRatio(entry->second);
    // A NaN ratio neither replaces nor is replaced; ties keep the earlier mode.
    if (ratio < worstRatio) {
      worst = *entry;
      worstRatio = ratio;
    }
  }
  return worst;
}

GainMapBufPoolImp::ImgParamMap GainMapBufPoolImp::determineBufferParams() {
  using NSCam::utility::ICamsysSensorInfoHelper;
  std::shared_ptr<ICamsysSensorInfoHelper> helper = ICamsysSensorInfoHelper::getInstance();
  std::vector<int32_t> formats;
  if (helper) {
    formats = helper->queryFormats(ICamsysSensorInfoHelper::kQueryGainMapFormats);
  }
  if (formats.empty()) {
    GMP_LOGF("[%s:line-%d] does not support gain map, should not reach here");
  }

  ImgParamMap params;
  params.max_load_factor(1.0f);
  int32_t const format = formats.front();
  int32_t const bitsPerPixel = NSCam::Utils::Format::queryPlaneBitsPerPixel(format, 0);
  // A 576-pixel row without padding.
  auto const stride =
      static_cast<int64_t>(static_cast<int32_t>(72u * static_cast<uint32_t>(bitsPerPixel)));
  for (auto const& [mode, sensorSize] : mSensorSizes) {
    int32_t const height = gainMapHeight(sensorSize);
    ImgParam param;
    param.imgFormat = format;
    param.imgSize = MSize(kGainMapWidth, height);
    param.usage = kBufferUsage;
    param.strideInBytes = static_cast<size_t>(stride);
    GMP_LOGVD(this,
              "[%s] [s:%d] sensor mode(%u) sensor size:(%dx%d), gain map size:(%dx%d) "
              "strideAlignInByte(%zu)",
              mSensorId, mode, sensorSize.w, sensorSize.h, kGainMapWidth, height,
              param.strideInBytes);
    params.emplace(mode, param);
  }
  return params;
}

GainMapBufPoolImp::ImgParam GainMapBufPoolImp::determineAllocParam() {
  ImgParam alloc;
  auto worst = mImgParams.find(mWorstSensorMode);
  if (worst == mImgParams.end()) {
    // Only a pool without sensor sizes has no worst mode; its heaps are empty.
    return alloc;
  }
  MSize const gainMapSize = worst->second.imgSize;
  // 32-bit unsigned, as the heap's size is.
  uint32_t const allocSize = static_cast<uint32_t>(gainMapSize.h) *
                             static_cast<uint32_t>(worst->second.strideInBytes) * mBatchSize;
  alloc.imgFormat = kBlobFormat;
  alloc.imgSize = MSize(static_cast<int32_t>(allocSize), 1);
  alloc.usage = worst->second.usage;
  GMP_LOGVD(this, "[%s] [s:%d] worst size:(%dx%d), alloc size:(%dx%d)", mSensorId, gainMapSize.w,
            gainMapSize.h, alloc.imgSize.w, alloc.imgSize.h);
  return alloc;
}

GainMapBufPoolImp::ImgBufInfoMap GainMapBufPoolImp::determineImgBufInfos() {
  ImgBufInfoMap infos;
  infos.max_load_factor(1.0f);
  for (auto const& [mode, param] : mImgParams) {
    NSCam::ImageBufferInfo info;
    NSCam::BufPlane& plane = info.bufPlanes.planes[0];
    plane.rowStrideInBytes = param.strideInBytes;
    plane.sizeInBytes =
        param.strideInBytes * static_cast<size_t>(static_cast<int64_t>(param.imgSize.h));
    info.bufPlanes.count = 1;
    info.count = mBatchSize;
    // The buffers of a batch follow one another without gaps.
    info.bufStep = plane.sizeInBytes;
    info.startOffset = 0;
    info.imgFormat = param.imgFormat;
    info.imgSize = param.imgSize;
    GMP_LOGVD(this,
              "[%s] [s:%d] mode (%u), imgBufInfo size:(%dx%d), count(%zu), "
              "planes[0].sizeInBytes(%zu), planes[0].rowStrideInBytes(%zu), bufStep(%zu)",
              mSensorId, mode, info.imgSize.w, info.imgSize.h, info.count, plane.sizeInBytes,
              plane.rowStrideInBytes, info.bufStep);
    infos.emplace(mode, info);
  }
  return infos;
}

bool GainMapBufPoolImp::isWorkable(PoolParameters const& params) {
  bool workable = true;
  if (mSensorSizes.empty()) {
    GMP_LOGE("[%s] [s:%d] sensorSizes has no sensor mode", mSensorId);
    workable = false;
  }
  for (auto const& [mode, size] : mSensorSizes) {
    if (size.w <= 0 || size.h <= 0) {
      GMP_LOGE("[%s] [s:%d] sensorSizes[%u] (%dx%d) is not a positive size", mSensorId, mode,
               size.w, size.h);
      workable = false;
    }
  }
  if (params.slotCount >= PoolParameters::kSlotCountLimit) {
    GMP_LOGE("[%s] [s:%d] slotCount(%u) is not below %u", mSensorId, params.slotCount,
             PoolParameters::kSlotCountLimit);
    workable = false;
  }
  if (workable) {
    // The slot's block as the geometry computed it, against the same product without wrapping.
    uint64_t const exact = exactBlockBytes();
    auto const computed = static_cast<uint32_t>(mAllocParam.imgSize.w);
    if (exact == 0 || exact > kMaxBlockBytes || exact != computed) {
      GMP_LOGE("[%s] [s:%d] sensorSizes[%u] (%dx%d) with batchSize(%u) gives slots of %" PRIu64
               " bytes, %u in 32 bits; a slot takes 1 to %" PRIu64 " bytes",
               mSensorId, mWorstSensorMode, mWorstSensorSize.w, mWorstSensorSize.h,
               params.batchSize, exact, computed, kMaxBlockBytes);
      workable = false;
    }
  }
  return workable;
}

uint64_t GainMapBufPoolImp::exactBlockBytes() const {
  ImgParam const& worst = mImgParams.at(mWorstSensorMode);
  // Both sizes are positive here.
  auto const sensorWidth = static_cast<uint64_t>(mWorstSensorSize.w);
  auto const sensorHeight = static_cast<uint64_t>(mWorstSensorSize.h);
  uint64_t const height = (sensorHeight * kGainMapWidth / sensorWidth + 1) & ~1ull;
  uint64_t bytes = 0;
  if (__builtin_mul_overflow(height, static_cast<uint64_t>(worst.strideInBytes), &bytes) ||
      __builtin_mul_overflow(bytes, static_cast<uint64_t>(mBatchSize), &bytes)) {
    return UINT64_MAX;
  }
  return bytes;
}

int GainMapBufPoolImp::allocSlotBuffersLocked(std::shared_ptr<BufSlotImp> const& slot, int index) {
  // A resume reaches multi-mode slots that a user holds and reads: fields that keep their value
  // are not written.
  bool const useSizeMap = mImgParams.size() > 1;
  if (slot->useSizeMap != useSizeMap) {
    slot->useSizeMap = useSizeMap;
  }
  std::shared_ptr<qcam::IImageBufferHeap> heap = qcam::IImageBufferHeapFactory::create(
      mCallerName.c_str(), mPoolName.c_str(), mAllocParam, false);
  if (!heap) {
    GMP_LOGF("[%s:line-%d] [s:%d][i:%d] create heap fail", mSensorId, index);
  }
  // Every mode's batch is a view of the start of the same heap.
  for (auto const& [mode, info] : mImgBufInfos) {
    std::vector<std::shared_ptr<qcam::IImageBuffer>> bufs =
        heap->createImageBuffers(info, mCallerName.c_str(), true);
    // The platform refuses (and logs) buffers that would not fit; never index past what it gave.
    for (size_t b = 0; b < mBatchSize && b < bufs.size(); ++b) {
      if (!bufs[b]->lockBuf(mCallerName.c_str(), kBufferUsage)) {
        GMP_LOGE("[%s] [s:%d][i:%d][b:%zu] lockBuf failed", mSensorId, index, b);
      }
      GMP_LOGVD(this, "[%s] [s:%d][i:%d][b:%zu] buffer created", mSensorId, index, b);
    }
    if (!slot->useSizeMap) {
      slot->buffers = bufs;
    } else {
      // Modes of the same sensor size share the buffers of the mode met first; a size the slot
      // still has keeps its buffers, and the new ones are dropped with the heap.
      MSize const& size = mSensorSizes.at(mode);
      if (slot->buffersBySize.find(size) == slot->buffersBySize.end()) {
        slot->buffersBySize.emplace(size, bufs);
      }
    }
  }
  slot->ready.store(true, kRelease);
  GMP_TRACE(gainmap::trace::slotBytes(mSensorId, slot.get(),
                                      static_cast<uint32_t>(mAllocParam.imgSize.w)));
  return 0;
}

int GainMapBufPoolImp::preAllocOneSlotLocked() {
  if (mSlotCount.load(kAcquire) >= mMaxSlotCount) {
    GMP_LOGE("[%s] [s:%d] slot count(%d) reach max(%d), stop alloc new slot", mSensorId,
             mSlotCount.load(kAcquire), mMaxSlotCount);
    return kBadValue;
  }
  auto const added = static_cast<int32_t>(mSlotCount.load(kAcquire));
  mPreAllocIndex = added;
  // From here the slot is in the rotation, not ready until its task has run.
  // Sequentially consistent, under mLock; readers need only see the slot count grow.
  mSlotCount.fetch_add(1);
  GMP_TRACE(gainmap::trace::rotation(mSensorId, mSlotCount.load(kAcquire)));
  post([this, added] { runPreAlloc(added); });
  return 0;
}

int GainMapBufPoolImp::releaseSlotBuffersLocked(std::shared_ptr<BufSlotImp> const& slot) {
  if (!slot->useSizeMap) {
    for (auto& buffer : slot->buffers) {
      buffer->unlockBuf(mCallerName.c_str());
    }
    slot->buffers.clear();
  } else {
    for (auto& [size, buffers] : slot->buffersBySize) {
      for (auto& buffer : buffers) {
        buffer->unlockBuf(mCallerName.c_str());
      }
    }
    slot->buffersBySize.clear();
  }
  // Nothing is left for a last user to free.
  slot->freeOnReturn = false;
  GMP_TRACE(gainmap::trace::slotBytes(mSensorId, slot.get(), 0));
  GMP_LOGVD(this, "[%s] [s:%d][i:%d] released size (%zu)", mSensorId, slot->index,
            slot->buffers.size());
  return 0;
}

// In a lending routine: its verbose debug lines and timeline events, only while the call is
// observed (`observed`, read once by the routine's wrapper). Refusals are logged and traced
// whether observed or not.
#define GMP_OBSERVED_LOGVD(fmt, ...)       \
  do {                                     \
    if (GMP_UNLIKELY(observed)) {          \
      GMP_LOGVD(this, fmt, ##__VA_ARGS__); \
    }                                      \
  } while (0)
#define GMP_OBSERVED_TRACE(statement) \
  do {                                \
    if (GMP_UNLIKELY(observed)) {     \
      GMP_TRACE(statement);           \
    }                                 \
  } while (0)

bool GainMapBufPoolImp::isObserved() const {
  // Both switches folded into one test: a quiet call takes a single branch here.
  bool const traced = NSCam::Utils::Trace::enabled(NSCam::Utils::Trace::kTimeline);
  return (static_cast<uint32_t>(traced) | static_cast<uint32_t>(mLogLevel)) != 0;
}

std::shared_ptr<GainMapBufPoolImp::BufSlot> GainMapBufPoolImp::getProducerBuffer() {
  bool const observed = isObserved();
  gainmap::trace::Slice slice("getProducerBuffer", mSensorId, observed);
  std::shared_ptr<BufSlot> slot = onGetProducerBuffer(observed);
  slice.slot(slot.get());
  if (GMP_UNLIKELY(!slot && mbInitialized.load(kAcquire))) {
    dump();
  }
  return slot;
}

std::shared_ptr<GainMapBufPoolImp::BufSlot> GainMapBufPoolImp::onGetProducerBuffer(bool observed) {
  if (!isLending(__func__)) {
    return nullptr;
  }
  if (GMP_UNLIKELY(mSlotCount.load(kAcquire) == 0)) {
    GMP_LOGE("[%s] [s:%d] pool has no slot to lend", mSensorId);
    GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kNoSlot));
    return nullptr;
  }
  // The pool keeps its slots alive for the call: only the pointer lent out counts a reference.
  std::shared_ptr<BufSlotImp> const* taken = nullptr;
  {
    MutexLocker poolLock(mLock);
    // A whole release task may have run since the check above; it marks the pool under mLock.
    if (GMP_UNLIKELY(mbReleased.load(kAcquire))) {
      GMP_LOGE("[%s] [s:%d] pool has been marked released", mSensorId);
      GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kReleased));
      return nullptr;
    }
    std::shared_ptr<BufSlotImp> const& slot = mSlots[mCurrentIndex];
    if (GMP_UNLIKELY(!slot->ready.load(kAcquire))) {
      GMP_LOGW("[%s] [s:%d][i:%zu] slot is not ready", mSensorId, mCurrentIndex);
      GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kNotReady,
                                                static_cast<int>(mCurrentIndex)));
      return nullptr;
    }
    MutexLocker slotLock(slot->lock);
    if (GMP_UNLIKELY(slot->producerUser)) {
      GMP_LOGE("[%s] [s:%d][i:%d] still has producer user", mSensorId, slot->index);
      GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId,
                                                gainmap::trace::kHeldByProducer, slot->index));
      return nullptr;
    }
    if (GMP_UNLIKELY(slot->consumerUserCount != 0)) {
      // A busy slot is never skipped: grow the rotation so a free slot comes up later.
      GMP_LOGW("[%s] [s:%d][i:%d] still has consumer users (c:%zu)", mSensorId, slot->index,
               slot->consumerUserCount);
      GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId,
                                                mSlotCount.load(kAcquire) >= mMaxSlotCount
                                                    ? gainmap::trace::kRotationAtMax
                                                    : gainmap::trace::kHeldByConsumers,
                                                slot->index));
      if (mPreAllocIndex == -1) {
        GMP_LOGD("[%s] need pre alloc slot");
        preAllocOneSlotLocked();
      }
      return nullptr;
    }
    GMP_OBSERVED_LOGVD("[%s] [s:%d] current index: %zu", mSensorId, mCurrentIndex);
    slot->producerUser = true;
    GMP_OBSERVED_TRACE(gainmap::trace::producerTakes(mSensorId, slot.get()));
    if (GMP_UNLIKELY(mPreAllocIndex != -1 &&
                     static_cast<size_t>(mPreAllocIndex) == mCurrentIndex)) {
      // Taking the newest slot: slot 0 comes next, so grow again if consumers still hold it.
      std::shared_ptr<BufSlotImp>& first = mSlots[0];
      MutexLocker firstLock(first->lock);
      if (first->consumerUserCount == 0) {
        mPreAllocIndex = -1;
      } else {
        GMP_LOGD("[%s] need pre alloc another slot");
        preAllocOneSlotLocked();
      }
    }
    ++mCurrentIndex;
    if (mCurrentIndex >= mSlotCount.load(kAcquire)) {
      mCurrentIndex = 0;
    }
    taken = &slot;
  }
  std::shared_ptr<BufSlotImp> const& slot = *taken;
  GMP_OBSERVED_LOGVD("[%s] [s:%d][i:%d] slot:%p, size:%zu", mSensorId, slot->index,
                     static_cast<void*>(slot.get()), slot->buffers.size());
  return slot;
}

int GainMapBufPoolImp::setProducerBuffer(long const& key, int const& validSize,
                                         std::shared_ptr<BufSlot> slot) {
  // `slot` is the caller's copy, held for the call.
  bool const observed = isObserved();
  gainmap::trace::Slice slice("setProducerBuffer", mSensorId, observed);
  slice.slot(slot.get());
  slice.key(key);
  int const status = onSetProducerBuffer(key, validSize, slot, observed);
  if (GMP_UNLIKELY(status != 0)) {
    dump();
  }
  return status;
}

int GainMapBufPoolImp::onSetProducerBuffer(long const& key, int const& validSize,
                                           std::shared_ptr<BufSlot> const& slot, bool observed) {
  GMP_OBSERVED_LOGVD("[%s] [s:%d] key: %ld, validSize: %d, slot index: %d", mSensorId, key,
                     validSize, indexOf(slot));
  int const index = indexOf(slot);
  if (!isReturnable(__func__, index)) {
    return kBadValue;
  }
  std::shared_ptr<BufSlotImp> const& own = mSlots[static_cast<size_t>(index)];
  MutexLocker slotLock(own->lock);
  // Compared unsigned: a negative count is too many.
  if (GMP_UNLIKELY(static_cast<uint64_t>(static_cast<int64_t>(validSize)) > own->buffers.size())) {
    GMP_LOGE("[%s] [s:%d][i:%d] user validSize(%d) exceeds slot buffer num(%zu)", mSensorId,
             own->index, validSize, own->buffers.size());
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kTooManyValid, own->index));
    return kBadValue;
  }
  if (GMP_UNLIKELY(!own->producerUser || own->consumerUserCount != 0)) {
    GMP_LOGE("[%s] [s:%d][i:%d] cannot set producer buffer (p:%d, c:%zu)", mSensorId, own->index,
             own->producerUser, own->consumerUserCount);
    GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId,
                                              gainmap::trace::kNotHeldByProducer, own->index));
    return kBadValue;
  }
  own->validSize = validSize;
  own->producerUser = false;
  own->key = key;
  GMP_OBSERVED_TRACE(gainmap::trace::producerReturns(mSensorId, own.get(), key));
  if (GMP_UNLIKELY(lastUserFrees(*own))) {
    GMP_OBSERVED_LOGVD("[%s] [s:%d][i:%d] pool marked released, release slot buffers", mSensorId,
                       own->index);
    releaseSlotBuffersLocked(own);
  }
  GMP_OBSERVED_LOGVD("[%s] [s:%d][i:%d] slot:%p, size:%zu, valid size:%d", mSensorId, own->index,
                     static_cast<void*>(own.get()), own->buffers.size(), own->validSize);
  return 0;
}

std::shared_ptr<GainMapBufPoolImp::BufSlot> GainMapBufPoolImp::getConsumerBuffer(long const& key,
                                                                                 int index) {
  bool const observed = isObserved();
  gainmap::trace::Slice slice("getConsumerBuffer", mSensorId, observed);
  slice.slot(index);
  slice.key(key);
  std::shared_ptr<BufSlot> slot = onGetConsumerBuffer(key, index, observed);
  if (GMP_UNLIKELY(!slot && mbInitialized.load(kAcquire))) {
    dump();
  }
  return slot;
}

std::shared_ptr<GainMapBufPoolImp::BufSlot> GainMapBufPoolImp::onGetConsumerBuffer(long const& key,
                                                                                   int index,
                                                                                   bool observed) {
  GMP_OBSERVED_LOGVD("[%s] index: %d, key: %ld", index, key);
  if (!isLending(__func__)) {
    return nullptr;
  }
  // A negative index compares as too large.
  if (GMP_UNLIKELY(static_cast<uint32_t>(index) >= mSlotCount.load(kAcquire))) {
    GMP_LOGE("[%s] [s:%d] request invalid index(%d). Number of slots(%d)", mSensorId, index,
             mSlotCount.load(kAcquire));
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kInvalidIndex, index));
    return nullptr;
  }
  std::shared_ptr<BufSlotImp> const& slot = mSlots[static_cast<size_t>(index)];
  MutexLocker slotLock(slot->lock);
  if (GMP_UNLIKELY(slot->producerUser)) {
    GMP_LOGE("[%s] [s:%d][i:%d] slot has producer user", mSensorId, slot->index);
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kHeldByProducer, slot->index));
    return nullptr;
  }
  if (GMP_UNLIKELY(slot->key != key)) {
    GMP_LOGE("[%s] [s:%d][i:%d] timestamp mismatch, slot timestamp: %ldconsumer timestamp: %ld",
             mSensorId, slot->index, slot->key, key);
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kStaleTimestamp, slot->index));
    return nullptr;
  }
  if (GMP_UNLIKELY(slot->buffers.empty())) {
    GMP_LOGD("[%s] [s:%d][i:%d] slot buffers has been released. mbReleased(%d)", mSensorId,
             slot->index, mbReleased.load(kAcquire));
    GMP_TRACE_INSTANT(gainmap::trace::refused(
        __func__, mSensorId,
        slot->useSizeMap ? gainmap::trace::kNoBuffersByDesign : gainmap::trace::kBuffersReleased,
        slot->index));
    return nullptr;
  }
  ++slot->consumerUserCount;
  GMP_OBSERVED_TRACE(
      gainmap::trace::consumerTakes(mSensorId, slot.get(), key, slot->consumerUserCount));
  GMP_OBSERVED_LOGVD("[%s] [s:%d][i:%d] slot:%p, size:%zu, validSize:%d, c:%zu", mSensorId,
                     slot->index, static_cast<void*>(slot.get()), slot->buffers.size(),
                     slot->validSize, slot->consumerUserCount);
  return slot;
}

int GainMapBufPoolImp::setConsumerBuffer(std::shared_ptr<BufSlot> slot) {
  bool const observed = isObserved();
  gainmap::trace::Slice slice("setConsumerBuffer", mSensorId, observed);
  slice.slot(slot.get());
  int const status = onSetConsumerBuffer(slot, observed);
  if (GMP_UNLIKELY(status != 0)) {
    dump();
  }
  return status;
}

int GainMapBufPoolImp::onSetConsumerBuffer(std::shared_ptr<BufSlot> const& slot, bool observed) {
  GMP_OBSERVED_LOGVD("[%s] [s:%d] consumer slot index(%d), slot count(%d)", mSensorId,
                     indexOf(slot), mSlotCount.load(kAcquire));
  int const index = indexOf(slot);
  if (!isReturnable(__func__, index)) {
    return kBadValue;
  }
  std::shared_ptr<BufSlotImp> const& own = mSlots[static_cast<size_t>(index)];
  MutexLocker slotLock(own->lock);
  if (GMP_UNLIKELY(own->producerUser)) {
    GMP_LOGE("[%s] [s:%d][i:%d] slot has producer user (p:%d, c:%zu)", mSensorId, own->index,
             own->producerUser, own->consumerUserCount);
    GMP_TRACE_INSTANT(
        gainmap::trace::refused(__func__, mSensorId, gainmap::trace::kHeldByProducer, own->index));
    return kBadValue;
  }
  if (GMP_UNLIKELY(own->consumerUserCount == 0)) {
    GMP_LOGE("[%s] [s:%d][i:%d] slot has no consumer user (p:%d, c:%zu)", mSensorId, own->index,
             own->producerUser, own->consumerUserCount);
    GMP_TRACE_INSTANT(gainmap::trace::refused(__func__, mSensorId,
                                              gainmap::trace::kNotHeldByConsumer, own->index));
    return kBadValue;
  }
  --own->consumerUserCount;
  GMP_OBSERVED_TRACE(gainmap::trace::consumerReturns(mSensorId, own.get(), own->consumerUserCount));
  if (GMP_UNLIKELY(lastUserFrees(*own))) {
    GMP_OBSERVED_LOGVD(
        "[%s] [s:%d][i:%d] pool marked released and no consumer, release slot buffers", mSensorId,
        own->index);
    releaseSlotBuffersLocked(own);
  }
  GMP_OBSERVED_LOGVD("[%s] [s:%d][i:%d] slot:%p, size:%zu, c:%zu", mSensorId, slot->index,
                     static_cast<void*>(slot.get()), slot->buffers.size(), own->consumerUserCount);
  return 0;
}

bool GainMapBufPoolImp::lastUserFrees(BufSlotImp const& slot) {
  // The mark, not the released flag alone: a resume that has already passed the slot must not
  // see it freed behind it, and a slot returned before the release task reaches it is freed by
  // that task. The mark comes first: it is rarely set, and on the slot's line already.
  return slot.freeOnReturn && mbReleased.load(kAcquire) && !slot.producerUser &&
         slot.consumerUserCount == 0;
}

bool GainMapBufPoolImp::isLending(char const* func) {
  // Neither waits: a producer or consumer early or late is refused at once.
  bool const initialized = mbInitialized.load(kAcquire);
  if (GMP_UNLIKELY(!initialized || mbReleased.load(kAcquire))) {
    refuseLending(func, mSensorId, initialized);
    return false;
  }
  return true;
}

bool GainMapBufPoolImp::isReturnable(char const* func, int index) {
  uint32_t const slotCount = mSlotCount.load(kAcquire);
  // A negative index compares as too large.
  bool const inRotation = static_cast<uint32_t>(index) < slotCount;
  // Before the creation task has run, mSlots is still being filled.
  if (GMP_UNLIKELY(!inRotation || !mbInitialized.load(kAcquire))) {
    refuseReturn(func, mSensorId, index, slotCount, inRotation);
    return false;
  }
  return true;
}

int GainMapBufPoolImp::setPoolReleased() {
  gainmap::trace::Slice slice("setPoolReleased", mSensorId);
  // Creation, resume and slot allocations queued before must be done before anything is freed.
  waitFor(post([] { runReleaseBarrier(); }));
  post([this] { runRelease(); });
  return 0;
}

int GainMapBufPoolImp::setPoolResume() {
  // No barrier: the queue runs this behind any earlier release.
  post([this] { runResume(); });
  return 0;
}

void GainMapBufPoolImp::runCreation() {
  gainmap::trace::Slice slice("create", mSensorId);
  GMP_LOGD_AS(kStepName, "[%s] [s:%d] async create pool start", mSensorId);
  {
    MutexLocker poolLock(mLock);
    mSlots.resize(mMaxSlotCount);
    for (size_t i = 0; i < mSlots.size(); ++i) {
      mSlots[i] = std::make_shared<BufSlotImp>();
      if (!mSlots[i]) {
        GMP_LOGF_AS(kStepName, "[%s:line-%d] [s:%d][i:%zu] create buffer slot failed", mSensorId,
                    i);
      }
      std::shared_ptr<BufSlotImp>& slot = mSlots[i];
      MutexLocker slotLock(slot->lock);
      slot->index = static_cast<int32_t>(i);
      slot->validSize = static_cast<int32_t>(mBatchSize);
      if (!mbLaggingAlloc && i < mSlotCount.load(kAcquire)) {
        allocSlotBuffersLocked(slot, static_cast<int>(i));
      }
    }
  }
  mbReleased.store(mbLaggingAlloc, kRelease);
  mbInitialized.store(true, kRelease);
  GMP_TRACE(gainmap::trace::rotation(mSensorId, mSlotCount.load(kAcquire)));
  GMP_LOGD_AS(kStepName, "[%s] [s:%d] async create pool done", mSensorId);
  dump();
}

void GainMapBufPoolImp::runPreAlloc(int32_t index) {
  gainmap::trace::Slice slice("allocate slot", mSensorId);
  slice.slot(index);
  GMP_LOGD_AS(kStepName, "[%s] [s:%d] async pre alloc slot(i:%d) +", mSensorId, index);
  {
    std::shared_ptr<BufSlotImp>& slot = mSlots[static_cast<size_t>(index)];
    MutexLocker slotLock(slot->lock);
    // A release and resume queued ahead of this task may have reached the slot first: a resume
    // gave it its memory (and the producer may hold it), a release leaves its memory to the
    // next resume. Only this queue changes the released mark, so it is stable here.
    if (!slot->ready.load(kAcquire) && !mbReleased.load(kAcquire)) {
      slot->index = index;
      slot->validSize = static_cast<int32_t>(mBatchSize);
      allocSlotBuffersLocked(slot, index);
    }
  }
  GMP_LOGD_AS(kStepName, "[%s] [s:%d] async pre alloc slot(i:%d) -", mSensorId, index);
}

void GainMapBufPoolImp::runReleaseBarrier() {
  GMP_LOGD_AS(kStepName, "[%s] Wait for CTM createPool/resumePool done");
}

void GainMapBufPoolImp::runRelease() {
  gainmap::trace::Slice slice("release", mSensorId);
  GMP_LOGD_AS(kStepName, "[%s] [setPoolReleased] [s:%d] async +", mSensorId);
  MutexLocker poolLock(mLock);
  if (mbReleased.load(kAcquire)) {
    GMP_LOGW_AS(kStepName, "[%s] [s:%d] has already been marked released", mSensorId);
    return;
  }
  // Set before the slots are visited, so users returning a slot from now on free it.
  mbReleased.store(true, kRelease);
  for (std::shared_ptr<BufSlotImp>& slot : mSlots) {
    MutexLocker slotLock(slot->lock);
    if (!slot->producerUser && slot->consumerUserCount == 0) {
      releaseSlotBuffersLocked(slot);
    } else {
      slot->freeOnReturn = true;
      GMP_LOGD_AS(kStepName, "[%s] [s:%d][i:%d] still has users (p:%d, c: %zu)", mSensorId,
                  slot->index, slot->producerUser, slot->consumerUserCount);
    }
  }
  GMP_LOGD_AS(kStepName, "[%s] [setPoolReleased] [s:%d] async -", mSensorId);
}

void GainMapBufPoolImp::runResume() {
  gainmap::trace::Slice slice("resume", mSensorId);
  GMP_LOGD_AS(kStepName, "[%s] [setPoolResume] [s:%d] async +", mSensorId);
  MutexLocker poolLock(mLock);
  if (!mbReleased.load(kAcquire)) {
    GMP_LOGW_AS(kStepName, "[%s] [s:%d] has already been set resume", mSensorId);
    return;
  }
  // Every slot of the rotation as it stands now, grown ones included.
  for (size_t i = 0; i < mSlotCount.load(kAcquire); ++i) {
    std::shared_ptr<BufSlotImp>& slot = mSlots[i];
    MutexLocker slotLock(slot->lock);
    // From here until the pool is marked active, a user returning the slot leaves it as it is.
    slot->freeOnReturn = false;
    if (slot->buffers.empty()) {
      allocSlotBuffersLocked(slot, static_cast<int>(i));
    } else {
      GMP_LOGI_AS(kStepName, "[%s] [s:%d][i:%zu] slot still has buffer, size:%zu (p:%d, c:%zu)",
                  mSensorId, i, slot->buffers.size(), slot->producerUser, slot->consumerUserCount);
    }
  }
  mbReleased.store(false, kRelease);
  GMP_LOGD_AS(kStepName, "[%s] [setPoolResume] [s:%d] async -", mSensorId);
}

GainMapBufPoolImp::ImgParamMap GainMapBufPoolImp::getPoolImgParams() {
  return mImgParams;
}

int GainMapBufPoolImp::getUniKey() {
  return mUniKey;
}

uint32_t GainMapBufPoolImp::getMaxSlotCount() {
  return mMaxSlotCount;
}

uint32_t GainMapBufPoolImp::getBufBatchSize() {
  return mBatchSize;
}

void GainMapBufPoolImp::dump() {
  // The text is built only when the line can be written.
  if (!gainmap::log::gatePasses(gainmap::log::Class::Debug)) {
    return;
  }
  MutexLocker poolLock(mLock);
  std::ostringstream text;
  text << "[s:" << mSensorId << "] released(" << mbReleased.load(kAcquire) << ") "
       << "(p, c, validSize, key, buffers.size()): {";
  for (std::shared_ptr<BufSlotImp>& slot : mSlots) {
    MutexLocker slotLock(slot->lock);
    text << "[" << slot->index << "]: (" << slot->producerUser << ", " << slot->consumerUserCount
         << ", " << slot->validSize << ", " << slot->key << ", " << slot->buffers.size() << "), ";
  }
  text << "}";
  GMP_LOGD("[%s] %s", text.str().c_str());
}

std::shared_ptr<TaskHandle> GainMapBufPoolImp::post(std::function<void()> step) {
  auto task = std::make_shared<std::packaged_task<void()>>(std::move(step));
  std::shared_future<void> done = task->get_future().share();
  std::shared_ptr<TaskHandle> handle =
      CentralTaskMgr::asyncPost(mTaskQueue, kPostPriority, [task] { (*task)(); });
  if (handle) {
    handle->setFuture(done);
  }
  return handle;
}

void GainMapBufPoolImp::waitFor(std::shared_ptr<TaskHandle> const& handle) {
  if (!handle) {
    return;
  }
  std::shared_future<void> done = handle->getFuture();
  if (done.valid()) {
#if defined(GAINMAP_SCHEDULING_POINTS)
    gainmap::sched::waitUntil(
        "wait for a step",
        [&done] { return done.wait_for(std::chrono::seconds(0)) == std::future_status::ready; },
        __func__);
#endif
    done.wait();
  }
}
