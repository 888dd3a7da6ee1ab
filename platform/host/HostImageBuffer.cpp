#include <android/log.h>
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <string>

#include "HostPlatform.h"
#include "camsys/Format.h"
#include "camsys/ImageBuffer.h"

namespace {

constexpr char kLogTag[] = "QelCam/HostImageBuffer";

std::atomic<uint64_t> gHeapsCreated{0};
std::atomic<uint64_t> gHeapsAlive{0};
std::atomic<uint64_t> gBytesAlive{0};
std::atomic<uint64_t> gBuffersLocked{0};
std::atomic<uint64_t> gBuffersDroppedLocked{0};
std::atomic<int> gHeapFailures{0};
std::atomic<int> gFailLockIndex{-1};

// A heap's memory, shared by the heap and every buffer cut from it; unmapped with the last.
class Mapping {
 public:
  Mapping(uint8_t* base, size_t size) : mBase(base), mSize(size) {
    gHeapsAlive.fetch_add(1);
    gBytesAlive.fetch_add(size);
  }
  ~Mapping() {
    if (mBase != nullptr) {
      munmap(mBase, mSize);
    }
    gBytesAlive.fetch_sub(mSize);
    gHeapsAlive.fetch_sub(1);
  }
  Mapping(Mapping const&) = delete;
  Mapping& operator=(Mapping const&) = delete;

  uint8_t* base() const { return mBase; }
  size_t size() const { return mSize; }

 private:
  uint8_t* const mBase;
  size_t const mSize;
};

// Page-backed shareable memory, as a device's buffer allocator hands out; nullptr on failure.
std::shared_ptr<Mapping> mapMemory(char const* name, size_t size) {
  if (size == 0) {
    return std::make_shared<Mapping>(nullptr, 0);
  }
  int fd = memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] memfd_create(%s) failed: %s", __func__,
                        name, strerror(errno));
    return nullptr;
  }
  std::shared_ptr<Mapping> mapping;
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] ftruncate(%s, %zu) failed: %s", __func__,
                        name, size, strerror(errno));
  } else {
    void* base = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (base == MAP_FAILED) {
      __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] mmap(%s, %zu) failed: %s", __func__,
                          name, size, strerror(errno));
    } else {
      mapping = std::make_shared<Mapping>(static_cast<uint8_t*>(base), size);
    }
  }
  close(fd);
  return mapping;
}

struct PlaneView {
  size_t offset = 0;  // from the heap's start
  size_t size = 0;
  size_t stride = 0;
};

class HostImageBuffer : public qcam::IImageBuffer {
 public:
  HostImageBuffer(std::shared_ptr<Mapping> memory, std::vector<PlaneView> planes, NSCam::MSize size,
                  int32_t format, int indexInBatch)
      : mMemory(std::move(memory)),
        mPlanes(std::move(planes)),
        mSize(size),
        mFormat(format),
        mIndexInBatch(indexInBatch) {}

  ~HostImageBuffer() override {
    if (mLocked.load()) {
      gBuffersLocked.fetch_sub(1);
      gBuffersDroppedLocked.fetch_add(1);
    }
  }

  bool lockBuf(char const* /*user*/, int /*usage*/) override {
    if (mIndexInBatch == gFailLockIndex.load()) {
      return false;
    }
    bool unlocked = false;
    if (!mLocked.compare_exchange_strong(unlocked, true)) {
      return false;
    }
    gBuffersLocked.fetch_add(1);
    return true;
  }

  bool unlockBuf(char const* /*user*/) override {
    bool locked = true;
    if (!mLocked.compare_exchange_strong(locked, false)) {
      return false;
    }
    gBuffersLocked.fetch_sub(1);
    return true;
  }

  NSCam::MSize getImgSize() const override { return mSize; }
  int32_t getImgFormat() const override { return mFormat; }
  size_t getPlaneCount() const override { return mPlanes.size(); }

  uintptr_t getBufVA(size_t plane) const override {
    if (!mLocked.load() || plane >= mPlanes.size() || mMemory->base() == nullptr) {
      return 0;
    }
    return reinterpret_cast<uintptr_t>(mMemory->base() + mPlanes[plane].offset);
  }
  size_t getBufSizeInBytes(size_t plane) const override {
    return plane < mPlanes.size() ? mPlanes[plane].size : 0;
  }
  size_t getBufStridesInBytes(size_t plane) const override {
    return plane < mPlanes.size() ? mPlanes[plane].stride : 0;
  }

 private:
  std::shared_ptr<Mapping> const mMemory;
  std::vector<PlaneView> const mPlanes;
  NSCam::MSize const mSize;
  int32_t const mFormat;
  int const mIndexInBatch;
  std::atomic<bool> mLocked{false};
};

