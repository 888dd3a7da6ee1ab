#include <gtest/gtest.h>

#include <cstring>

#include "HostPlatform.h"
#include "camsys/ImageBuffer.h"

namespace {

using qelcam::host::heapStats;
using qelcam::host::HeapStats;

// `count` buffers every `step` bytes from `start`, each of planes of these sizes.
NSCam::ImageBufferInfo layout(size_t count, size_t step, size_t start, std::vector<size_t> sizes) {
  NSCam::ImageBufferInfo info;
  info.count = count;
  info.bufStep = step;
  info.startOffset = start;
  info.bufPlanes.count = sizes.size();
  for (size_t p = 0; p < sizes.size(); ++p) {
    info.bufPlanes.planes[p] = {sizes[p], sizes[p] / 10};
  }
  return info;
}

// Heaps created, heaps alive, bytes alive, buffers locked, buffers dropped locked: added since.
std::vector<uint64_t> since(HeapStats const& b) {
  HeapStats const n = heapStats();
  return {n.heapsCreated - b.heapsCreated, n.heapsAlive - b.heapsAlive, n.bytesAlive - b.bytesAlive,
          n.buffersLocked - b.buffersLocked, n.buffersDroppedLocked - b.buffersDroppedLocked};
}

// A heap cuts only the buffers that fit; their bytes go back only when the heap and its last
// buffer are gone.
TEST(HostImageMemory, CutsWhatFitsFailsWhereAskedAndFreesWithTheLastHolder) {
  HeapStats const before = heapStats();
  qcam::IImageBufferAllocator::ImgParam param;
  param.imgFormat = qelcam::host::kFormatBlob;
  param.imgSize = NSCam::MSize(12000, 1);
  param.strideInBytes = 12000;
  qelcam::host::failHeapCreates(1);
  EXPECT_EQ(qcam::IImageBufferHeapFactory::create("test", "heap", param, false), nullptr);
  auto heap = qcam::IImageBufferHeapFactory::create("test", "heap", param, false);
  ASSERT_NE(heap, nullptr);
  // Layout, buffers cut.
  std::vector<std::pair<NSCam::ImageBufferInfo, size_t>> const cases = {
      {layout(5, 3000, 0, {3000}), 4},
      {layout(1, 0, 12000 - 1200, {1000, 500}), 0},  // the second plane crosses the end
      {layout(2, SIZE_MAX / 2 + 1, 0, {10}), 1},     // the second offset wraps around
      {layout(1, 0, 12001, {0}), 0},
      {layout(1, 0, 6000, {6001}), 0},  // one byte past the end
  };
  for (auto const& [info, cut] : cases) {
    EXPECT_EQ(heap->createImageBuffers(info, "test", true).size(), cut) << info.startOffset;
  }

  qelcam::host::failLockBufAt(1);
  auto buffers = heap->createImageBuffers(layout(3, 4000, 0, {1000, 500}), "test", true);
  ASSERT_EQ(buffers.size(), 3u);
  EXPECT_EQ(buffers[2]->getBufVA(0), 0u) << "no address before lockBuf";
  std::vector<bool> locked;
  for (auto const& buffer : buffers) {
    locked.push_back(buffer->lockBuf("test", 0x6000f));
  }
  qelcam::host::failLockBufAt(-1);
  EXPECT_EQ(locked, (std::vector<bool>{true, false, true}));
  EXPECT_TRUE(buffers[1]->lockBuf("test", 0x6000f));
  EXPECT_FALSE(buffers[1]->lockBuf("test", 0x6000f)) << "already locked";
  EXPECT_EQ(buffers[2]->getBufVA(1), buffers[0]->getBufVA(0) + 2 * 4000 + 1000);
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 1, 12000, 3, 0}));

  EXPECT_TRUE(buffers[0]->unlockBuf("test"));
  EXPECT_FALSE(buffers[0]->unlockBuf("test")) << "already unlocked";
  EXPECT_EQ(buffers[0]->getBufVA(0), 0u) << "no address after unlockBuf";
  auto last = buffers[2];
  heap.reset();
  buffers.clear();
  // Buffer 1 went still locked; the one left holds the heap's memory, which stays writable.
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 1, 12000, 1, 1}));
  std::memset(reinterpret_cast<void*>(last->getBufVA(1)), 0x5a, 500);
  last.reset();
  EXPECT_EQ(since(before), (std::vector<uint64_t>{1, 0, 0, 0, 2}));
}

}  // namespace
