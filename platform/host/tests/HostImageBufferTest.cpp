#include <gtest/gtest.h>
#include <unistd.h>

#include <cstring>

#include "HostPlatform.h"
#include "LiblogCapture.h"
#include "camsys/ImageBuffer.h"

namespace {

using qcam::IImageBuffer;
using qcam::IImageBufferAllocator;
using qcam::IImageBufferHeap;
using qcam::IImageBufferHeapFactory;
using qelcam::host::heapStats;
using qelcam::host::HeapStats;

std::shared_ptr<IImageBufferHeap> makeBlobHeap(int32_t bytes) {
  IImageBufferAllocator::ImgParam param;
  param.imgFormat = qelcam::host::kFormatBlob;
  param.imgSize = NSCam::MSize(bytes, 1);
  param.strideInBytes = static_cast<size_t>(bytes);
  return IImageBufferHeapFactory::create("test", "heap", param, false);
}

// `count` buffers of two planes (1000 then 500 bytes) every 4096 bytes from `startOffset`.
NSCam::ImageBufferInfo twoPlaneLayout(size_t count, size_t startOffset) {
  NSCam::ImageBufferInfo info;
  info.count = count;
  info.bufStep = 4096;
  info.startOffset = startOffset;
  info.bufPlanes.count = 2;
  info.bufPlanes.planes[0] = {1000, 100};
  info.bufPlanes.planes[1] = {500, 50};
  info.imgFormat = qelcam::host::kFormatGainMap8;
  info.imgSize = NSCam::MSize(100, 10);
  return info;
}

NSCam::ImageBufferInfo onePlaneLayout(size_t count, size_t step, size_t startOffset, size_t size) {
  NSCam::ImageBufferInfo info;
  info.count = count;
  info.bufStep = step;
  info.startOffset = startOffset;
  info.bufPlanes.count = 1;
  info.bufPlanes.planes[0] = {size, size};
  info.imgFormat = qelcam::host::kFormatGainMap8;
  info.imgSize = NSCam::MSize(static_cast<int32_t>(size), 1);
  return info;
}

TEST(HostImageMemory, BytesGoBackOnlyWhenTheHeapAndItsLastBufferAreGone) {
  HeapStats const before = heapStats();
  auto heap = makeBlobHeap(3 * 4096);
  ASSERT_NE(heap, nullptr);
  EXPECT_EQ(heap->getHeapSizeInBytes(), 3u * 4096);
  EXPECT_EQ(heapStats().heapsCreated, before.heapsCreated + 1);
  EXPECT_EQ(heapStats().heapsAlive, before.heapsAlive + 1);
  EXPECT_EQ(heapStats().bytesAlive, before.bytesAlive + 3 * 4096);

  auto buffers = heap->createImageBuffers(twoPlaneLayout(3, 0), "test", true);
  ASSERT_EQ(buffers.size(), 3u);
  for (auto const& buffer : buffers) {
    EXPECT_EQ(buffer->getImgSize(), NSCam::MSize(100, 10));
    EXPECT_EQ(buffer->getImgFormat(), qelcam::host::kFormatGainMap8);
    EXPECT_EQ(buffer->getPlaneCount(), 2u);
    EXPECT_EQ(buffer->getBufSizeInBytes(0), 1000u);
    EXPECT_EQ(buffer->getBufStridesInBytes(0), 100u);
    EXPECT_EQ(buffer->getBufSizeInBytes(1), 500u);
    EXPECT_EQ(buffer->getBufStridesInBytes(1), 50u);
    EXPECT_EQ(buffer->getBufVA(0), 0u) << "no address before lockBuf";
    ASSERT_TRUE(buffer->lockBuf("test", 0x6000f));
    EXPECT_FALSE(buffer->lockBuf("test", 0x6000f)) << "already locked";
  }
  EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked + 3);

  uintptr_t const base = buffers[0]->getBufVA(0);
  EXPECT_EQ(base % static_cast<uintptr_t>(sysconf(_SC_PAGESIZE)), 0u);
  EXPECT_EQ(buffers[0]->getBufVA(1), base + 1000);
  EXPECT_EQ(buffers[2]->getBufVA(0), base + 2 * 4096);
  EXPECT_EQ(buffers[2]->getBufVA(1), base + 2 * 4096 + 1000);
  EXPECT_EQ(buffers[2]->getBufVA(2), 0u) << "no third plane";

