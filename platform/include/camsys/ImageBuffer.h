#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "camsys/Types.h"

namespace NSCam {

struct BufPlane {
  size_t sizeInBytes = 0;
  size_t rowStrideInBytes = 0;
};

struct BufPlanes {
  static constexpr size_t kMaxPlanes = 3;
  size_t count = 0;
  std::array<BufPlane, kMaxPlanes> planes{};
};

// How `count` buffers are laid out inside one heap: buffer i starts at startOffset + i * bufStep.
struct ImageBufferInfo {
  size_t count = 0;
  size_t bufStep = 0;
  size_t startOffset = 0;
  BufPlanes bufPlanes;
  int32_t imgFormat = 0;
  MSize imgSize;
};

}  // namespace NSCam

namespace qcam {

class IImageBufferAllocator {
 public:
  // Allocation record of one image or one BLOB heap.
  struct ImgParam {
    int32_t imgFormat = 0;
    NSCam::MSize imgSize;
    size_t strideInBytes = 0;
    int64_t usage = 0;
  };
};

class IImageBuffer {
 public:
  virtual ~IImageBuffer() = default;

  // Maps the buffer for CPU access; an address is only handed out while the buffer is locked.
  virtual bool lockBuf(char const* user, int usage) = 0;
  virtual bool unlockBuf(char const* user) = 0;

  virtual NSCam::MSize getImgSize() const = 0;
  virtual int32_t getImgFormat() const = 0;
  virtual size_t getPlaneCount() const = 0;
  // 0 when the buffer is not locked or the plane does not exist.
  virtual uintptr_t getBufVA(size_t plane) const = 0;
  virtual size_t getBufSizeInBytes(size_t plane) const = 0;
  virtual size_t getBufStridesInBytes(size_t plane) const = 0;
};

class IImageBufferHeap {
 public:
  virtual ~IImageBufferHeap() = default;

  virtual size_t getHeapSizeInBytes() const = 0;

  // Cuts `info.count` buffers out of the heap at info.startOffset + i * info.bufStep. Every buffer
  // keeps the heap's memory alive. A layout that does not fit is refused: only the buffers that fit
  // are returned. `sharedMemory` asks for views of the heap's own memory rather than copies; the
  // library always asks for views.
  virtual std::vector<std::shared_ptr<IImageBuffer>> createImageBuffers(
      NSCam::ImageBufferInfo const& info, char const* user, bool sharedMemory) = 0;
};

class IImageBufferHeapFactory {
 public:
  // One heap of `param.imgSize.w * param.imgSize.h` bytes for a BLOB param; an empty pointer when
  // the memory cannot be had. `verbose` asks the platform to log the allocation.
  static std::shared_ptr<IImageBufferHeap> create(char const* user, char const* name,
                                                  IImageBufferAllocator::ImgParam const& param,
                                                  bool verbose);
};

}  // namespace qcam
