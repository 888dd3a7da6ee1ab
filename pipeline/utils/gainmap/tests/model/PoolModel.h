#pragma once

// A single-threaded reference model of the pools as a client observes them: what each call
// returns, which error, warning and info lines it logs, what every dump prints and how much image
// memory is alive. It knows nothing of the library's code; it follows the lending protocol.
//
// Work that the library queues (creation, growth of the rotation, release, resume) is queued here
// too and runs only when the caller says the queues have run, so the model matches a library whose
// queues were drained or held between client calls.

#include <algorithm>
#include <cstdarg>
#include <cstdint>
#include <cstdio>
#include <deque>
#include <functional>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"

namespace gainmap_model {

using PoolParameters = NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters;

constexpr int kBadValue = -22;
constexpr uint32_t kSlotCountBound = PoolParameters::kSlotCountLimit;
constexpr int32_t kGainMapWidth = 576;
// A slot's block must be allocatable as one 32-bit signed size.
constexpr uint64_t kMaxBlockBytes = 0x7fffffff;

// Logger-sink levels of the message classes the model predicts.
constexpr int kError = 1;
constexpr int kWarning = 2;
constexpr int kInfo = 3;
constexpr int kDebug = 5;

// One line as the logger sink receives it.
struct Line {
  int level;
  std::string text;
};
using Lines = std::vector<Line>;

inline std::string format(char const* pattern, ...) __attribute__((format(printf, 1, 2)));
inline std::string format(char const* pattern, ...) {
  char text[2048];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(text, sizeof(text), pattern, args);
  va_end(args);
  return text;
}

// The platform's answers that shape a pool; the caller changes them only while no work is queued
// that reads them.
struct PlatformModel {
  int32_t gainMapFormat;
  int32_t bitsPerPixel;
  // lockBuf fails for this buffer of every batch; -1 for never.
  int failLockAt = -1;
};

// What the constructor works out from the parameters.
struct Geometry {
  size_t modes = 0;
  uint32_t batchSize = 1;
  // Bytes of one slot's heap, as the 32-bit arithmetic gives them.
  uint32_t allocSize = 0;
  // Distinct sensor sizes, the keys a slot's per-size map gets.
  size_t distinctSizes = 0;
  // The error lines saying why the parameters cannot make a working pool; empty when they can.
  std::vector<std::string> problems;
};

// Rows of a 576-pixel-wide map with the sensor's aspect ratio, rounded up to an even count, in
// the camera stack's wrapping 32-bit arithmetic.
inline uint32_t gainMapRows(NSCam::MSize const& size) {
  if (size.w == 0) {
    return 0;
  }
  auto const product = static_cast<int32_t>(static_cast<uint32_t>(size.h) * 576u);
  auto const q = static_cast<uint32_t>(static_cast<int64_t>(product) / size.w);
  return (q + 1u) & ~1u;
}

// A slot's heap holds a batch of the mode with the tallest gain map (the first such in the map's
// order), which has the smallest aspect ratio.
inline Geometry computeGeometry(PoolParameters const& params, PlatformModel const& platform) {
  Geometry g;
  g.modes = params.sensorSizes.size();
  g.batchSize = params.batchSize > 1 ? params.batchSize : 1;
  uint32_t const stride = 72u * static_cast<uint32_t>(platform.bitsPerPixel);
  std::set<std::pair<int32_t, int32_t>> distinct;
  unsigned int worstMode = 0;
  NSCam::MSize worstSize;
  // Sizes that are not positive make the pool unworkable, whichever mode they make the worst.
  float worstRatio = std::numeric_limits<float>::infinity();
  int32_t const sensor = params.sensorId;
  if (params.sensorSizes.empty()) {
    g.problems.push_back(format("[isWorkable] [s:%d] sensorSizes has no sensor mode", sensor));
  }
  for (auto const& [mode, size] : params.sensorSizes) {
    distinct.emplace(size.w, size.h);
    float const ratio = static_cast<float>(size.w) / static_cast<float>(size.h);
    if (ratio < worstRatio) {
      worstMode = mode;
      worstSize = size;
      worstRatio = ratio;
    }
    if (size.w <= 0 || size.h <= 0) {
      g.problems.push_back(
          format("[isWorkable] [s:%d] sensorSizes[%u] (%dx%d) is not a positive size", sensor, mode,
                 size.w, size.h));
    }
  }
  g.distinctSizes = distinct.size();
  if (params.slotCount >= kSlotCountBound) {
    g.problems.push_back(format("[isWorkable] [s:%d] slotCount(%u) is not below %u", sensor,
                                params.slotCount, kSlotCountBound));
  }
  g.allocSize = g.modes != 0 ? gainMapRows(worstSize) * stride * g.batchSize : 0;
  if (g.problems.empty()) {
    // The block without any wrapping, against what the 32-bit geometry gave.
    unsigned __int128 const rows =
        (static_cast<uint64_t>(worstSize.h) * kGainMapWidth / static_cast<uint64_t>(worstSize.w) +
         1) &
        ~uint64_t{1};
    unsigned __int128 const wide = rows * stride * g.batchSize;
    uint64_t const exact = wide > UINT64_MAX ? UINT64_MAX : static_cast<uint64_t>(wide);
    if (exact == 0 || exact > kMaxBlockBytes || exact != g.allocSize) {
      g.problems.push_back(format(
          "[isWorkable] [s:%d] sensorSizes[%u] (%dx%d) with batchSize(%u) gives slots of %llu "
          "bytes, %u in 32 bits; a slot takes 1 to %llu bytes",
          sensor, worstMode, worstSize.w, worstSize.h, params.batchSize,
          static_cast<unsigned long long>(exact), g.allocSize,
          static_cast<unsigned long long>(kMaxBlockBytes)));
    }
  }
  return g;
}

struct SlotModel {
  int32_t index = -1;
  int32_t validSize = 0;
  int64_t key = 0;
  bool producerUser = false;
  size_t consumerUserCount = 0;
  bool ready = false;
  bool useSizeMap = false;
  size_t buffers = 0;
  size_t sizeKeys = 0;
  // The bytes of the slot's heap; 0 without one (a workable pool's heap is never empty).
  uint32_t memoryBytes = 0;
  uint64_t lockedBuffers = 0;
  // Slot pointers the client keeps; they keep the slot object, and a per-size batch, alive.
  int clientRefs = 0;

