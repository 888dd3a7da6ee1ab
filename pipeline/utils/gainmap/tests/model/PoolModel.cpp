#include "PoolModel.h"

#include <cstdarg>
#include <cstdio>
#include <set>
#include <sstream>
#include <utility>

namespace gainmap_model {
namespace {

constexpr int32_t kGainMapWidth = 576;
constexpr int64_t kUsage = 0x6000f;
// A slot's block must be allocatable as one 32-bit signed size.
constexpr uint64_t kMaxBlockBytes = 0x7fffffff;

std::string format(char const* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(char const* pattern, ...) {
  char text[2048];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(text, sizeof(text), pattern, args);
  va_end(args);
  return text;
}

// Rows of a 576-pixel-wide map with the sensor's aspect ratio, rounded up to an even count, in
// the camera stack's wrapping 32-bit arithmetic.
int32_t gainMapRows(NSCam::MSize const& size) {
  if (size.w == 0) {
    return 0;
  }
  auto const product = static_cast<int32_t>(static_cast<uint32_t>(size.h) * 576u);
  auto const q = static_cast<uint32_t>(static_cast<int64_t>(product) / size.w);
  return static_cast<int32_t>((q + 1u) & ~1u);
}

}  // namespace

Geometry computeGeometry(PoolParameters const& params, PlatformModel const& platform) {
  Geometry g;
  g.batchSize = params.batchSize > 1 ? params.batchSize : 1;
  auto const stride = static_cast<size_t>(static_cast<int64_t>(
      static_cast<int32_t>(72u * static_cast<uint32_t>(platform.bitsPerPixel))));
  std::unordered_map<unsigned int, NSCam::MSize> sizes = params.sensorSizes;
  std::set<std::pair<int32_t, int32_t>> distinct;
  bool haveWorst = false;
  unsigned int worstMode = 0;
  NSCam::MSize worstSize;
  float worstRatio = 0;
  int32_t const sensor = params.sensorId;
  if (sizes.empty()) {
    g.problems.push_back(format("[isWorkable] [s:%d] sensorSizes has no sensor mode", sensor));
  }
  for (auto const& [mode, size] : sizes) {
    ImgParam param;
    param.imgFormat = platform.gainMapFormat;
    param.imgSize = NSCam::MSize(kGainMapWidth, gainMapRows(size));
    param.strideInBytes = stride;
    param.usage = kUsage;
    g.imgParams.emplace(mode, param);
    distinct.emplace(size.w, size.h);
    float const ratio = static_cast<float>(size.w) / static_cast<float>(size.h);
    if (!haveWorst || ratio < worstRatio) {
      haveWorst = true;
      worstMode = mode;
      worstSize = size;
      worstRatio = ratio;
    }
    if (size.w <= 0 || size.h <= 0) {
      g.problems.push_back(
          format("[isWorkable] [s:%d] sensorSizes[%u] (%dx%d) is not a positive "
                 "size",
                 sensor, mode, size.w, size.h));
    }
  }
  g.distinctSizes = distinct.size();
  if (params.slotCount >= kSlotCountBound) {
    g.problems.push_back(format("[isWorkable] [s:%d] slotCount(%u) is not below %u", sensor,
                                params.slotCount, kSlotCountBound));
  }
  if (haveWorst) {
    auto const rows = static_cast<uint32_t>(g.imgParams.at(worstMode).imgSize.h);
    g.allocSize = rows * static_cast<uint32_t>(stride) * g.batchSize;
  }
  if (g.problems.empty()) {
    // The block without any wrapping, against what the 32-bit geometry gave.
    unsigned __int128 const rows =
        (static_cast<uint64_t>(worstSize.h) * kGainMapWidth / static_cast<uint64_t>(worstSize.w) +
         1) &
        ~uint64_t{1};
    unsigned __int128 const wide = rows * stride * g.batchSize;
    uint64_t const exact = wide > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(wide);
    if (exact == 0 || exact > kMaxBlockBytes || exact != g.allocSize) {
      g.problems.push_back(
          format("[isWorkable] [s:%d] sensorSizes[%u] (%dx%d) with "
                 "batchSize(%u) gives slots of %llu bytes, %u in 32 bits; a "
                 "slot takes 1 to %llu bytes",
                 sensor, worstMode, worstSize.w, worstSize.h, params.batchSize,
                 static_cast<unsigned long long>(exact), g.allocSize,
                 static_cast<unsigned long long>(kMaxBlockBytes)));
    }
  }
  return g;
}

PoolModel::PoolModel(PoolParameters const& params, bool laggingAlloc, PlatformModel const& platform,
                     Lines& out)
    : mSensorId(params.sensorId),
      mUniKey(params.uniKey),
      mLaggingAlloc(laggingAlloc),
      mPlatform(platform),
      mGeometry(computeGeometry(params, platform)),
      mSlotCount(params.slotCount),
      mMaxSlotCount(2 * params.slotCount) {
  if (!workable()) {
    for (std::string const& problem : mGeometry.problems) {
      out.push_back({kError, problem});
    }
    mSlotCount = 0;
    mMaxSlotCount = 0;
  }
  mQueue.push_back({Step::Create, -1});
}

SlotModel* PoolModel::slot(int index) {
  if (index < 0 || static_cast<size_t>(index) >= mSlots.size()) {
    return nullptr;
  }
  return &mSlots[static_cast<size_t>(index)];
}

bool PoolModel::isLending(char const* func, Lines& out) const {
  if (!mInitialized) {
    out.push_back({kWarning, format("[%s] [s:%d] pool has not been initialized", func, mSensorId)});
    return false;
  }
  if (mReleased) {
    out.push_back({kError, format("[%s] [s:%d] pool has been marked released", func, mSensorId)});
    return false;
  }
  return true;
}

int PoolModel::getProducerBuffer(Lines& out) {
  char const* func = "onGetProducerBuffer";
  int lent = -1;
  if (isLending(func, out)) {
    if (mSlotCount == 0) {
      out.push_back({kError, format("[%s] [s:%d] pool has no slot to lend", func, mSensorId)});
    } else {
      SlotModel& slot = mSlots[mCursor];
      if (!slot.ready) {
        out.push_back(
            {kWarning, format("[%s] [s:%d][i:%zu] slot is not ready", func, mSensorId, mCursor)});
      } else if (slot.producerUser) {
        out.push_back({kError, format("[%s] [s:%d][i:%d] still has producer user", func, mSensorId,
                                      slot.index)});
      } else if (slot.consumerUserCount != 0) {
        out.push_back({kWarning, format("[%s] [s:%d][i:%d] still has consumer users (c:%zu)", func,
                                        mSensorId, slot.index, slot.consumerUserCount)});
        if (mPreAllocIndex == -1) {
          preAllocOneSlot(out);
        }
      } else {
        slot.producerUser = true;
        if (mPreAllocIndex != -1 && static_cast<size_t>(mPreAllocIndex) == mCursor) {
          if (mSlots[0].consumerUserCount == 0) {
            mPreAllocIndex = -1;
          } else {
            preAllocOneSlot(out);
          }
        }
        lent = static_cast<int>(mCursor);
        if (++mCursor >= mSlotCount) {
          mCursor = 0;
        }
      }
    }
  }
  if (lent < 0 && mInitialized) {
    dump(out);
  }
  return lent;
}

int PoolModel::preAllocOneSlot(Lines& out) {
  if (mSlotCount >= mMaxSlotCount) {
    out.push_back(
        {kError, format("[preAllocOneSlotLocked] [s:%d] slot count(%d) reach max(%d), "
                        "stop alloc new slot",
                        mSensorId, static_cast<int>(mSlotCount), static_cast<int>(mMaxSlotCount))});
    return kBadValue;
  }
  mPreAllocIndex = static_cast<int32_t>(mSlotCount);
  ++mSlotCount;
  mQueue.push_back({Step::PreAlloc, mPreAllocIndex});
  return 0;
}

SlotModel* PoolModel::slotToReturn(char const* func, int index, Lines& out) {
  if (index < 0 || static_cast<uint32_t>(index) >= mSlotCount) {
    out.push_back({kError, format("[%s] [s:%d] invalid slot index(%d). Number of slots(%d)", func,
                                  mSensorId, index, static_cast<int>(mSlotCount))});
    return nullptr;
  }
  if (!mInitialized) {
    out.push_back({kWarning, format("[%s] [s:%d] pool has not been initialized", func, mSensorId)});
    return nullptr;
  }
  return &mSlots[static_cast<size_t>(index)];
}

int PoolModel::setProducerBuffer(int64_t key, int validSize, int slotIndex, Lines& out) {
  char const* func = "onSetProducerBuffer";
  int status = kBadValue;
  if (SlotModel* slot = slotToReturn(func, slotIndex, out)) {
    if (static_cast<uint64_t>(static_cast<int64_t>(validSize)) > slot->buffers) {
      out.push_back({kError, format("[%s] [s:%d][i:%d] user validSize(%d) exceeds slot buffer "
                                    "num(%zu)",
                                    func, mSensorId, slot->index, validSize, slot->buffers)});
    } else if (!slot->producerUser || slot->consumerUserCount != 0) {
      out.push_back({kError, format("[%s] [s:%d][i:%d] cannot set producer buffer (p:%d, c:%zu)",
                                    func, mSensorId, slot->index, slot->producerUser ? 1 : 0,
                                    slot->consumerUserCount)});
    } else {
      slot->validSize = validSize;
      slot->producerUser = false;
      slot->key = key;
      if (mReleased) {
        releaseSlotBuffers(*slot);
      }
      status = 0;
    }
  }
  if (status != 0) {
    dump(out);
  }
  return status;
}

int PoolModel::getConsumerBuffer(int64_t key, int index, Lines& out) {
  char const* func = "onGetConsumerBuffer";
  int lent = -1;
  if (isLending(func, out)) {
    if (index < 0 || static_cast<uint32_t>(index) >= mSlotCount) {
      out.push_back({kError, format("[%s] [s:%d] request invalid index(%d). Number of slots(%d)",
                                    func, mSensorId, index, static_cast<int>(mSlotCount))});
    } else {
      SlotModel& slot = mSlots[static_cast<size_t>(index)];
      if (slot.producerUser) {
        out.push_back({kError, format("[%s] [s:%d][i:%d] slot has producer user", func, mSensorId,
                                      slot.index)});
      } else if (slot.key != key) {
        out.push_back({kError, format("[%s] [s:%d][i:%d] timestamp mismatch, slot timestamp: "
                                      "%ldconsumer timestamp: %ld",
                                      func, mSensorId, slot.index, static_cast<long>(slot.key),
                                      static_cast<long>(key))});
      } else if (slot.buffers != 0) {
        ++slot.consumerUserCount;
        lent = index;
      }
    }
  }
  if (lent < 0 && mInitialized) {
    dump(out);
  }
  return lent;
}

int PoolModel::setConsumerBuffer(int slotIndex, Lines& out) {
  char const* func = "onSetConsumerBuffer";
  int status = kBadValue;
  if (SlotModel* slot = slotToReturn(func, slotIndex, out)) {
    if (slot->producerUser) {
      out.push_back({kError, format("[%s] [s:%d][i:%d] slot has producer user (p:%d, c:%zu)", func,
                                    mSensorId, slot->index, 1, slot->consumerUserCount)});
    } else if (slot->consumerUserCount == 0) {
      out.push_back({kError, format("[%s] [s:%d][i:%d] slot has no consumer user (p:%d, c:%zu)",
                                    func, mSensorId, slot->index, 0, slot->consumerUserCount)});
    } else {
      --slot->consumerUserCount;
      if (mReleased && slot->consumerUserCount == 0) {
        releaseSlotBuffers(*slot);
      }
      status = 0;
    }
  }
  if (status != 0) {
    dump(out);
  }
  return status;
}

void PoolModel::setPoolReleased(Lines& out) {
  runQueued(out);
  mQueue.push_back({Step::Release, -1});
}

void PoolModel::setPoolResume() {
  mQueue.push_back({Step::Resume, -1});
}

void PoolModel::runQueued(Lines& out) {
  while (!mQueue.empty()) {
    Queued const next = mQueue.front();
    mQueue.pop_front();
    switch (next.step) {
      case Step::Create:
        runCreate(out);
        break;
      case Step::PreAlloc:
        runPreAlloc(next.slot, out);
        break;
      case Step::Release:
        runRelease(out);
        break;
      case Step::Resume:
        runResume(out);
        break;
    }
  }
}

void PoolModel::runCreate(Lines& out) {
  mSlots.assign(mMaxSlotCount, SlotModel());
  for (uint32_t i = 0; i < mMaxSlotCount; ++i) {
    SlotModel& slot = mSlots[i];
    slot.index = static_cast<int32_t>(i);
    slot.validSize = static_cast<int32_t>(mGeometry.batchSize);
    if (!mLaggingAlloc && i < mSlotCount) {
      allocSlotBuffers(slot, static_cast<int>(i), out);
    }
  }
  mReleased = mLaggingAlloc;
  mInitialized = true;
  dump(out);
}

void PoolModel::runPreAlloc(int32_t index, Lines& out) {
  SlotModel& slot = mSlots[static_cast<size_t>(index)];
  slot.index = index;
  slot.validSize = static_cast<int32_t>(mGeometry.batchSize);
  allocSlotBuffers(slot, index, out);
}

void PoolModel::runRelease(Lines& out) {
  if (mReleased) {
    out.push_back(
        {kWarning, format("[operator()] [s:%d] has already been marked released", mSensorId)});
    return;
  }
  mReleased = true;
  for (SlotModel& slot : mSlots) {
    if (!slot.producerUser && slot.consumerUserCount == 0) {
      releaseSlotBuffers(slot);
    }
  }
}

void PoolModel::runResume(Lines& out) {
  if (!mReleased) {
    out.push_back({kWarning, format("[operator()] [s:%d] has already been set resume", mSensorId)});
    return;
  }
  for (size_t i = 0; i < mSlotCount; ++i) {
    SlotModel& slot = mSlots[i];
    if (slot.buffers == 0) {
      allocSlotBuffers(slot, static_cast<int>(i), out);
    } else {
      out.push_back({kInfo, format("[operator()] [s:%d][i:%zu] slot still has buffer, size:%zu "
                                   "(p:%d, c:%zu)",
                                   mSensorId, i, slot.buffers, slot.producerUser ? 1 : 0,
                                   slot.consumerUserCount)});
    }
  }
  mReleased = false;
}

void PoolModel::allocSlotBuffers(SlotModel& slot, int index, Lines& out) {
  size_t const modes = mGeometry.imgParams.size();
  uint32_t const batch = mGeometry.batchSize;
  slot.useSizeMap = modes > 1;
  ++mHeapsCreated;
  bool const lockFails =
      mPlatform.failLockAt >= 0 && static_cast<uint32_t>(mPlatform.failLockAt) < batch;
  if (lockFails) {
    for (size_t m = 0; m < modes; ++m) {
      out.push_back({kError, format("[allocSlotBuffersLocked] [s:%d][i:%d][b:%zu] lockBuf failed",
                                    mSensorId, index, static_cast<size_t>(mPlatform.failLockAt))});
    }
  }
  uint64_t const lockedPerBatch = batch - (lockFails ? 1 : 0);
  // Sizes already in the per-size map keep their buffers; the new heap then goes at once, with
  // the batches nobody kept.
  bool const keepsOld = slot.useSizeMap && slot.sizeKeys != 0;
  if (slot.useSizeMap) {
    mDroppedLocked += lockedPerBatch * (modes - (keepsOld ? 0 : mGeometry.distinctSizes));
  } else {
    mDroppedLocked += slot.lockedBuffers;
  }
  if (!keepsOld) {
    slot.buffers = slot.useSizeMap ? 0 : batch;
    slot.sizeKeys = slot.useSizeMap ? mGeometry.distinctSizes : 0;
    slot.lockedBuffers = lockedPerBatch * (slot.useSizeMap ? mGeometry.distinctSizes : 1);
    slot.hasMemory = true;
    slot.memoryBytes = mGeometry.allocSize;
  }
  slot.ready = true;
}

void PoolModel::releaseSlotBuffers(SlotModel& slot) {
  slot.buffers = 0;
  slot.sizeKeys = 0;
  slot.hasMemory = false;
  slot.memoryBytes = 0;
  slot.lockedBuffers = 0;
}

std::string PoolModel::dumpText() const {
  std::ostringstream text;
  text << "[dump] [s:" << mSensorId << "] released(" << (mReleased ? 1 : 0) << ") "
       << "(p, c, validSize, key, buffers.size()): {";
  for (SlotModel const& slot : mSlots) {
    text << "[" << slot.index << "]: (" << (slot.producerUser ? 1 : 0) << ", "
         << slot.consumerUserCount << ", " << slot.validSize << ", " << slot.key << ", "
         << slot.buffers << "), ";
  }
  text << "}";
  return text.str();
}

void PoolModel::dump(Lines& out) const {
  out.push_back({kDebug, dumpText()});
}

void PoolModel::destroy(Lines& out) {
  runQueued(out);
  std::ostringstream busy;
  for (size_t i = 0; i < mSlotCount && i < mSlots.size(); ++i) {
    SlotModel& slot = mSlots[i];
    if (slot.producerUser || slot.consumerUserCount != 0) {
      busy << "[" << i << "]: (p: " << (slot.producerUser ? 1 : 0)
           << " c:" << slot.consumerUserCount << "), ";
    }
    if (slot.buffers != 0) {
      releaseSlotBuffers(slot);
    }
  }
  if (!busy.str().empty()) {
    out.push_back({kInfo, format("[~GainMapBufPoolImp] [s:%d] buffer slots still have users "
                                 "while destructing {%s}",
                                 mSensorId, busy.str().c_str())});
  }
  // The pool lets go of its slots; only those a client holds live on.
  for (SlotModel& slot : mSlots) {
    if (slot.clientRefs == 0) {
      dropSlotObject(slot);
    }
  }
  mDestroyed = true;
}

bool PoolModel::gone() const {
  if (!mDestroyed) {
    return false;
  }
  for (SlotModel const& slot : mSlots) {
    if (slot.clientRefs != 0) {
      return false;
    }
  }
  return true;
}

void PoolModel::addSlotRef(int index) {
  ++mSlots.at(static_cast<size_t>(index)).clientRefs;
}

void PoolModel::dropSlotRef(int index) {
  SlotModel& slot = mSlots.at(static_cast<size_t>(index));
  --slot.clientRefs;
  if (mDestroyed && slot.clientRefs == 0) {
    dropSlotObject(slot);
  }
}

void PoolModel::dropSlotObject(SlotModel& slot) {
  mDroppedLocked += slot.lockedBuffers;
  releaseSlotBuffers(slot);
}

void PoolModel::addHeaps(HeapTotals& totals) const {
  totals.heapsCreated += mHeapsCreated;
  totals.droppedLocked += mDroppedLocked;
  for (SlotModel const& slot : mSlots) {
    if (slot.hasMemory) {
      ++totals.heapsAlive;
      totals.bytesAlive += slot.memoryBytes;
      totals.buffersLocked += slot.lockedBuffers;
    }
  }
}

int WorldModel::createPool(PoolParameters const& params, bool laggingAlloc, Lines& out) {
  int const id = mNextId++;
  Entry entry;
  entry.model = std::make_unique<PoolModel>(params, laggingAlloc, platform, out);
  mPools.emplace(id, std::move(entry));
  auto filed = mBySensor.find(params.sensorId);
  if (filed != mBySensor.end()) {
    int const old = filed->second;
    filed->second = id;
    if (mPools.at(old).clientRefs == 0) {
      forget(old, out);
    }
  } else {
    mBySensor.emplace(params.sensorId, id);
  }
  return id;
}

int WorldModel::getPool(int sensorId, Lines& out) const {
  auto filed = mBySensor.find(sensorId);
  if (filed == mBySensor.end()) {
    out.push_back({kError, format("[getPool] [s:%d] pool does not exist", sensorId)});
    return -1;
  }
  return filed->second;
}

int WorldModel::releasePool(int sensorId, Lines& out) {
  auto filed = mBySensor.find(sensorId);
  if (filed == mBySensor.end()) {
    out.push_back({kError, format("[releasePool] [s:%d] pool does not exist", sensorId)});
    return kBadValue;
  }
  pool(filed->second).setPoolReleased(out);
  return 0;
}

int WorldModel::resumePool(int sensorId, Lines& out) {
  auto filed = mBySensor.find(sensorId);
  if (filed == mBySensor.end()) {
    out.push_back({kError, format("[resumePool] [s:%d] pool does not exist", sensorId)});
    return kBadValue;
  }
  pool(filed->second).setPoolResume();
  return 0;
}

void WorldModel::destroyAllPools(int uniKey, Lines& out) {
  std::vector<int> erased;
  for (auto filed = mBySensor.begin(); filed != mBySensor.end();) {
    if (pool(filed->second).uniKey() == uniKey) {
      erased.push_back(filed->second);
      filed = mBySensor.erase(filed);
    } else {
      ++filed;
    }
  }
  for (int id : erased) {
    if (mPools.at(id).clientRefs == 0) {
      forget(id, out);
    }
  }
}

void WorldModel::dump(Lines& out) const {
  for (auto const& [sensor, id] : mBySensor) {
    mPools.at(id).model->dump(out);
  }
}

bool WorldModel::wouldDestroy(int poolId) const {
  return mPools.at(poolId).clientRefs == 0;
}

bool WorldModel::createWouldDestroy(int sensorId) const {
  auto filed = mBySensor.find(sensorId);
  return filed != mBySensor.end() && wouldDestroy(filed->second);
}

bool WorldModel::destroyWouldDestroy(int uniKey) const {
  for (auto const& [sensor, id] : mBySensor) {
    if (mPools.at(id).model->uniKey() == uniKey && wouldDestroy(id)) {
      return true;
    }
  }
  return false;
}

bool WorldModel::dropWouldDestroy(int poolId) const {
  return mPools.at(poolId).clientRefs == 1 && !inManager(poolId);
}

void WorldModel::addPoolRef(int poolId) {
  ++mPools.at(poolId).clientRefs;
}

void WorldModel::dropPoolRef(int poolId, Lines& out) {
  Entry& entry = mPools.at(poolId);
  --entry.clientRefs;
  if (entry.clientRefs == 0 && !inManager(poolId)) {
    forget(poolId, out);
  }
}

void WorldModel::addSlotRef(int poolId, int index) {
  pool(poolId).addSlotRef(index);
}

void WorldModel::dropSlotRef(int poolId, int index) {
  pool(poolId).dropSlotRef(index);
  pruneGone();
}

void WorldModel::forget(int poolId, Lines& out) {
  pool(poolId).destroy(out);
  pruneGone();
}

void WorldModel::pruneGone() {
  for (auto entry = mPools.begin(); entry != mPools.end();) {
    if (entry->second.model->gone()) {
      mHeapsCreatedByGone += entry->second.model->heapsCreated();
      mDroppedLockedByGone += entry->second.model->droppedLocked();
      entry = mPools.erase(entry);
    } else {
      ++entry;
    }
  }
}

void WorldModel::runQueued(Lines& out) {
  for (auto& [id, entry] : mPools) {
    if (!entry.model->destroyed()) {
      entry.model->runQueued(out);
    }
  }
}

HeapTotals WorldModel::heaps() const {
  HeapTotals totals;
  totals.heapsCreated = mHeapsCreatedByGone;
  totals.droppedLocked = mDroppedLockedByGone;
  for (auto const& [id, entry] : mPools) {
    entry.model->addHeaps(totals);
  }
  return totals;
}

bool WorldModel::inManager(int poolId) const {
  for (auto const& [sensor, id] : mBySensor) {
    if (id == poolId) {
      return true;
    }
  }
  return false;
}

std::vector<int> WorldModel::poolsOutsideManager() const {
  std::vector<int> ids;
  for (auto const& [id, entry] : mPools) {
    if (!entry.model->destroyed() && !inManager(id)) {
      ids.push_back(id);
    }
  }
  return ids;
}

}  // namespace gainmap_model