class HostImageBufferHeap : public qcam::IImageBufferHeap {
 public:
  HostImageBufferHeap(std::string name, std::shared_ptr<Mapping> memory)
      : mName(std::move(name)), mMemory(std::move(memory)) {}

  size_t getHeapSizeInBytes() const override { return mMemory->size(); }

  std::vector<std::shared_ptr<qcam::IImageBuffer>> createImageBuffers(
      NSCam::ImageBufferInfo const& info, char const* /*user*/, bool /*sharedMemory*/) override {
    std::vector<std::shared_ptr<qcam::IImageBuffer>> buffers;
    if (info.bufPlanes.count > NSCam::BufPlanes::kMaxPlanes) {
      __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] %s: %zu planes, at most %zu", __func__,
                          mName.c_str(), info.bufPlanes.count, NSCam::BufPlanes::kMaxPlanes);
      return buffers;
    }
    size_t const heapSize = mMemory->size();
    for (size_t i = 0; i < info.count; ++i) {
      std::vector<PlaneView> planes;
      size_t end = 0;
      bool fits = !__builtin_mul_overflow(i, info.bufStep, &end) &&
                  !__builtin_add_overflow(end, info.startOffset, &end) && end <= heapSize;
      for (size_t p = 0; fits && p < info.bufPlanes.count; ++p) {
        NSCam::BufPlane const& plane = info.bufPlanes.planes[p];
        planes.push_back({end, plane.sizeInBytes, plane.rowStrideInBytes});
        fits = !__builtin_add_overflow(end, plane.sizeInBytes, &end) && end <= heapSize;
      }
      if (!fits) {
        __android_log_print(ANDROID_LOG_ERROR, kLogTag,
                            "[%s] %s: buffer %zu of %zu (start %zu + %zu * step %zu) runs past the "
                            "heap end (%zu bytes); %zu buffers cut",
                            __func__, mName.c_str(), i, info.count, info.startOffset, i,
                            info.bufStep, heapSize, buffers.size());
        break;
      }
      buffers.push_back(std::make_shared<HostImageBuffer>(mMemory, std::move(planes), info.imgSize,
                                                          info.imgFormat, static_cast<int>(i)));
    }
    return buffers;
  }

 private:
  std::string const mName;
  std::shared_ptr<Mapping> const mMemory;
};

bool takeHeapFailure() {
  int remaining = gHeapFailures.load();
  while (remaining > 0) {
    if (gHeapFailures.compare_exchange_weak(remaining, remaining - 1)) {
      return true;
    }
  }
  return false;
}

}  // namespace

namespace qcam {

std::shared_ptr<IImageBufferHeap> IImageBufferHeapFactory::create(
    char const* user, char const* name, IImageBufferAllocator::ImgParam const& param,
    bool verbose) {
  char const* heapName = name != nullptr ? name : "";
  if (takeHeapFailure()) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] %s: heap creation failed as asked",
                        __func__, heapName);
    return nullptr;
  }
  int32_t const bits = NSCam::Utils::Format::queryPlaneBitsPerPixel(param.imgFormat, 0);
  if (bits == 0 || param.imgSize.w < 0 || param.imgSize.h < 0) {
    __android_log_print(ANDROID_LOG_ERROR, kLogTag, "[%s] %s: format 0x%x size %dx%d unsupported",
                        __func__, heapName, param.imgFormat, param.imgSize.w, param.imgSize.h);
    return nullptr;
  }
  size_t const size = static_cast<size_t>(param.imgSize.w) * static_cast<size_t>(param.imgSize.h) *
                      static_cast<size_t>(bits) / 8;
  std::shared_ptr<Mapping> memory = mapMemory(heapName, size);
  if (!memory) {
    return nullptr;
  }
  gHeapsCreated.fetch_add(1);
  if (verbose) {
    __android_log_print(ANDROID_LOG_INFO, kLogTag, "[%s] %s: %zu bytes for %s", __func__, heapName,
                        size, user != nullptr ? user : "");
  }
  return std::make_shared<HostImageBufferHeap>(heapName, std::move(memory));
}

}  // namespace qcam

namespace qelcam {
namespace host {

HeapStats heapStats() {
  return HeapStats{gHeapsCreated.load(), gHeapsAlive.load(), gBytesAlive.load(),
                   gBuffersLocked.load(), gBuffersDroppedLocked.load()};
}

void failHeapCreates(int count) {
  gHeapFailures.store(count);
}

void failLockBufAt(int bufferIndex) {
  gFailLockIndex.store(bufferIndex);
}

}  // namespace host
}  // namespace qelcam