  bool busy() const { return producerUser || consumerUserCount != 0; }
  void releaseBuffers() {
    buffers = 0;
    sizeKeys = 0;
    memoryBytes = 0;
    lockedBuffers = 0;
  }
};

// Heaps created and alive, bytes alive, buffers locked and dropped while locked, as the host's
// image-buffer library counts them.
using HeapTotals = qelcam::host::HeapStats;

class PoolModel {
 public:
  // `heaps` counts the heaps this pool creates and the locked buffers it drops.
  PoolModel(PoolParameters const& params, bool laggingAlloc, PlatformModel const& platform,
            HeapTotals& heaps, Lines& out)
      : mSensorId(params.sensorId),
        mUniKey(params.uniKey),
        mLaggingAlloc(laggingAlloc),
        mPlatform(platform),
        mHeaps(heaps),
        mGeometry(computeGeometry(params, platform)),
        mSlotCount(workable() ? params.slotCount : 0),
        mMaxSlotCount(2 * mSlotCount) {
    for (std::string const& problem : mGeometry.problems) {
      out.push_back({kError, problem});
    }
    mQueue.push_back([this](Lines& o) { runCreate(o); });
  }

  // The client calls; each returns what the interface returns (a slot index, -1 for an empty
  // pointer) and appends the lines the call logs, its failure dump included.
  int getProducerBuffer(Lines& out) {
    int const lent = isLending("onGetProducerBuffer", out) ? lendToProducer(out) : -1;
    if (lent < 0 && mInitialized) {
      dump(out);
    }
    return lent;
  }

  int setProducerBuffer(int64_t key, int validSize, int index, Lines& out) {
    return takeBack("onSetProducerBuffer", index, out, [&](SlotModel& slot, char const* func) {
      if (static_cast<uint64_t>(static_cast<int64_t>(validSize)) > slot.buffers) {
        say(out, kError, func,
            format("user validSize(%d) exceeds slot buffer num(%zu)", validSize, slot.buffers),
            slot.index);
        return kBadValue;
      }
      if (!slot.producerUser || slot.consumerUserCount != 0) {
        say(out, kError, func,
            format("cannot set producer buffer (p:%d, c:%zu)", slot.producerUser ? 1 : 0,
                   slot.consumerUserCount),
            slot.index);
        return kBadValue;
      }
      slot.validSize = validSize;
      slot.producerUser = false;
      slot.key = key;
      if (mReleased) {
        slot.releaseBuffers();
      }
      return 0;
    });
  }

