#include "ModelDriver.h"

#include <android/log.h>

#include <algorithm>
#include <climits>
#include <sstream>
#include <utility>

#include "camsys/ULog.h"

namespace gainmap_model {
namespace {

using NSCam::MSize;
using NSCam::Utils::ULog::ULogger;

constexpr char kDebugProperty[] = "vendor.debug.camera.log.pipeline.gainmap";
constexpr char kTag[] = "QelCam/GainMapPool";
constexpr uint32_t kModuleId = 0x201004;
constexpr size_t kLineLimit = 1023;
constexpr size_t kMaxPoolHandles = 4;
constexpr size_t kMaxSlotHandles = 12;

constexpr int32_t kSensorIds[] = {0, 1, 2, -7};
constexpr int32_t kUnknownSensorId = 9;
constexpr int32_t kUniKeys[] = {10, 20};
constexpr int32_t kUnusedUniKey = 30;
constexpr uint32_t kModes[] = {0, 1, 2, 5};
// Mostly small gain maps (16, 32 and 10 rows), so that thousands of heaps stay cheap, and a few
// of the common sensor shapes.
MSize const kSizes[] = {MSize(5760, 160),  MSize(5760, 320),  MSize(5760, 90),   MSize(4000, 3000),
                        MSize(4000, 2250), MSize(3000, 4000), MSize(4000, 1800), MSize(5760, 160)};
// Rotations of up to 8 slots, and now and then 48 slots, whose dump runs past the line limit.
constexpr uint32_t kSlotCounts[] = {0, 1, 2, 2, 3, 3, 4, 1, 2, 3, 3, 4, 2, 3, 1, 24};

// The library's lines are checked through the capture; printing them would only flood the output.
void discardLine(__android_logger_data const*, char const*) {}

template <class T, size_t N>
T const& pick(ChoiceSource& source, T const (&values)[N]) {
  return values[source.below(N)];
}

std::string describe(Lines const& lines) {
  std::ostringstream text;
  for (Line const& line : lines) {
    text << "    [" << line.level << "] " << line.text << "\n";
  }
  return text.str();
}

}  // namespace

Tally& Tally::operator+=(Tally const& other) {
  poolsCreated += other.poolsCreated;
  unworkablePools += other.unworkablePools;
  producerLends += other.producerLends;
  producerRefusals += other.producerRefusals;
  producerReturns += other.producerReturns;
  consumerLends += other.consumerLends;
  consumerRefusals += other.consumerRefusals;
  consumerReturns += other.consumerReturns;
  refusedReturns += other.refusedReturns;
  stepsHeld += other.stepsHeld;
  return *this;
}

uint32_t SeededSource::below(uint32_t bound) {
  mState += 0x9e3779b97f4a7c15ull;
  uint64_t z = mState;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  z ^= z >> 31;
  return static_cast<uint32_t>(z % bound);
}

uint32_t ByteSource::below(uint32_t bound) {
  uint32_t value = 0;
  // As many bytes as the bound needs, so that a short input still decodes.
  for (uint32_t range = 1; range < bound && mPos < mSize; range <<= 8) {
    value = (value << 8) | mData[mPos++];
    if (range > (UINT32_MAX >> 8)) {
      break;
    }
  }
  return value % bound;
}

template <class Call>
auto ModelDriver::heldCall(Call call) {
  if (mHeld) {
    return call();
  }
  qelcam::host::holdQueues();
  auto result = call();
  qelcam::host::releaseQueues();
  return result;
}

ModelDriver::ModelDriver(ChoiceSource& source, std::ostream* trace)
    : mSource(source),
      mTrace(trace),
      mManager(NSCam::v3::Utils::IGainMapBufPoolManager::getInstance()),
      mBaseline(qelcam::host::heapStats()) {
  // Every class through, to the logger sink only; dumps are built only when debug lines pass.
  mGates.set(0x2, 5, ULogger::sNormalDetailsMask | 0x201000);
  __android_log_set_logger(discardLine);
  mWorld.platform = {qelcam::host::kFormatGainMap8, 8, -1};
  qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  qelcam::host::failLockBufAt(-1);
}

ModelDriver::~ModelDriver() {
  if (mHeld) {
    qelcam::host::releaseQueues();
  }
  qelcam::host::waitQueuesIdle();
  mSlots.clear();
  mPools.clear();
  for (int32_t uniKey : kUniKeys) {
    mManager->destroyAllPools(uniKey);
  }
  qelcam::host::waitQueuesIdle();
  qelcam::host::clearProperty(kDebugProperty);
  qelcam::host::setGainMapFormats({qelcam::host::kFormatGainMap8});
  qelcam::host::failLockBufAt(-1);
  __android_log_set_logger(__android_log_stderr_logger);
}

bool ModelDriver::step() {
  if (!mDivergence.empty()) {
    return false;
  }
  ++mStep;
  mProblems.clear();
  mCapture.clear();
  Lines expected;
  mOperation = perform(expected);
  mTally.stepsHeld += mHeld ? 1 : 0;
  if (mTrace != nullptr) {
    *mTrace << "step " << mStep << ": " << mOperation << "\n";
  }
  drain(expected);
  checkLines(expected);
  checkDumps();
  checkSlots();
  checkHeaps();
  return agreed();
}

bool ModelDriver::finish() {
  if (!mDivergence.empty()) {
    return false;
  }
  ++mStep;
  mProblems.clear();
  mCapture.clear();
  mOperation = "finish: let go of every slot and pool, destroy every pool";
  Lines expected;
  if (mHeld) {
    qelcam::host::releaseQueues();
    mHeld = false;
  }
  drain(expected);
  while (!mSlots.empty()) {
    dropSlotHandle(mSlots.size() - 1);
  }
  while (!mPools.empty()) {
    dropPoolHandle(mPools.size() - 1, expected);
  }
  for (int32_t uniKey : kUniKeys) {
    mManager->destroyAllPools(uniKey);
    mWorld.destroyAllPools(uniKey, expected);
  }
  drain(expected);
  checkLines(expected);
  checkHeaps();
  HeapTotals const model = mWorld.heaps();
  expectEqual("image heaps the model keeps at the end", 0,
              static_cast<long long>(model.heapsAlive));
  return agreed();
}

bool ModelDriver::agreed() {
  if (mProblems.empty()) {
    return true;
  }
  std::ostringstream text;
  text << "step " << mStep << ": " << mOperation << "\n";
  for (std::string const& problem : mProblems) {
    text << "  " << problem << "\n";
  }
  mDivergence = text.str();
  return false;
}

std::string ModelDriver::perform(Lines& expected) {
  // Lending calls dominate, as in a camera pipeline; the rest keep the pools changing under them.
  uint32_t const operation = mSource.below(24);
  switch (operation) {
    case 0:
      return createPool(expected);
    case 1:
      return getPool(expected);
    case 2:
      return releaseOrResume(mSource.below(2) == 0, expected);
    case 3:
      return mSource.below(3) == 0 ? destroyAllPools(expected) : dropPool(expected);
    case 16:
      return mSource.below(2) == 0 ? accessors() : dropSlot();
    case 17:
      return holdOrRelease();
    case 18:
      if (mSource.below(2) == 0) {
        mManager->dump();
        mWorld.dump(expected);
        return "manager dump";
      }
      return platformChange();
    default:
      break;
  }
  // The rest act on a pool the client holds; without one, the client asks the manager for one.
  bool const release = operation == 15 && mSource.below(2) == 0;
  PoolHandle* picked = pickPool();
  if (picked == nullptr) {
    return getPool(expected);
  }
  PoolHandle const handle = *picked;
  switch (operation) {
    case 4:
    case 5:
    case 6:
      return getProducerBuffer(handle, expected);
    case 7:
    case 8:
    case 9:
      return setProducerBuffer(handle, expected);
    case 10:
    case 11:
    case 12:
      return getConsumerBuffer(handle, expected);
    case 13:
    case 14:
      return setConsumerBuffer(handle, expected);
    case 15:
      return poolReleaseOrResume(handle, release, expected);
    case 19:
      handle.pool->dump();
      mWorld.pool(handle.id).dump(expected);
      return "pool #" + std::to_string(handle.id) + " dump";
    default:
      return frame(handle, expected);
  }
}

std::string ModelDriver::frame(PoolHandle const& handle, Lines& expected) {
  std::shared_ptr<IGainMapBufPool> pool = handle.pool;
  int const id = handle.id;
  PoolModel& model = mWorld.pool(id);
  std::shared_ptr<BufSlot> slot = heldCall([&] { return pool->getProducerBuffer(); });
  int const index = model.getProducerBuffer(expected);
  expectEqual("getProducerBuffer lends a slot", index >= 0, slot != nullptr);
  std::string const text =
      "pool #" + std::to_string(id) + " frame: getProducerBuffer() = " + std::to_string(index);
  if (!slot || index < 0) {
    ++mTally.producerRefusals;
    return text;
  }
  ++mTally.producerLends;
  expectEqual("index of the slot lent to the producer", index, slot->index);
  checkIdentity(slot, id, index);
  long const key = ++mLastKey;
  int const validSize = static_cast<int>(model.slot(index)->buffers);
  int const status = heldCall([&] { return pool->setProducerBuffer(key, validSize, slot); });
  expectEqual("setProducerBuffer status", model.setProducerBuffer(key, validSize, index, expected),
              status);
  ++(status == 0 ? mTally.producerReturns : mTally.refusedReturns);
  return text + ", setProducerBuffer(key=" + std::to_string(key) +
         ", validSize=" + std::to_string(validSize) + ") = " + std::to_string(status);
}

PoolParameters ModelDriver::drawParameters() {
  PoolParameters params;
  params.sensorId = pick(mSource, kSensorIds);
  params.uniKey = pick(mSource, kUniKeys);
  params.batchSize = mSource.below(5);
  params.slotCount = pick(mSource, kSlotCounts);
  uint32_t const shape = mSource.below(10);
  if (shape < 6) {
    params.sensorSizes.emplace(pick(mSource, kModes), pick(mSource, kSizes));
  } else if (shape < 9) {
    // Several modes; two of them may share a sensor size.
    uint32_t const modes = 2 + mSource.below(2);
    for (uint32_t m = 0; m < modes; ++m) {
      params.sensorSizes.emplace(pick(mSource, kModes), pick(mSource, kSizes));
    }
  } else {
    // Parameters that cannot make a working pool.
    switch (mSource.below(8)) {
      case 0:
        break;
      case 1:
        params.sensorSizes.emplace(0, mSource.below(2) == 0 ? MSize(0, 3000) : MSize(0, 0));
        break;
      case 2:
        params.sensorSizes.emplace(0, MSize(-4000, 3000));
        params.sensorSizes.emplace(1, MSize(4000, 2250));
        break;
      case 3:
        params.sensorSizes.emplace(0, MSize(4000, 0));
        break;
      case 4: {
        constexpr uint32_t kCounts[] = {kSlotCountBound, 0x80000000u, 0xffffffffu};
        params.slotCount = pick(mSource, kCounts);
        params.sensorSizes.emplace(0, MSize(5760, 160));
        break;
      }
      case 5:
        params.batchSize = 0x10000;
        params.sensorSizes.emplace(0, MSize(4000, 3000));
        break;
      case 6:
        params.sensorSizes.emplace(0, MSize(1, 100000));
        break;
      default:
        params.batchSize = 9000;
        params.sensorSizes.emplace(0, MSize(4000, 3000));
        break;
    }
  }
  return params;
}

std::string ModelDriver::createPool(Lines& expected) {
  PoolParameters const params = drawParameters();
  bool const lagging = mSource.below(4) == 0;
  bool const verbose = mSource.below(4) == 0;
  std::ostringstream text;
  text << "createPool(sensorId=" << params.sensorId << ", uniKey=" << params.uniKey
       << ", batch=" << params.batchSize << ", slots=" << params.slotCount << ", sizes={";
  for (auto const& [mode, size] : params.sensorSizes) {
    text << mode << ":" << size.w << "x" << size.h << " ";
  }
  text << "}, lagging=" << lagging << ", verbose=" << verbose << ")";
  // Replacing a pool that nobody else holds destroys it, which waits for its queue.
  if (mHeld && mWorld.createWouldDestroy(params.sensorId)) {
    return text.str() + " skipped: the queues are held";
  }
  if (verbose) {
    qelcam::host::setProperty(kDebugProperty, "1");
  } else {
    qelcam::host::clearProperty(kDebugProperty);
  }
  int const status = mManager->createPool(params, lagging);
  int const id = mWorld.createPool(params, lagging, expected);
  ++mTally.poolsCreated;
  mTally.unworkablePools += mWorld.pool(id).workable() ? 0 : 1;
  expectEqual("createPool status", 0, status);
  return text.str();
}

std::string ModelDriver::getPool(Lines& expected) {
  int32_t const sensorId = mSource.below(6) == 0 ? kUnknownSensorId : pick(mSource, kSensorIds);
  std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensorId);
  int const id = mWorld.getPool(sensorId, expected);
  std::string const text = "getPool(" + std::to_string(sensorId) + ") = #" + std::to_string(id);
  expectEqual("getPool gives a pool", id >= 0, pool != nullptr);
  if (pool && id >= 0) {
    for (PoolHandle const& held : mPools) {
      if ((held.id == id) != (held.pool == pool)) {
        mProblems.push_back("getPool(" + std::to_string(sensorId) + ") gave a pool object other " +
                            "than pool #" + std::to_string(id) + " as held in a handle of #" +
                            std::to_string(held.id));
      }
    }
    keepPool(std::move(pool), id, expected);
  }
  return text;
}

