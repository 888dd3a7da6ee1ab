#pragma once

// A single-threaded reference model of the pools as a client observes them: what each call
// returns, which error, warning and info lines it logs, what every dump prints and how much image
// memory is alive. It knows nothing of the library's code; it follows the lending protocol.
//
// Work that the library queues (creation, growth of the rotation, release, resume) is queued here
// too and runs only when the caller says the queues have run, so the model matches a library whose
// queues were drained or held between client calls.

#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "IGainMapBufPool.h"

namespace gainmap_model {

using PoolParameters = NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters;
using ImgParam = qcam::IImageBufferAllocator::ImgParam;

constexpr int kBadValue = -22;
constexpr uint32_t kSlotCountBound = PoolParameters::kSlotCountLimit;

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
  std::unordered_map<unsigned int, ImgParam> imgParams;
  uint32_t batchSize = 1;
  // Bytes of one slot's heap, as the 32-bit arithmetic gives them.
  uint32_t allocSize = 0;
  // Distinct sensor sizes, the keys a slot's per-size map gets.
  size_t distinctSizes = 0;
  // The error lines saying why the parameters cannot make a working pool; empty when they can.
  std::vector<std::string> problems;
};

Geometry computeGeometry(PoolParameters const& params, PlatformModel const& platform);

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
  // The slot's heap, when it holds one.
  bool hasMemory = false;
  uint32_t memoryBytes = 0;
  uint64_t lockedBuffers = 0;
  // Slot pointers the client keeps; they keep the slot object, and a per-size batch, alive.
  int clientRefs = 0;
};

struct HeapTotals {
  uint64_t heapsCreated = 0;
  uint64_t heapsAlive = 0;
  uint64_t bytesAlive = 0;
  uint64_t buffersLocked = 0;
  // Buffers dropped while still locked: the batches a per-size map did not keep, and per-size
  // batches going with their slot object.
  uint64_t droppedLocked = 0;
};

class PoolModel {
 public:
  PoolModel(PoolParameters const& params, bool laggingAlloc, PlatformModel const& platform,
            Lines& out);

  // The client calls; each returns what the interface returns (a slot index, -1 for an empty
  // pointer) and appends the lines the call logs, its failure dump included.
  int getProducerBuffer(Lines& out);
  int setProducerBuffer(int64_t key, int validSize, int slotIndex, Lines& out);
  int getConsumerBuffer(int64_t key, int index, Lines& out);
  int setConsumerBuffer(int slotIndex, Lines& out);
  // Waits for the queue as the library does (running what is queued), then queues the release.
  void setPoolReleased(Lines& out);
  void setPoolResume();
  void dump(Lines& out) const;

  // Runs every queued step, in posting order.
  void runQueued(Lines& out);
  // The last reference went: drain, free, report busy slots, drop the slots.
  void destroy(Lines& out);
  bool destroyed() const { return mDestroyed; }
  // Neither the pool nor any client holds anything of it any more.
  bool gone() const;

  int32_t uniKey() const { return mUniKey; }
  uint32_t maxSlotCount() const { return mMaxSlotCount; }
  uint32_t slotCount() const { return mSlotCount; }
  bool workable() const { return mGeometry.problems.empty(); }
  Geometry const& geometry() const { return mGeometry; }
  SlotModel* slot(int index);

  void addSlotRef(int index);
  void dropSlotRef(int index);
  void addHeaps(HeapTotals& totals) const;
  uint64_t heapsCreated() const { return mHeapsCreated; }
  uint64_t droppedLocked() const { return mDroppedLocked; }

 private:
  enum class Step { Create, PreAlloc, Release, Resume };
  struct Queued {
    Step step;
    int32_t slot;
  };

  void runCreate(Lines& out);
  void runPreAlloc(int32_t index, Lines& out);
  void runRelease(Lines& out);
  void runResume(Lines& out);
  void allocSlotBuffers(SlotModel& slot, int index, Lines& out);
  static void releaseSlotBuffers(SlotModel& slot);
  // The slot object goes; a per-size batch goes with it without being unlocked.
  void dropSlotObject(SlotModel& slot);
  int preAllocOneSlot(Lines& out);
  bool isLending(char const* func, Lines& out) const;
  // The pool's slot at `index` for a returning user, or null (logged).
  SlotModel* slotToReturn(char const* func, int index, Lines& out);
  std::string dumpText() const;

  int32_t mSensorId;
  int32_t mUniKey;
  bool mLaggingAlloc;
  PlatformModel const& mPlatform;
  Geometry mGeometry;
  uint32_t mSlotCount;
  uint32_t mMaxSlotCount;
  size_t mCursor = 0;
  int32_t mPreAllocIndex = -1;
  bool mReleased = false;
  bool mInitialized = false;
  bool mDestroyed = false;
  std::vector<SlotModel> mSlots;
  std::deque<Queued> mQueue;
  uint64_t mHeapsCreated = 0;
  uint64_t mDroppedLocked = 0;
};

// The manager and every pool it made, with the references the client holds. Pools are named by
// the order of their creation.
class WorldModel {
 public:
  PlatformModel platform;

  // Returns the new pool's id. A replaced pool that nobody holds is destroyed.
  int createPool(PoolParameters const& params, bool laggingAlloc, Lines& out);
  // The pool filed for the sensor, or -1.
  int getPool(int sensorId, Lines& out) const;
  int releasePool(int sensorId, Lines& out);
  int resumePool(int sensorId, Lines& out);
  void destroyAllPools(int uniKey, Lines& out);
  void dump(Lines& out) const;

  bool filed(int sensorId) const { return mBySensor.count(sensorId) != 0; }
  // Whether a manager call would destroy a pool (and so wait for its queue).
  bool createWouldDestroy(int sensorId) const;
  bool destroyWouldDestroy(int uniKey) const;
  bool dropWouldDestroy(int poolId) const;

  void addPoolRef(int poolId);
  void dropPoolRef(int poolId, Lines& out);
  void addSlotRef(int poolId, int index);
  void dropSlotRef(int poolId, int index);

  void runQueued(Lines& out);
  HeapTotals heaps() const;

  PoolModel& pool(int poolId) { return *mPools.at(poolId).model; }
  bool inManager(int poolId) const;
  // Live pools that only the client's references keep.
  std::vector<int> poolsOutsideManager() const;

 private:
  struct Entry {
    std::unique_ptr<PoolModel> model;
    int clientRefs = 0;
  };
  bool wouldDestroy(int poolId) const;
  void forget(int poolId, Lines& out);
  void pruneGone();

  std::map<int, Entry> mPools;
  std::map<int, int> mBySensor;
  int mNextId = 0;
  // Heaps made by pools already forgotten.
  uint64_t mHeapsCreatedByGone = 0;
  uint64_t mDroppedLockedByGone = 0;
};

}  // namespace gainmap_model