  int getConsumerBuffer(int64_t key, int index, Lines& out) {
    int const lent = isLending("onGetConsumerBuffer", out) ? lendToConsumer(key, index, out) : -1;
    if (lent < 0 && mInitialized) {
      dump(out);
    }
    return lent;
  }

  int setConsumerBuffer(int index, Lines& out) {
    return takeBack("onSetConsumerBuffer", index, out, [&](SlotModel& slot, char const* func) {
      if (slot.producerUser || slot.consumerUserCount == 0) {
        char const* why = slot.producerUser ? "has producer user" : "has no consumer user";
        say(out, kError, func,
            format("slot %s (p:%d, c:%zu)", why, slot.producerUser ? 1 : 0, slot.consumerUserCount),
            slot.index);
        return kBadValue;
      }
      if (--slot.consumerUserCount == 0 && mReleased) {
        slot.releaseBuffers();
      }
      return 0;
    });
  }

  // Queues the release or the resume; a release first waits for the queue as the library does
  // (running what is queued).
  void releaseOrResume(bool release, Lines& out) {
    if (release) {
      runQueued(out);
    }
    mQueue.push_back([this, release](Lines& o) { release ? runRelease(o) : runResume(o); });
  }

  void dump(Lines& out) const {
    std::ostringstream text;
    text << "[dump] [s:" << mSensorId << "] released(" << (mReleased ? 1 : 0) << ") "
         << "(p, c, validSize, key, buffers.size()): {";
    for (SlotModel const& slot : mSlots) {
      text << "[" << slot.index << "]: (" << (slot.producerUser ? 1 : 0) << ", "
           << slot.consumerUserCount << ", " << slot.validSize << ", " << slot.key << ", "
           << slot.buffers << "), ";
    }
    text << "}";
    out.push_back({kDebug, text.str()});
  }

  // Runs every queued step, in posting order.
  void runQueued(Lines& out) {
    while (!mQueue.empty()) {
      auto const next = std::move(mQueue.front());
      mQueue.pop_front();
      next(out);
    }
  }

  // The last reference went: drain, free, report busy slots, drop the slots.
  void destroy(Lines& out) {
    runQueued(out);
    std::ostringstream busy;
    for (size_t i = 0; i < mSlotCount && i < mSlots.size(); ++i) {
      SlotModel& slot = mSlots[i];
      if (slot.busy()) {
        busy << "[" << i << "]: (p: " << (slot.producerUser ? 1 : 0)
             << " c:" << slot.consumerUserCount << "), ";
      }
      if (slot.buffers != 0) {
        slot.releaseBuffers();
      }
    }
    if (!busy.str().empty()) {
      say(out, kInfo, "~GainMapBufPoolImp",
          "buffer slots still have users while destructing {" + busy.str() + "}");
    }
    // The pool lets go of its slots; only those a client holds live on.
    for (SlotModel& slot : mSlots) {
      if (slot.clientRefs == 0) {
        dropSlotObject(slot);
      }
    }
    mDestroyed = true;
  }
  bool destroyed() const { return mDestroyed; }

  int32_t uniKey() const { return mUniKey; }
  uint32_t maxSlotCount() const { return mMaxSlotCount; }
  uint32_t slotCount() const { return mSlotCount; }
  bool workable() const { return mGeometry.problems.empty(); }
  SlotModel* slot(int index) {
    bool const inside = index >= 0 && static_cast<size_t>(index) < mSlots.size();
    return inside ? &mSlots[static_cast<size_t>(index)] : nullptr;
  }

  void addSlotRef(int index) { ++mSlots.at(static_cast<size_t>(index)).clientRefs; }
  void dropSlotRef(int index) {
    SlotModel& slot = mSlots.at(static_cast<size_t>(index));
    if (--slot.clientRefs == 0 && mDestroyed) {
      dropSlotObject(slot);
    }
  }
  void addAliveHeaps(HeapTotals& totals) const {
    for (SlotModel const& slot : mSlots) {
      totals.heapsAlive += slot.memoryBytes != 0 ? 1 : 0;
      totals.bytesAlive += slot.memoryBytes;
      totals.buffersLocked += slot.memoryBytes != 0 ? slot.lockedBuffers : 0;
    }
  }

