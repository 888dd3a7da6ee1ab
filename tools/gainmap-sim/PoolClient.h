#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "IGainMapBufPool.h"
#include "Options.h"
#include "Simulation.h"

namespace gainmapsim {

// What the simulator does to pools and slots in real and in virtual time alike.

// The client key under which the simulator creates, and at the end destroys, its pools.
constexpr int32_t kUniKey = 7;

NSCam::v3::Utils::IGainMapBufPoolManager::PoolParameters poolParameters(SensorConfig const& sensor);

using Slot = std::shared_ptr<NSCam::v3::Utils::IGainMapBufPool::BufSlot>;

// How much of each plane is written and checked: every byte, or a few words (see FramePattern.h).
enum class Coverage { Whole, Sparse };

// What a consumer finds in a borrowed slot: its frame's bytes, zeroes of memory made afresh, or
// anything else.
enum class Contents { Intact, Fresh, Corrupt };

Contents inspect(Slot const& slot, long key, Coverage coverage);
// Writes the frame's pattern into the first `count` buffers; false when a buffer has no address.
bool fill(Slot const& slot, size_t count, long key, Coverage coverage);

// Once nothing of the simulator holds a pool any more: files in `report` the replaced pools still
// alive, destroys the simulator's pools and files the image memory that outlived them.
void destroyPools(NSCam::v3::Utils::IGainMapBufPoolManager& manager,
                  std::vector<std::weak_ptr<NSCam::v3::Utils::IGainMapBufPool>> const& replaced,
                  Report& report);

}  // namespace gainmapsim