std::string ModelDriver::releaseOrResume(bool release, Lines& expected) {
  int32_t const sensorId = mSource.below(6) == 0 ? kUnknownSensorId : pick(mSource, kSensorIds);
  std::string const text =
      std::string(release ? "releasePool(" : "resumePool(") + std::to_string(sensorId) + ")";
  if (release && mHeld && mWorld.filed(sensorId)) {
    // The release waits for the pool's queue, which is held.
    return text + " skipped: the queues are held";
  }
  int const status = release ? mManager->releasePool(sensorId) : mManager->resumePool(sensorId);
  int const modelStatus =
      release ? mWorld.releasePool(sensorId, expected) : mWorld.resumePool(sensorId, expected);
  expectEqual(release ? "releasePool status" : "resumePool status", modelStatus, status);
  return text;
}

std::string ModelDriver::destroyAllPools(Lines& expected) {
  int32_t const uniKey = mSource.below(5) == 0 ? kUnusedUniKey : pick(mSource, kUniKeys);
  std::string const text = "destroyAllPools(" + std::to_string(uniKey) + ")";
  if (mHeld && mWorld.destroyWouldDestroy(uniKey)) {
    return text + " skipped: the queues are held";
  }
  int const status = mManager->destroyAllPools(uniKey);
  mWorld.destroyAllPools(uniKey, expected);
  expectEqual("destroyAllPools status", 0, status);
  return text;
}