 private:
  // Appends "[func] [s:N] text", or "[func] [s:N][i:I] text" for a slot.
  void say(Lines& out, int level, char const* func, std::string const& text, long slot = -1) const {
    std::string const where = slot < 0 ? format("[%s] [s:%d] ", func, mSensorId)
                                       : format("[%s] [s:%d][i:%ld] ", func, mSensorId, slot);
    out.push_back({level, where + text});
  }

  bool isLending(char const* func, Lines& out) const {
    if (!mInitialized) {
      say(out, kWarning, func, "pool has not been initialized");
    } else if (mReleased) {
      say(out, kError, func, "pool has been marked released");
    }
    return mInitialized && !mReleased;
  }

  int lendToProducer(Lines& out) {
    char const* func = "onGetProducerBuffer";
    if (mSlotCount == 0) {
      say(out, kError, func, "pool has no slot to lend");
      return -1;
    }
    SlotModel& slot = mSlots[mCursor];
    if (!slot.ready) {
      say(out, kWarning, func, "slot is not ready", static_cast<long>(mCursor));
      return -1;
    }
    if (slot.producerUser) {
      say(out, kError, func, "still has producer user", slot.index);
      return -1;
    }
    if (slot.consumerUserCount != 0) {
      say(out, kWarning, func, format("still has consumer users (c:%zu)", slot.consumerUserCount),
          slot.index);
      if (mPreAllocIndex == -1) {
        preAllocOneSlot(out);
      }
      return -1;
    }
    slot.producerUser = true;
    if (mPreAllocIndex != -1 && static_cast<size_t>(mPreAllocIndex) == mCursor) {
      if (mSlots[0].consumerUserCount == 0) {
        mPreAllocIndex = -1;
      } else {
        preAllocOneSlot(out);
      }
    }
    int const lent = static_cast<int>(mCursor);
    mCursor = mCursor + 1 >= mSlotCount ? 0 : mCursor + 1;
    return lent;
  }

  int lendToConsumer(int64_t key, int index, Lines& out) {
    char const* func = "onGetConsumerBuffer";
    if (index < 0 || static_cast<uint32_t>(index) >= mSlotCount) {
      say(out, kError, func,
          format("request invalid index(%d). Number of slots(%d)", index,
                 static_cast<int>(mSlotCount)));
      return -1;
    }
    SlotModel& slot = mSlots[static_cast<size_t>(index)];
    if (slot.producerUser) {
      say(out, kError, func, "slot has producer user", slot.index);
      return -1;
    }
    if (slot.key != key) {
      say(out, kError, func,
          format("timestamp mismatch, slot timestamp: %ldconsumer timestamp: %ld",
                 static_cast<long>(slot.key), static_cast<long>(key)),
          slot.index);
      return -1;
    }
    if (slot.buffers == 0) {
      return -1;
    }
    ++slot.consumerUserCount;
    return index;
  }

  void preAllocOneSlot(Lines& out) {
    if (mSlotCount >= mMaxSlotCount) {
      say(out, kError, "preAllocOneSlotLocked",
          format("slot count(%d) reach max(%d), stop alloc new slot", static_cast<int>(mSlotCount),
                 static_cast<int>(mMaxSlotCount)));
      return;
    }
    int32_t const index = static_cast<int32_t>(mSlotCount++);
    mPreAllocIndex = index;
    mQueue.push_back([this, index](Lines& o) {
      // A resume queued ahead has given the slot its memory; a release leaves it to the next
      // resume.
      if (!mSlots[static_cast<size_t>(index)].ready && !mReleased) {
        initSlot(index);
        allocSlotBuffers(index, o);
      }
    });
  }

  // A user hands a slot back: the index and state checks common to both set calls, then `check`
  // on the pool's slot; any refusal dumps.
  template <class Check>
  int takeBack(char const* func, int index, Lines& out, Check check) {
    int status = kBadValue;
    if (index < 0 || static_cast<uint32_t>(index) >= mSlotCount) {
      say(out, kError, func,
          format("invalid slot index(%d). Number of slots(%d)", index,
                 static_cast<int>(mSlotCount)));
    } else if (!mInitialized) {
      say(out, kWarning, func, "pool has not been initialized");
    } else {
      status = check(mSlots[static_cast<size_t>(index)], func);
    }
    if (status != 0) {
      dump(out);
    }
    return status;
  }