  // Real bytes: what one view writes, another view of the same offset reads.
  std::memset(reinterpret_cast<void*>(buffers[1]->getBufVA(1)), 0x5a, 500);
  auto again = heap->createImageBuffers(onePlaneLayout(1, 0, 4096 + 1000, 500), "test", true);
  ASSERT_EQ(again.size(), 1u);
  ASSERT_TRUE(again[0]->lockBuf("test", 0x6000f));
  auto const* bytes = reinterpret_cast<unsigned char const*>(again[0]->getBufVA(0));
  for (size_t i = 0; i < 500; ++i) {
    ASSERT_EQ(bytes[i], 0x5a) << "byte " << i;
  }
  EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked + 4);

  EXPECT_TRUE(buffers[0]->unlockBuf("test"));
  EXPECT_FALSE(buffers[0]->unlockBuf("test")) << "already unlocked";
  EXPECT_EQ(buffers[0]->getBufVA(0), 0u) << "no address after unlockBuf";
  EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked + 3);
  EXPECT_EQ(heapStats().buffersDroppedLocked, before.buffersDroppedLocked);

  heap.reset();
  buffers.clear();
  EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked + 1)
      << "locked buffers dropped without unlock stop counting";
  // Buffers 1 and 2 went still locked; buffer 0 had been unlocked.
  EXPECT_EQ(heapStats().buffersDroppedLocked, before.buffersDroppedLocked + 2);
  EXPECT_EQ(heapStats().heapsAlive, before.heapsAlive + 1) << "a buffer still holds the memory";
  EXPECT_EQ(heapStats().bytesAlive, before.bytesAlive + 3 * 4096);
  EXPECT_EQ(bytes[499], 0x5a);

  again.clear();
  EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked);
  EXPECT_EQ(heapStats().buffersDroppedLocked, before.buffersDroppedLocked + 3);
  EXPECT_EQ(heapStats().heapsAlive, before.heapsAlive);
  EXPECT_EQ(heapStats().bytesAlive, before.bytesAlive);
  EXPECT_EQ(heapStats().heapsCreated, before.heapsCreated + 1);
}

TEST(HostImageMemory, SizesHeapsFromTheFormatAndAcceptsAnEmptyOne) {
  HeapStats const before = heapStats();
  IImageBufferAllocator::ImgParam param;
  param.imgFormat = qelcam::host::kFormatGainMap16;
  param.imgSize = NSCam::MSize(576, 432);
  auto wide = IImageBufferHeapFactory::create("test", "wide", param, true);
  ASSERT_NE(wide, nullptr);
  EXPECT_EQ(wide->getHeapSizeInBytes(), 576u * 432 * 2);

  auto empty = makeBlobHeap(0);
  ASSERT_NE(empty, nullptr);
  EXPECT_EQ(empty->getHeapSizeInBytes(), 0u);
  EXPECT_EQ(heapStats().heapsAlive, before.heapsAlive + 2);
  EXPECT_EQ(heapStats().bytesAlive, before.bytesAlive + 576 * 432 * 2);
}

TEST(HostImageMemory, RefusesBuffersThatRunPastTheHeapEnd) {
  auto heap = makeBlobHeap(10000);
  ASSERT_NE(heap, nullptr);
  LiblogCapture liblog;

  auto buffers = heap->createImageBuffers(onePlaneLayout(4, 3000, 0, 3000), "test", true);
  EXPECT_EQ(buffers.size(), 3u);
  auto lines = liblog.lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].priority, ANDROID_LOG_ERROR);
  EXPECT_EQ(lines[0].tag, "QelCam/HostImageBuffer");
  EXPECT_EQ(lines[0].text,
            "[createImageBuffers] heap: buffer 3 of 4 (start 0 + 3 * step 3000) runs past the heap "
            "end (10000 bytes); 3 buffers cut");

  // The second plane of the first buffer crosses the end.
  auto info = twoPlaneLayout(1, 10000 - 1200);
  EXPECT_TRUE(heap->createImageBuffers(info, "test", true).empty());
  // A step so large that the offset wraps around.
  EXPECT_EQ(
      heap->createImageBuffers(onePlaneLayout(2, SIZE_MAX / 2 + 1, 0, 10), "test", true).size(),
      1u);
  EXPECT_TRUE(heap->createImageBuffers(onePlaneLayout(1, 0, 10001, 0), "test", true).empty());
  EXPECT_EQ(liblog.lines().size(), 4u);
}

TEST(HostImageMemory, InjectedFailures) {
  HeapStats const before = heapStats();
  qelcam::host::failHeapCreates(2);
  EXPECT_EQ(makeBlobHeap(4096), nullptr);
  EXPECT_EQ(makeBlobHeap(4096), nullptr);
  auto heap = makeBlobHeap(4 * 4096);
  ASSERT_NE(heap, nullptr);
  EXPECT_EQ(heapStats().heapsCreated, before.heapsCreated + 1);

  qelcam::host::failLockBufAt(1);
  for (int batch = 0; batch < 2; ++batch) {
    auto buffers = heap->createImageBuffers(twoPlaneLayout(3, 0), "test", true);
    ASSERT_EQ(buffers.size(), 3u);
    EXPECT_TRUE(buffers[0]->lockBuf("test", 0x6000f));
    EXPECT_FALSE(buffers[1]->lockBuf("test", 0x6000f));
    EXPECT_EQ(buffers[1]->getBufVA(0), 0u);
    EXPECT_TRUE(buffers[2]->lockBuf("test", 0x6000f));
    EXPECT_EQ(heapStats().buffersLocked, before.buffersLocked + 2);
  }
  qelcam::host::failLockBufAt(-1);
  auto buffers = heap->createImageBuffers(twoPlaneLayout(3, 0), "test", true);
  EXPECT_TRUE(buffers[1]->lockBuf("test", 0x6000f));
  EXPECT_NE(buffers[1]->getBufVA(0), 0u);
}

}  // namespace