std::string ModelDriver::dropPool(Lines& expected) {
  if (mPools.empty()) {
    return "drop a pool: none held";
  }
  size_t const which = mSource.below(static_cast<uint32_t>(mPools.size()));
  int const id = mPools[which].id;
  if (mHeld && mWorld.dropWouldDestroy(id)) {
    return "drop pool #" + std::to_string(id) + " skipped: the queues are held";
  }
  dropPoolHandle(which, expected);
  return "drop pool #" + std::to_string(id);
}

std::string ModelDriver::getProducerBuffer(PoolHandle const& handle, Lines& expected) {
  std::shared_ptr<IGainMapBufPool> pool = handle.pool;
  int const id = handle.id;
  std::shared_ptr<BufSlot> slot = heldCall([&] { return pool->getProducerBuffer(); });
  int const index = mWorld.pool(id).getProducerBuffer(expected);
  expectEqual("getProducerBuffer lends a slot", index >= 0, slot != nullptr);
  if (slot && index >= 0) {
    expectEqual("index of the slot lent to the producer", index, slot->index);
    checkIdentity(slot, id, index);
    keepSlot(std::move(slot), id, index, SlotKind::Producer);
  }
  ++(index >= 0 ? mTally.producerLends : mTally.producerRefusals);
  return "pool #" + std::to_string(id) + " getProducerBuffer() = " + std::to_string(index);
}