  void runCreate(Lines& out) {
    mSlots.assign(mMaxSlotCount, SlotModel());
    for (int32_t i = 0; static_cast<uint32_t>(i) < mMaxSlotCount; ++i) {
      initSlot(i);
      if (!mLaggingAlloc && static_cast<uint32_t>(i) < mSlotCount) {
        allocSlotBuffers(i, out);
      }
    }
    mReleased = mLaggingAlloc;
    mInitialized = true;
    dump(out);
  }

  void runRelease(Lines& out) {
    if (mReleased) {
      say(out, kWarning, "operator()", "has already been marked released");
      return;
    }
    mReleased = true;
    for (SlotModel& slot : mSlots) {
      if (!slot.busy()) {
        slot.releaseBuffers();
      }
    }
  }

  void runResume(Lines& out) {
    if (!mReleased) {
      say(out, kWarning, "operator()", "has already been set resume");
      return;
    }
    for (size_t i = 0; i < mSlotCount; ++i) {
      SlotModel const& slot = mSlots[i];
      if (slot.buffers == 0) {
        allocSlotBuffers(static_cast<int32_t>(i), out);
      } else {
        say(out, kInfo, "operator()",
            format("slot still has buffer, size:%zu (p:%d, c:%zu)", slot.buffers,
                   slot.producerUser ? 1 : 0, slot.consumerUserCount),
            static_cast<long>(i));
      }
    }
    mReleased = false;
  }

  // A new slot object: its position, and a whole batch as its valid size.
  void initSlot(int32_t index) {
    mSlots[static_cast<size_t>(index)].index = index;
    mSlots[static_cast<size_t>(index)].validSize = static_cast<int32_t>(mGeometry.batchSize);
  }

  void allocSlotBuffers(int32_t index, Lines& out) {
    SlotModel& slot = mSlots[static_cast<size_t>(index)];
    size_t const modes = mGeometry.modes;
    uint32_t const batch = mGeometry.batchSize;
    slot.useSizeMap = modes > 1;
    ++mHeaps.heapsCreated;
    bool const lockFails =
        mPlatform.failLockAt >= 0 && static_cast<uint32_t>(mPlatform.failLockAt) < batch;
    for (size_t m = 0; lockFails && m < modes; ++m) {
      out.push_back({kError, format("[allocSlotBuffersLocked] [s:%d][i:%d][b:%zu] lockBuf failed",
                                    mSensorId, index, static_cast<size_t>(mPlatform.failLockAt))});
    }
    uint64_t const lockedPerBatch = batch - (lockFails ? 1 : 0);
    // Sizes already in the per-size map keep their buffers; the new heap then goes at once, with
    // the batches nobody kept.
    bool const keepsOld = slot.useSizeMap && slot.sizeKeys != 0;
    if (slot.useSizeMap) {
      mHeaps.buffersDroppedLocked +=
          lockedPerBatch * (modes - (keepsOld ? 0 : mGeometry.distinctSizes));
    } else {
      mHeaps.buffersDroppedLocked += slot.lockedBuffers;
    }
    if (!keepsOld) {
      slot.buffers = slot.useSizeMap ? 0 : batch;
      slot.sizeKeys = slot.useSizeMap ? mGeometry.distinctSizes : 0;
      slot.lockedBuffers = lockedPerBatch * (slot.useSizeMap ? mGeometry.distinctSizes : 1);
      slot.memoryBytes = mGeometry.allocSize;
    }
    slot.ready = true;
  }

  // The slot object goes; a per-size batch goes with it without being unlocked.
  void dropSlotObject(SlotModel& slot) {
    mHeaps.buffersDroppedLocked += slot.lockedBuffers;
    slot.releaseBuffers();
  }

  int32_t mSensorId;
  int32_t mUniKey;
  bool mLaggingAlloc;
  PlatformModel const& mPlatform;
  HeapTotals& mHeaps;
  Geometry mGeometry;
  uint32_t mSlotCount;
  uint32_t mMaxSlotCount;
  size_t mCursor = 0;
  int32_t mPreAllocIndex = -1;
  bool mReleased = false;
  bool mInitialized = false;
  bool mDestroyed = false;
  std::vector<SlotModel> mSlots;
  std::deque<std::function<void(Lines&)>> mQueue;
};

// The manager and every pool it made, with the references the client holds. Pools are named by
// the order of their creation.
class WorldModel {
 public:
  PlatformModel platform;

