#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "camsys/ImageBuffer.h"
#include "camsys/Types.h"

#define GAINMAP_EXPORT __attribute__((visibility("default")))

// Threads, blocking and failures. Every operation may be called from any client thread. None
// throws; a refusal is an empty pointer or -22 (-EINVAL), the only failure value, and is logged.
// The pool's memory work (allocation, growth, release, resume) runs on the pool's own serial task
// queue; a caller only waits for that queue where an operation below says so, and such an
// operation must never run on that queue. The manager's lock comes before a pool's locks, and no
// pool operation calls the manager.
//
// Ownership.
// - The manager holds one reference to each pool it files; getPool hands out more. A pool that
//   createPool replaced or destroyAllPools removed lives on, out of the manager's reach, until
//   its last holder drops it; the destructor then runs on that holder's thread.
// - A slot is the pool's own object, lent again and again. A client may keep its pointer after
//   handing the slot back, and a slot outlives its pool, but without buffers: the pool's
//   destructor frees the buffers of every slot, including slots still lent.
// - A client that keeps using a buffer after its pool is replaced or destroyed must hold its own
//   reference to that buffer (a copy of its entry in `buffers`).
// - A frame does not survive a release: the release frees a slot's buffers once its last user
//   has returned it, and the resume gives the slot fresh memory. The slot keeps its key, so a
//   consumer quoting a frame from before the release may be lent the slot with that fresh memory,
//   which holds nothing of the frame.
// - A pool with several sensor modes keeps each slot's buffers in `buffersBySize`; `buffers`
//   stays empty. The lending checks look at `buffers` alone, so in such a pool setProducerBuffer
//   accepts only validSize 0, getConsumerBuffer lends no slot, and the destructor leaves those
//   buffers to the slot object, which frees them when its last holder drops it.

namespace NSCam {
namespace v3 {
namespace Utils {

// A pool of gain-map buffer slots for one sensor. One producer takes slots in round-robin order and
// stamps each with its frame's timestamp; any number of consumers then borrow the slot by index,
// quoting that timestamp.
class GAINMAP_EXPORT IGainMapBufPool {
 public:
  // Orders sizes by width, then height, both descending.
  struct MSizeComp {
    bool operator()(NSCam::MSize const& a, NSCam::MSize const& b) const {
      return a.w > b.w || (a.w == b.w && a.h > b.h);
    }
  };

  struct BufSlot {
    int32_t index = -1;
    // Number of buffers of the batch that hold data.
    int32_t validSize = 0;
    // The batch, when the pool serves one sensor mode.
    std::vector<std::shared_ptr<qcam::IImageBuffer>> buffers;
    // The batch per sensor size, when the pool serves several sensor modes.
    std::map<NSCam::MSize, std::vector<std::shared_ptr<qcam::IImageBuffer>>, MSizeComp>
        buffersBySize;
    bool useSizeMap = false;
    // Free for clients; the pool only zeroes it.
    int32_t reserved[2] = {0, 0};
  };

  // Runs when the last reference goes, on that holder's thread: waits for every task queued on
  // the pool's queue, then frees the buffers of every slot of the rotation (lent or not) and
  // logs the slots still lent. Must not run on the pool's queue.
  virtual ~IGainMapBufPool() = default;