std::string ModelDriver::setProducerBuffer(PoolHandle const& handle, Lines& expected) {
  std::shared_ptr<IGainMapBufPool> pool = handle.pool;
  int const id = handle.id;
  std::string described;
  std::shared_ptr<BufSlot> slot = pickSlotArgument(id, SlotKind::Producer, described);
  int const index = slot ? slot->index : -1;
  SlotModel const* own = mWorld.pool(id).slot(index);
  int validSize = own != nullptr ? static_cast<int>(own->buffers) : 1;
  switch (mSource.below(16)) {
    case 5:
      validSize = 0;
      break;
    case 6:
      validSize = mSource.below(2) == 0 ? -1 : INT_MIN;
      break;
    case 7:
      validSize += 1;
      break;
    default:
      break;
  }
  long key = ++mLastKey;
  switch (mSource.below(10)) {
    case 8:
      key = 0;
      break;
    case 9:
      key = mSource.below(2) == 0 ? -key : LONG_MAX;
      break;
    default:
      break;
  }
  int const status = heldCall([&] { return pool->setProducerBuffer(key, validSize, slot); });
  int const modelStatus = mWorld.pool(id).setProducerBuffer(key, validSize, index, expected);
  expectEqual("setProducerBuffer status", modelStatus, status);
  ++(status == 0 ? mTally.producerReturns : mTally.refusedReturns);
  if (status == 0) {
    forgetReturned(slot, SlotKind::Producer);
  }
  return "pool #" + std::to_string(id) + " setProducerBuffer(key=" + std::to_string(key) +
         ", validSize=" + std::to_string(validSize) + ", " + described +
         ") = " + std::to_string(status);
}