  // Files a new pool, named by the order of creation; a replaced pool that nobody holds is
  // destroyed.
  void createPool(PoolParameters const& params, bool laggingAlloc, Lines& out) {
    int const id = static_cast<int>(mPools.size());
    mPools.push_back({std::make_unique<PoolModel>(params, laggingAlloc, platform, mMade, out), 0});
    auto [filed, fresh] = mBySensor.emplace(params.sensorId, id);
    if (!fresh) {
      int const old = std::exchange(filed->second, id);
      if (refs(old) == 0) {
        pool(old).destroy(out);
      }
    }
  }
  // The pool filed for the sensor, or -1 (logged).
  int getPool(int sensorId, Lines& out, char const* func = "getPool") const {
    auto filed = mBySensor.find(sensorId);
    if (filed == mBySensor.end()) {
      out.push_back({kError, format("[%s] [s:%d] pool does not exist", func, sensorId)});
      return -1;
    }
    return filed->second;
  }
  int releaseOrResumePool(bool release, int sensorId, Lines& out) {
    int const id = getPool(sensorId, out, release ? "releasePool" : "resumePool");
    if (id >= 0) {
      pool(id).releaseOrResume(release, out);
    }
    return id >= 0 ? 0 : kBadValue;
  }
  void destroyAllPools(int uniKey, Lines& out) {
    std::vector<int> const erased = filedWithKey(uniKey);
    for (auto filed = mBySensor.begin(); filed != mBySensor.end();) {
      bool const erase = pool(filed->second).uniKey() == uniKey;
      filed = erase ? mBySensor.erase(filed) : std::next(filed);
    }
    for (int id : erased) {
      if (refs(id) == 0) {
        pool(id).destroy(out);
      }
    }
  }
  void dump(Lines& out) const {
    for (auto const& [sensor, id] : mBySensor) {
      mPools[static_cast<size_t>(id)].model->dump(out);
    }
  }

  void addPoolRef(int poolId) { ++mPools[static_cast<size_t>(poolId)].clientRefs; }
  void dropPoolRef(int poolId, Lines& out) {
    if (--mPools[static_cast<size_t>(poolId)].clientRefs == 0 && !inManager(poolId)) {
      pool(poolId).destroy(out);
    }
  }

  void runQueued(Lines& out) {
    for (Entry& entry : mPools) {
      if (!entry.model->destroyed()) {
        entry.model->runQueued(out);
      }
    }
  }
  HeapTotals heaps() const {
    HeapTotals totals = mMade;
    for (Entry const& entry : mPools) {
      entry.model->addAliveHeaps(totals);
    }
    return totals;
  }

  PoolModel& pool(int poolId) { return *mPools[static_cast<size_t>(poolId)].model; }
  // Live pools that only the client's references keep.
  std::vector<int> poolsOutsideManager() const {
    std::vector<int> ids;
    for (size_t id = 0; id < mPools.size(); ++id) {
      if (!mPools[id].model->destroyed() && !inManager(static_cast<int>(id))) {
        ids.push_back(static_cast<int>(id));
      }
    }
    return ids;
  }

 private:
  struct Entry {
    std::unique_ptr<PoolModel> model;
    int clientRefs;
  };

  int refs(int poolId) const { return mPools[static_cast<size_t>(poolId)].clientRefs; }
  bool inManager(int poolId) const {
    return std::any_of(mBySensor.begin(), mBySensor.end(),
                       [poolId](auto const& filed) { return filed.second == poolId; });
  }
  std::vector<int> filedWithKey(int uniKey) const {
    std::vector<int> ids;
    for (auto const& [sensor, id] : mBySensor) {
      if (mPools[static_cast<size_t>(id)].model->uniKey() == uniKey) {
        ids.push_back(id);
      }
    }
    return ids;
  }

  // Every pool made, destroyed or not: a destroyed one holds only what the client still holds.
  std::vector<Entry> mPools;
  std::map<int, int> mBySensor;
  // Heaps created and locked buffers dropped by every pool.
  HeapTotals mMade{};
};

}  // namespace gainmap_model
