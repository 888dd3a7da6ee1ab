#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <unordered_map>
#include <vector>

#include "camsys/ImageBuffer.h"
#include "camsys/Types.h"

#define GAINMAP_EXPORT __attribute__((visibility("default")))

namespace NSCam {
namespace v3 {
namespace Utils {

// A pool of gain-map buffer slots for one sensor. One producer takes slots in round-robin order and
// stamps each with its frame's timestamp; any number of consumers then borrow the slot by index,
// quoting that timestamp. Every call may come from any thread.
//
// Release and destruction:
// - A frame does not survive a release: a slot nobody holds loses its buffers when the release
//   runs, a held slot when its last user hands it back, and the resume gives it new, unwritten
//   ones.
// - A slot keeps its timestamp and valid size through a release, so a consumer that quotes a
//   frame from before the release may be lent the slot's fresh memory after the resume.
// - Destroying the pool may free a slot's buffers while a user still holds the slot; a client
//   that keeps using a buffer must hold its own reference to it.
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

  virtual ~IGainMapBufPool() = default;

  // The next slot of the rotation, or empty when it is not free now.
  virtual std::shared_ptr<BufSlot> getProducerBuffer() = 0;
  // Hands a filled slot back, stamped with the frame's timestamp; 0 or -22.
  virtual int setProducerBuffer(long const& key, int const& validSize,
                                std::shared_ptr<BufSlot> slot) = 0;
  // Borrows slot `index` holding frame `key`, or empty.
  virtual std::shared_ptr<BufSlot> getConsumerBuffer(long const& key, int index) = 0;
  // Gives a borrowed slot back; 0 or -22.
  virtual int setConsumerBuffer(std::shared_ptr<BufSlot> slot) = 0;
  // Frees every slot's buffers as soon as nobody holds it.
  virtual int setPoolReleased() = 0;
  // Allocates the buffers again.
  virtual int setPoolResume() = 0;
  virtual std::unordered_map<unsigned int, qcam::IImageBufferAllocator::ImgParam>
  getPoolImgParams() = 0;
  virtual int getUniKey() = 0;
  virtual uint32_t getMaxSlotCount() = 0;
  virtual uint32_t getBufBatchSize() = 0;
  // Logs the pool's state as one line.
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
    // Slots in the rotation at the start; the rotation may grow to twice this. Must be below
    // kSlotCountLimit, which no camera reaches.
    uint32_t slotCount = 0;
    // The creating client's key for destroyAllPools.
    int32_t uniKey = 0;

    // Parameters that cannot make a working pool (no sensor mode, a size that is not positive,
    // slotCount at or above this bound, or slots of 0 bytes or 2 GiB and more) give a pool that
    // logs why, allocates nothing and lends nothing.
    static constexpr uint32_t kSlotCountLimit = 1024;
  };

  static std::shared_ptr<IGainMapBufPoolManager> getInstance();

  virtual ~IGainMapBufPoolManager() = default;

  // Creates the sensor's pool, replacing any pool filed under the same sensor id; returns 0.
  virtual int createPool(PoolParameters const& params, bool laggingAlloc) = 0;
  virtual std::shared_ptr<IGainMapBufPool> getPool(int sensorId) = 0;
  virtual int resumePool(int sensorId) = 0;
  virtual int releasePool(int sensorId) = 0;
  // Removes every pool created with `uniKey`; clients that hold one keep it alive.
  virtual int destroyAllPools(int const& uniKey) = 0;
  virtual void dump() = 0;
};

}  // namespace Utils
}  // namespace v3
}  // namespace NSCam