std::string ModelDriver::getConsumerBuffer(PoolHandle const& handle, Lines& expected) {
  std::shared_ptr<IGainMapBufPool> pool = handle.pool;
  int const id = handle.id;
  PoolModel& model = mWorld.pool(id);
  int index = 0;
  uint32_t const choice = mSource.below(8);
  if (choice < 6 && model.slotCount() > 0) {
    index = static_cast<int>(mSource.below(model.slotCount()));
  } else {
    index = static_cast<int>(mSource.below(model.maxSlotCount() + 3)) - 1;
  }
  SlotModel const* target = model.slot(index);
  long key = target != nullptr ? static_cast<long>(target->key) : mLastKey;
  if (choice == 7) {
    key ^= 1;
  }
  std::shared_ptr<BufSlot> slot = heldCall([&] { return pool->getConsumerBuffer(key, index); });
  int const lent = model.getConsumerBuffer(key, index, expected);
  ++(lent >= 0 ? mTally.consumerLends : mTally.consumerRefusals);
  expectEqual("getConsumerBuffer lends a slot", lent >= 0, slot != nullptr);
  if (slot && lent >= 0) {
    expectEqual("index of the slot lent to a consumer", lent, slot->index);
    checkIdentity(slot, id, lent);
    keepSlot(std::move(slot), id, lent, SlotKind::Consumer);
  }
  return "pool #" + std::to_string(id) + " getConsumerBuffer(key=" + std::to_string(key) +
         ", index=" + std::to_string(index) + ") = " + std::to_string(lent);
}

std::string ModelDriver::setConsumerBuffer(PoolHandle const& handle, Lines& expected) {
  std::shared_ptr<IGainMapBufPool> pool = handle.pool;
  int const id = handle.id;
  std::string described;
  std::shared_ptr<BufSlot> slot = pickSlotArgument(id, SlotKind::Consumer, described);
  int const index = slot ? slot->index : -1;
  int const status = heldCall([&] { return pool->setConsumerBuffer(slot); });
  int const modelStatus = mWorld.pool(id).setConsumerBuffer(index, expected);
  expectEqual("setConsumerBuffer status", modelStatus, status);
  ++(status == 0 ? mTally.consumerReturns : mTally.refusedReturns);
  if (status == 0) {
    forgetReturned(slot, SlotKind::Consumer);
  }
  return "pool #" + std::to_string(id) + " setConsumerBuffer(" + described +
         ") = " + std::to_string(status);
}

std::string ModelDriver::poolReleaseOrResume(PoolHandle const& handle, bool release,
                                             Lines& expected) {
  int const id = handle.id;
  std::string const text =
      "pool #" + std::to_string(id) + (release ? " setPoolReleased()" : " setPoolResume()");
  if (release && mHeld) {
    return text + " skipped: the queues are held";
  }
  int const status = release ? handle.pool->setPoolReleased() : handle.pool->setPoolResume();
  if (release) {
    mWorld.pool(id).setPoolReleased(expected);
  } else {
    mWorld.pool(id).setPoolResume();
  }
  expectEqual(release ? "setPoolReleased status" : "setPoolResume status", 0, status);
  return text;
}