  // The producer's call, once per frame; one producer per pool. Never waits for memory, but
  // takes the pool's lock, which the pool's queue holds while it allocates or frees a slot.
  // Returns the next slot of the rotation, lent to the producer, or empty when:
  // - the pool's creation has not finished (no dump);
  // - the pool is released, or has no slot (slotCount 0, or unworkable parameters);
  // - the slot's buffers are still being allocated;
  // - the producer still holds the slot;
  // - consumers still hold it: the pool then grows the rotation by one slot, up to
  //   getMaxSlotCount(), and the producer meets the same slot again on its next call.
  // Every refusal after creation also dumps the pool.
  virtual std::shared_ptr<BufSlot> getProducerBuffer() = 0;
  // The producer hands back the slot it took, stamped with the frame's timestamp `key` and the
  // number of filled buffers. Only `slot->index` is read. Waits only for the slot's lock, and,
  // when the pool was released meanwhile, frees the slot's buffers on the caller's thread.
  // Returns 0: consumers may now borrow the slot for `key`. Returns -22 (and dumps) when the
  // index is outside the rotation, `validSize` is negative or above the size of `buffers`, or
  // the slot is not held by the producer or has consumers.
  virtual int setProducerBuffer(long const& key, int const& validSize,
                                std::shared_ptr<BufSlot> slot) = 0;
  // A consumer borrows slot `index` holding frame `key`; any number of consumers, on any threads.
  // Waits only for the slot's lock. Returns the slot, lent once more, or empty when the pool's
  // creation has not finished (no dump), the pool is released, `index` is outside the rotation,
  // the producer holds the slot, the slot holds another frame (the producer has taken it again),
  // or the slot has no `buffers`. Every refusal after creation also dumps the pool.
  virtual std::shared_ptr<BufSlot> getConsumerBuffer(long const& key, int index) = 0;
  // Gives a borrowed slot back, exactly once per successful getConsumerBuffer. Only
  // `slot->index` is read. Waits only for the slot's lock; the last consumer of a released
  // pool's slot frees its buffers on its own thread. Returns 0, or -22 (and dumps) when the index
  // is outside the rotation, the producer holds the slot or no consumer holds it.
  virtual int setConsumerBuffer(std::shared_ptr<BufSlot> slot) = 0;
  // Marks the pool released. Blocks until every task queued on the pool's queue before the call
  // has run (the creation, a growth, a resume, each as long as its allocations take), then queues
  // the release and returns without waiting for it. The release frees every slot that nobody
  // holds; a lent slot is freed by whoever returns it last. Lending is refused from the moment
  // the release has run. Returns 0.
  virtual int setPoolReleased() = 0;
  // Queues the resume and returns at once: it gives every slot of the rotation that has none its
  // buffers again, then lets lending go on. Returns 0.
  virtual int setPoolResume() = 0;
  // The gain-map image of each sensor mode. The four accessors below take no lock: their values
  // are fixed when the pool is made.
  virtual std::unordered_map<unsigned int, qcam::IImageBufferAllocator::ImgParam>
  getPoolImgParams() = 0;
  // The creating client's key.
  virtual int getUniKey() = 0;
  // The size the rotation may grow to: twice the initial slot count, 0 for unworkable parameters.
  virtual uint32_t getMaxSlotCount() = 0;
  // Buffers per slot, at least 1.
  virtual uint32_t getBufBatchSize() = 0;
  // Logs the pool's state as one line, taking the pool's and each slot's lock in turn.
  virtual void dump() = 0;
};

// The process-wide registry of pools, one per sensor.
class GAINMAP_EXPORT IGainMapBufPoolManager {
 public:
  struct PoolParameters {
    int32_t sensorId = 0;
    // Sensor output size per sensor mode; at least one entry.
    std::unordered_map<uint32_t, NSCam::MSize> sensorSizes;
    // Buffers per slot; 0 and 1 both mean 1.
    uint32_t batchSize = 0;
    // Slots in the rotation at the start; the rotation may grow to twice this.
    uint32_t slotCount = 0;
    // The creating client's key for destroyAllPools.
    int32_t uniKey = 0;
  };

  // The process's one manager, made by the first call; never empty. It lives until the process
  // exits, so the reference may be kept.
  static std::shared_ptr<IGainMapBufPoolManager> getInstance();

  virtual ~IGainMapBufPoolManager() = default;

  // Every operation below holds the manager's lock for its whole work, so each one also waits
  // for any other manager operation in progress, including the queue waits named here.

  // Creates the sensor's pool and files it under `params.sensorId`, replacing any pool filed
  // there. Returns without waiting for memory: the pool makes its slots and, unless
  // `laggingAlloc`, allocates the first `slotCount` of them on its own queue; until then it
  // refuses lending. With `laggingAlloc` the pool starts released and takes no memory before its
  // first resume. A replaced pool that no client holds is destroyed here, which waits for its
  // queue. Unworkable parameters (no sensor mode, a width or height that is not positive,
  // `slotCount` of 1024 or more, a slot size that is 0, reaches 2 GiB or overflows) are logged,
  // one error per field, and give a pool without slots: getMaxSlotCount() answers 0,
  // getProducerBuffer refuses with "pool has no slot to lend", getConsumerBuffer and both set
  // calls refuse every index; getPoolImgParams() and getBufBatchSize() keep their values.
  // Returns 0, in every case.
  virtual int createPool(PoolParameters const& params, bool laggingAlloc) = 0;
  // The sensor's pool, or empty (logged) when none is filed under `sensorId`.
  virtual std::shared_ptr<IGainMapBufPool> getPool(int sensorId) = 0;
  // The pool's setPoolResume(): returns at once. 0, or -22 (logged) when the sensor has no pool.
  virtual int resumePool(int sensorId) = 0;
  // The pool's setPoolReleased(): waits for the pool's queue while holding the manager's lock.
  // 0, or -22 (logged) when the sensor has no pool.
  virtual int releasePool(int sensorId) = 0;
  // Removes every pool created with `uniKey`. Each removed pool that no client holds is destroyed
  // here, waiting for its queue while the manager's lock is held; a held one lives on until its
  // last holder drops it. Returns 0, also when nothing matched.
  virtual int destroyAllPools(int const& uniKey) = 0;
  // Every pool's dump(), under the manager's lock.
  virtual void dump() = 0;
};

}  // namespace Utils
}  // namespace v3
}  // namespace NSCam