std::string ModelDriver::accessors() {
  PoolHandle* handle = pickPool();
  if (handle == nullptr) {
    return "accessors: no pool held";
  }
  PoolModel& model = mWorld.pool(handle->id);
  IGainMapBufPool& pool = *handle->pool;
  expectEqual("getUniKey", model.uniKey(), pool.getUniKey());
  expectEqual("getMaxSlotCount", model.maxSlotCount(), pool.getMaxSlotCount());
  expectEqual("getBufBatchSize", model.geometry().batchSize, pool.getBufBatchSize());
  auto const params = pool.getPoolImgParams();
  auto const& expected = model.geometry().imgParams;
  expectEqual("getPoolImgParams entries", static_cast<long long>(expected.size()),
              static_cast<long long>(params.size()));
  for (auto const& [mode, want] : expected) {
    auto got = params.find(mode);
    if (got == params.end()) {
      mProblems.push_back("getPoolImgParams has no mode " + std::to_string(mode));
      continue;
    }
    expectEqual("image format", want.imgFormat, got->second.imgFormat);
    expectEqual("gain-map width", want.imgSize.w, got->second.imgSize.w);
    expectEqual("gain-map height", want.imgSize.h, got->second.imgSize.h);
    expectEqual("row stride", static_cast<long long>(want.strideInBytes),
                static_cast<long long>(got->second.strideInBytes));
    expectEqual("usage", want.usage, got->second.usage);
  }
  return "pool #" + std::to_string(handle->id) + " accessors";
}

std::string ModelDriver::dropSlot() {
  if (mSlots.empty()) {
    return "drop a slot: none held";
  }
  size_t const which = mSource.below(static_cast<uint32_t>(mSlots.size()));
  std::string const text = "drop slot handle of pool #" + std::to_string(mSlots[which].poolId) +
                           " index " + std::to_string(mSlots[which].index);
  dropSlotHandle(which);
  return text;
}

std::string ModelDriver::holdOrRelease() {
  if (mHeld) {
    qelcam::host::releaseQueues();
    mHeld = false;
    return "releaseQueues";
  }
  if (mSource.below(4) != 0) {
    return "holdQueues: not this time";
  }
  qelcam::host::holdQueues();
  mHeld = true;
  return "holdQueues";
}

std::string ModelDriver::platformChange() {
  if (mSource.below(2) == 0) {
    int const failAt = static_cast<int>(mSource.below(4)) - 2;
    mWorld.platform.failLockAt = failAt < 0 ? -1 : failAt;
    qelcam::host::failLockBufAt(mWorld.platform.failLockAt);
    return "failLockBufAt(" + std::to_string(mWorld.platform.failLockAt) + ")";
  }
  bool const wide = mSource.below(2) == 0;
  mWorld.platform.gainMapFormat =
      wide ? qelcam::host::kFormatGainMap16 : qelcam::host::kFormatGainMap8;
  mWorld.platform.bitsPerPixel = wide ? 16 : 8;
  qelcam::host::setGainMapFormats({mWorld.platform.gainMapFormat});
  return std::string("gain-map format ") + (wide ? "16" : "8") + " bits";
}

ModelDriver::PoolHandle* ModelDriver::pickPool() {
  if (mPools.empty()) {
    return nullptr;
  }
  return &mPools[mSource.below(static_cast<uint32_t>(mPools.size()))];
}

std::shared_ptr<ModelDriver::BufSlot> ModelDriver::pickSlotArgument(int poolId, SlotKind kind,
                                                                    std::string& described) {
  std::vector<size_t> own;
  for (size_t i = 0; i < mSlots.size(); ++i) {
    if (mSlots[i].poolId == poolId && mSlots[i].kind == kind) {
      own.push_back(i);
    }
  }
  uint32_t const choice = mSource.below(10);
  if (choice < 6 && !own.empty()) {
    // Mostly the slot lent last, as a pipeline stage returns it.
    size_t const pickOwn =
        choice < 4 ? own.size() - 1 : mSource.below(static_cast<uint32_t>(own.size()));
    SlotHandle const& handle = mSlots[own[pickOwn]];
    described = "its own slot " + std::to_string(handle.index);
    return handle.slot;
  }
  if (choice < 8 && !mSlots.empty()) {
    SlotHandle const& handle = mSlots[mSource.below(static_cast<uint32_t>(mSlots.size()))];
    described =
        "slot " + std::to_string(handle.index) + " of pool #" + std::to_string(handle.poolId);
    return handle.slot;
  }
  if (choice == 8) {
    described = "no slot";
    return nullptr;
  }
  // A slot the client made up.
  constexpr int kIndices[] = {-1, 0, 1, 3, 5, 47, INT_MIN, INT_MAX};
  auto made = std::make_shared<BufSlot>();
  made->index = pick(mSource, kIndices);
  described = "a made-up slot " + std::to_string(made->index);
  if (mSource.below(2) == 0) {
    keepSlot(made, -1, made->index, SlotKind::Made);
  }
  return made;
}

void ModelDriver::keepSlot(std::shared_ptr<BufSlot> slot, int poolId, int index, SlotKind kind) {
  if (mSlots.size() >= kMaxSlotHandles) {
    dropSlotHandle(mSource.below(static_cast<uint32_t>(mSlots.size())));
  }
  if (poolId >= 0) {
    mWorld.addSlotRef(poolId, index);
  }
  mSlots.push_back({std::move(slot), poolId, index, kind});
}

void ModelDriver::forgetReturned(std::shared_ptr<BufSlot> const& slot, SlotKind kind) {
  // Half the time the client keeps the pointer, to misuse it later.
  if (mSource.below(2) == 0) {
    return;
  }
  for (size_t i = 0; i < mSlots.size(); ++i) {
    if (mSlots[i].slot == slot && mSlots[i].kind == kind) {
      dropSlotHandle(i);
      return;
    }
  }
}

void ModelDriver::dropSlotHandle(size_t which) {
  SlotHandle handle = std::move(mSlots[which]);
  mSlots.erase(mSlots.begin() + static_cast<long>(which));
  handle.slot.reset();
  if (handle.poolId >= 0) {
    mWorld.dropSlotRef(handle.poolId, handle.index);
  }
}

void ModelDriver::keepPool(std::shared_ptr<IGainMapBufPool> pool, int id, Lines& expected) {
  if (mPools.size() >= kMaxPoolHandles) {
    size_t const which = mSource.below(static_cast<uint32_t>(mPools.size()));
    if (mHeld && mWorld.dropWouldDestroy(mPools[which].id)) {
      // The new reference is never the last one: the manager files the pool.
      return;
    }
    dropPoolHandle(which, expected);
  }
  mWorld.addPoolRef(id);
  mPools.push_back({std::move(pool), id});
}

void ModelDriver::dropPoolHandle(size_t which, Lines& expected) {
  PoolHandle handle = std::move(mPools[which]);
  mPools.erase(mPools.begin() + static_cast<long>(which));
  handle.pool.reset();
  mWorld.dropPoolRef(handle.id, expected);
}

void ModelDriver::drain(Lines& expected) {
  if (mHeld) {
    return;
  }
  qelcam::host::waitQueuesIdle();
  mWorld.runQueued(expected);
}

void ModelDriver::expectEqual(char const* what, long long expected, long long actual) {
  if (expected != actual) {
    mProblems.push_back(std::string(what) + ": model " + std::to_string(expected) + ", library " +
                        std::to_string(actual));
  }
}

std::string ModelDriver::compareLines(Lines const& expectedLines) {
  Lines actual;
  for (qelcam::host::LogRecord const& record : mCapture.records()) {
    if (record.sink != qelcam::host::LogRecord::Sink::Logger) {
      continue;
    }
    if (record.tag != kTag || record.moduleId != kModuleId) {
      mProblems.push_back("line with tag " + record.tag + ": " + record.text);
    }
    bool const cut = record.text.size() >= kLineLimit;
    if (cut ? record.length < static_cast<int>(kLineLimit)
            : record.length != static_cast<int>(record.text.size())) {
      mProblems.push_back("line of " + std::to_string(record.text.size()) +
                          " bytes given as length " + std::to_string(record.length) + ": " +
                          record.text);
    }
    bool const isDump = record.text.rfind("[dump] ", 0) == 0;
    if (record.level == kError || record.level == kWarning || record.level == kInfo ||
        (record.level == kDebug && isDump)) {
      actual.push_back({record.level, record.text});
    }
  }
  auto order = [](Line const& a, Line const& b) {
    return a.level != b.level ? a.level < b.level : a.text < b.text;
  };
  Lines exact;
  for (Line line : expectedLines) {
    if (line.text.size() > kLineLimit) {
      line.text.resize(kLineLimit);
    }
    exact.push_back(line);
  }
  std::sort(exact.begin(), exact.end(), order);
  std::sort(actual.begin(), actual.end(), order);
  Lines missing;
  Lines unexpected;
  std::set_difference(exact.begin(), exact.end(), actual.begin(), actual.end(),
                      std::back_inserter(missing), order);
  std::set_difference(actual.begin(), actual.end(), exact.begin(), exact.end(),
                      std::back_inserter(unexpected), order);
  std::string differences;
  if (!missing.empty()) {
    differences += "lines the model expects, not logged:\n" + describe(missing);
  }
  if (!unexpected.empty()) {
    differences += "lines logged that the model does not expect:\n" + describe(unexpected);
  }
  return differences;
}

void ModelDriver::checkLines(Lines const& expected) {
  std::string const differences = compareLines(expected);
  if (!differences.empty()) {
    mProblems.push_back(differences);
  }
}

void ModelDriver::checkDumps() {
  mCapture.clear();
  Lines expected;
  mManager->dump();
  mWorld.dump(expected);
  for (int id : mWorld.poolsOutsideManager()) {
    for (PoolHandle const& handle : mPools) {
      if (handle.id == id) {
        handle.pool->dump();
        mWorld.pool(id).dump(expected);
        break;
      }
    }
  }
  std::string const differences = compareLines(expected);
  if (!differences.empty()) {
    mProblems.push_back("state dumps after the step differ:\n" + differences);
  }
}

void ModelDriver::checkSlots() {
  for (SlotHandle const& handle : mSlots) {
    if (handle.poolId < 0) {
      continue;
    }
    SlotModel const* model = mWorld.pool(handle.poolId).slot(handle.index);
    BufSlot const& slot = *handle.slot;
    std::string const which =
        "slot " + std::to_string(handle.index) + " of pool #" + std::to_string(handle.poolId) + " ";
    expectEqual((which + "index").c_str(), model->index, slot.index);
    expectEqual((which + "validSize").c_str(), model->validSize, slot.validSize);
    expectEqual((which + "buffers").c_str(), static_cast<long long>(model->buffers),
                static_cast<long long>(slot.buffers.size()));
    expectEqual((which + "buffersBySize").c_str(), static_cast<long long>(model->sizeKeys),
                static_cast<long long>(slot.buffersBySize.size()));
    expectEqual((which + "useSizeMap").c_str(), model->useSizeMap, slot.useSizeMap);
    expectEqual((which + "reserved").c_str(), 0, slot.reserved[0] | slot.reserved[1]);
    // A lent buffer always has memory behind it.
    for (auto const& buffer : slot.buffers) {
      if (buffer->getBufSizeInBytes(0) == 0) {
        mProblems.push_back(which + "holds a buffer of 0 bytes");
      }
    }
  }
}

void ModelDriver::checkHeaps() {
  qelcam::host::HeapStats const now = qelcam::host::heapStats();
  HeapTotals const model = mWorld.heaps();
  expectEqual("image heaps created", static_cast<long long>(model.heapsCreated),
              static_cast<long long>(now.heapsCreated - mBaseline.heapsCreated));
  expectEqual("image heaps alive", static_cast<long long>(model.heapsAlive),
              static_cast<long long>(now.heapsAlive - mBaseline.heapsAlive));
  expectEqual("image bytes alive", static_cast<long long>(model.bytesAlive),
              static_cast<long long>(now.bytesAlive - mBaseline.bytesAlive));
  expectEqual("image buffers locked", static_cast<long long>(model.buffersLocked),
              static_cast<long long>(now.buffersLocked - mBaseline.buffersLocked));
  expectEqual("image buffers dropped while locked", static_cast<long long>(model.droppedLocked),
              static_cast<long long>(now.buffersDroppedLocked - mBaseline.buffersDroppedLocked));
}

void ModelDriver::checkIdentity(std::shared_ptr<BufSlot> const& slot, int poolId, int index) {
  for (SlotHandle const& held : mSlots) {
    if (held.poolId < 0) {
      continue;
    }
    bool const same = held.poolId == poolId && held.index == index;
    if (same != (held.slot == slot)) {
      mProblems.push_back(
          "slot " + std::to_string(index) + " of pool #" + std::to_string(poolId) +
          (same ? " is another object than before" : " is the object of slot ") +
          (same ? "" : std::to_string(held.index) + " of pool #" + std::to_string(held.poolId)));
    }
  }
}

}  // namespace gainmap_model
