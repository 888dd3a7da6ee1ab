#include "ModelDriver.h"

#include <android/log.h>

#include <algorithm>
#include <climits>
#include <set>
#include <sstream>
#include <utility>
#include <vector>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "PoolModel.h"
#include "camsys/ULog.h"

namespace gainmap_model {
namespace {

namespace host = qelcam::host;
using NSCam::MSize;
using NSCam::v3::Utils::IGainMapBufPool;
using BufSlot = IGainMapBufPool::BufSlot;

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
// Indices of slots the client makes up.
constexpr int kMadeIndices[] = {-1, 0, 1, 3, 5, 47, INT_MIN, INT_MAX};

// The library's lines are checked through the capture; printing them would only flood the output.
void discardLine(__android_logger_data const*, char const*) {}

template <class T, size_t N>
T const& pick(ChoiceSource& source, T const (&values)[N]) {
  return values[source.below(N)];
}

template <class... Parts>
std::string cat(Parts const&... parts) {
  std::ostringstream text;
  (text << ... << parts);
  return text.str();
}

std::string describe(std::vector<std::string> const& texts) {
  std::string text = texts.empty() ? "    none\n" : "";
  for (std::string const& line : texts) {
    text += "    " + line + "\n";
  }
  return text;
}

class Episode {
 public:
  Episode(ChoiceSource& source, std::ostream* trace)
      : mSource(source),
        mTrace(trace),
        mManager(NSCam::v3::Utils::IGainMapBufPoolManager::getInstance()),
        mBaseline(host::heapStats()) {
    // Every class through, to the logger sink only; dumps are built only when debug lines pass.
    mGates.set(0x2, 5, NSCam::Utils::ULog::ULogger::sNormalDetailsMask | 0x201000);
    __android_log_set_logger(discardLine);
    mWorld.platform = {host::kFormatGainMap8, 8, -1};
    host::setGainMapFormats({host::kFormatGainMap8});
    host::failLockBufAt(-1);
    // A call that waits for a held queue (a release, a pool's destruction) runs its queued steps
    // itself, as the model does.
    host::setWaitRunsHeldTasks(true);
  }

  ~Episode() {
    host::clearProperty(kDebugProperty);
    host::setGainMapFormats({host::kFormatGainMap8});
    host::failLockBufAt(-1);
    host::setWaitRunsHeldTasks(false);
    __android_log_set_logger(__android_log_stderr_logger);
  }

  bool step() {
    if (!begin()) {
      return false;
    }
    Lines expected;
    mOperation = perform(expected);
    if (mTrace != nullptr) {
      *mTrace << "step " << mStep << ": " << mOperation << "\n";
    }
    drain(expected);
    checkLines(expected, "");
    checkDumps();
    checkSlots();
    checkHeaps();
    return agreed();
  }

  // Lets go of everything, as also after a divergence, and checks the clean-up unless one came.
  bool finish() {
    bool const checked = begin();
    mOperation = "finish: let go of every slot and pool, destroy every pool";
    Lines expected;
    if (mHeld) {
      host::releaseQueues();
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
    if (!checked) {
      return false;
    }
    checkLines(expected, "");
    checkHeaps();
    expectEqual("image heaps the model keeps at the end", 0, mWorld.heaps().heapsAlive);
    return agreed();
  }

  uint64_t steps() const { return mStep; }
  std::string const& divergence() const { return mDivergence; }

 private:
  struct PoolHandle {
    std::shared_ptr<IGainMapBufPool> pool;
    int id;
  };
  enum class SlotKind { Producer, Consumer, Made };
  struct SlotHandle {
    std::shared_ptr<BufSlot> slot;
    int poolId;  // the pool that lent it; -1 for a slot the client made
    int index;
    SlotKind kind;
  };

  // Starts a step; false once a step has diverged.
  bool begin() {
    if (!mDivergence.empty()) {
      return false;
    }
    ++mStep;
    mProblems.clear();
    mCapture.clear();
    return true;
  }

  // Whether the step found no problem; otherwise files its divergence, the step and its problems.
  bool agreed() {
    if (mProblems.empty()) {
      return true;
    }
    mDivergence = cat("step ", mStep, ": ", mOperation, "\n");
    for (std::string const& problem : mProblems) {
      mDivergence += "  " + problem + "\n";
    }
    return false;
  }

  std::string perform(Lines& expected) {
    using ClientCall = std::string (Episode::*)(Lines&);
    using PoolCall = std::string (Episode::*)(PoolHandle const&, Lines&);
    // Lending calls dominate, as in a camera pipeline: a pool's call weighs twice a client's. The
    // client's calls keep the pools changing under them.
    static constexpr ClientCall kClientCalls[] = {
        &Episode::createPool,      &Episode::createPool,    &Episode::getPool,
        &Episode::releaseOrResume, &Episode::dropPool,      &Episode::dropPool,
        &Episode::destroyAllPools, &Episode::holdOrRelease, &Episode::platformChange};
    static constexpr PoolCall kPoolCalls[] = {
        // As often as each weighs.
        &Episode::getProducerBuffer,  &Episode::getProducerBuffer, &Episode::getProducerBuffer,
        &Episode::getProducerBuffer,  &Episode::getProducerBuffer, &Episode::getProducerBuffer,
        &Episode::getProducerBuffer,  &Episode::setProducerBuffer, &Episode::setProducerBuffer,
        &Episode::setProducerBuffer,  &Episode::getConsumerBuffer, &Episode::getConsumerBuffer,
        &Episode::getConsumerBuffer,  &Episode::setConsumerBuffer, &Episode::setConsumerBuffer,
        &Episode::poolReleaseOrResume};
    constexpr uint32_t kClients = std::size(kClientCalls);
    uint32_t const call = mSource.below(kClients + 2 * std::size(kPoolCalls));
    if (call < kClients) {
      return (this->*kClientCalls[call])(expected);
    }
    // Without a pool handle, the client asks the manager for one.
    if (mPools.empty()) {
      return getPool(expected);
    }
    PoolHandle const handle = mPools[mSource.below(static_cast<uint32_t>(mPools.size()))];
    return (this->*kPoolCalls[(call - kClients) / 2])(handle, expected);
  }

  PoolParameters drawParameters() {
    PoolParameters params;
    params.sensorId = pick(mSource, kSensorIds);
    params.uniKey = pick(mSource, kUniKeys);
    params.batchSize = mSource.below(5);
    params.slotCount = pick(mSource, kSlotCounts);
    uint32_t const shape = mSource.below(10);
    if (shape < 9) {
      // One mode, or several of which two may share a sensor size.
      uint32_t const modes = shape < 6 ? 1 : 2 + mSource.below(2);
      for (uint32_t m = 0; m < modes; ++m) {
        // Drawn in turn, so that every compiler replays the same sequence.
        uint32_t const mode = pick(mSource, kModes);
        params.sensorSizes.emplace(mode, pick(mSource, kSizes));
      }
      return params;
    }
    // Parameters that cannot make a working pool; a batch size or slot count of 0 keeps the
    // one drawn.
    struct Unworkable {
      uint32_t batchSize;
      uint32_t slotCount;
      std::vector<MSize> sizes;
    };
    static Unworkable const kUnworkable[] = {{0, 0, {}},
                                             {0, 0, {MSize(0, 3000)}},
                                             {0, 0, {MSize(0, 0)}},
                                             {0, 0, {MSize(-4000, 3000), MSize(4000, 2250)}},
                                             {0, 0, {MSize(4000, 0)}},
                                             {0, kSlotCountBound, {MSize(5760, 160)}},
                                             {0, 0x80000000u, {MSize(5760, 160)}},
                                             {0, 0xffffffffu, {MSize(5760, 160)}},
                                             {0x10000, 0, {MSize(4000, 3000)}},
                                             {0, 0, {MSize(1, 100000)}},
                                             {9000, 0, {MSize(4000, 3000)}}};
    Unworkable const& row = pick(mSource, kUnworkable);
    params.batchSize = row.batchSize != 0 ? row.batchSize : params.batchSize;
    params.slotCount = row.slotCount != 0 ? row.slotCount : params.slotCount;
    for (size_t mode = 0; mode < row.sizes.size(); ++mode) {
      params.sensorSizes.emplace(static_cast<unsigned int>(mode), row.sizes[mode]);
    }
    return params;
  }

  std::string createPool(Lines& expected) {
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
    if (verbose) {
      host::setProperty(kDebugProperty, "1");
    } else {
      host::clearProperty(kDebugProperty);
    }
    expectEqual("createPool status", 0, mManager->createPool(params, lagging));
    mWorld.createPool(params, lagging, expected);
    return text.str();
  }

  int32_t drawSensorId() {
    return mSource.below(6) == 0 ? kUnknownSensorId : pick(mSource, kSensorIds);
  }

  std::string getPool(Lines& expected) {
    int32_t const sensorId = drawSensorId();
    std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensorId);
    int const id = mWorld.getPool(sensorId, expected);
    expectEqual("getPool gives a pool", id >= 0, pool != nullptr);
    if (pool && id >= 0) {
      keepPool(std::move(pool), id, expected);
    }
    return cat("getPool(", sensorId, ") = #", id);
  }

  std::string releaseOrResume(Lines& expected) {
    bool const release = mSource.below(2) == 0;
    int32_t const sensorId = drawSensorId();
    std::string const text = cat(release ? "releasePool(" : "resumePool(", sensorId, ")");
    int const status = release ? mManager->releasePool(sensorId) : mManager->resumePool(sensorId);
    expectEqual(text + " status", mWorld.releaseOrResumePool(release, sensorId, expected), status);
    return text;
  }

  std::string destroyAllPools(Lines& expected) {
    int32_t const uniKey = mSource.below(5) == 0 ? kUnusedUniKey : pick(mSource, kUniKeys);
    std::string const text = cat("destroyAllPools(", uniKey, ")");
    expectEqual("destroyAllPools status", 0, mManager->destroyAllPools(uniKey));
    mWorld.destroyAllPools(uniKey, expected);
    return text;
  }

  std::string dropPool(Lines& expected) {
    if (mPools.empty()) {
      return "drop a pool: none held";
    }
    size_t const which = mSource.below(static_cast<uint32_t>(mPools.size()));
    std::string const text = cat("drop pool #", mPools[which].id);
    dropPoolHandle(which, expected);
    return text;
  }

  // The producer takes the next slot and mostly hands it back filled at once, a frame's whole
  // turn; otherwise the client keeps it, to return or misuse later.
  std::string getProducerBuffer(PoolHandle const& handle, Lines& expected) {
    PoolModel& model = mWorld.pool(handle.id);
    std::shared_ptr<BufSlot> slot = heldCall([&] { return handle.pool->getProducerBuffer(); });
    int const index = model.getProducerBuffer(expected);
    std::string const text = cat("pool #", handle.id, " getProducerBuffer() = ", index);
    if (!checkLent(true, slot, handle.id, index)) {
      return text;
    }
    if (mSource.below(7) >= 4) {
      keepSlot(std::move(slot), handle.id, index, SlotKind::Producer);
      return text;
    }
    long const key = ++mLastKey;
    int const validSize = static_cast<int>(model.slot(index)->buffers);
    int const status =
        heldCall([&] { return handle.pool->setProducerBuffer(key, validSize, slot); });
    checkReturned(SlotKind::Producer, model.setProducerBuffer(key, validSize, index, expected),
                  status, nullptr);
    return cat(text, ", setProducerBuffer(key=", key, ", validSize=", validSize, ") = ", status);
  }

  std::string setProducerBuffer(PoolHandle const& handle, Lines& expected) {
    std::string described;
    std::shared_ptr<BufSlot> slot = pickSlotArgument(handle.id, SlotKind::Producer, described);
    int const index = slot ? slot->index : -1;
    SlotModel const* own = mWorld.pool(handle.id).slot(index);
    // Mostly the size the slot holds; now and then none, a negative one or one too many.
    int const fits = own != nullptr ? static_cast<int>(own->buffers) : 1;
    constexpr int kValidSizes[] = {0, -1, INT_MIN};
    uint32_t const bend = mSource.below(16);
    int const validSize = bend < 3 ? kValidSizes[bend] : bend == 3 ? fits + 1 : fits;
    // Mostly a new key; now and then 0, a negative one or the largest.
    long const next = ++mLastKey;
    uint32_t const keyBend = mSource.below(10);
    long const key = keyBend < 7 ? next : keyBend == 7 ? 0 : keyBend == 8 ? -next : LONG_MAX;
    int const status =
        heldCall([&] { return handle.pool->setProducerBuffer(key, validSize, slot); });
    checkReturned(SlotKind::Producer,
                  mWorld.pool(handle.id).setProducerBuffer(key, validSize, index, expected), status,
                  slot);
    return cat("pool #", handle.id, " setProducerBuffer(key=", key, ", validSize=", validSize, ", ",
               described, ") = ", status);
  }

  std::string getConsumerBuffer(PoolHandle const& handle, Lines& expected) {
    PoolModel& model = mWorld.pool(handle.id);
    uint32_t const choice = mSource.below(8);
    int const index = choice < 6 && model.slotCount() > 0
                          ? static_cast<int>(mSource.below(model.slotCount()))
                          : static_cast<int>(mSource.below(model.maxSlotCount() + 3)) - 1;
    SlotModel const* target = model.slot(index);
    long key = target != nullptr ? static_cast<long>(target->key) : mLastKey;
    if (choice == 7) {
      key ^= 1;
    }
    std::shared_ptr<BufSlot> slot =
        heldCall([&] { return handle.pool->getConsumerBuffer(key, index); });
    int const lent = model.getConsumerBuffer(key, index, expected);
    if (checkLent(false, slot, handle.id, lent)) {
      keepSlot(std::move(slot), handle.id, lent, SlotKind::Consumer);
    }
    return cat("pool #", handle.id, " getConsumerBuffer(key=", key, ", index=", index,
               ") = ", lent);
  }

  std::string setConsumerBuffer(PoolHandle const& handle, Lines& expected) {
    std::string described;
    std::shared_ptr<BufSlot> slot = pickSlotArgument(handle.id, SlotKind::Consumer, described);
    int const index = slot ? slot->index : -1;
    int const status = heldCall([&] { return handle.pool->setConsumerBuffer(slot); });
    checkReturned(SlotKind::Consumer, mWorld.pool(handle.id).setConsumerBuffer(index, expected),
                  status, slot);
    return cat("pool #", handle.id, " setConsumerBuffer(", described, ") = ", status);
  }

  std::string poolReleaseOrResume(PoolHandle const& handle, Lines& expected) {
    bool const release = mSource.below(2) == 0;
    std::string const call = release ? "setPoolReleased" : "setPoolResume";
    std::string const text = cat("pool #", handle.id, " ", call, "()");
    int const status = release ? handle.pool->setPoolReleased() : handle.pool->setPoolResume();
    mWorld.pool(handle.id).releaseOrResume(release, expected);
    expectEqual(call + " status", 0, status);
    return text;
  }

  std::string holdOrRelease(Lines&) {
    if (mHeld) {
      host::releaseQueues();
      mHeld = false;
      return "releaseQueues";
    }
    if (mSource.below(4) != 0) {
      return "holdQueues: not this time";
    }
    host::holdQueues();
    mHeld = true;
    return "holdQueues";
  }

  std::string platformChange(Lines&) {
    if (mSource.below(2) == 0) {
      int const failAt = static_cast<int>(mSource.below(4)) - 2;
      mWorld.platform.failLockAt = failAt < 0 ? -1 : failAt;
      host::failLockBufAt(mWorld.platform.failLockAt);
      return cat("failLockBufAt(", mWorld.platform.failLockAt, ")");
    }
    bool const wide = mSource.below(2) == 0;
    mWorld.platform.gainMapFormat = wide ? host::kFormatGainMap16 : host::kFormatGainMap8;
    mWorld.platform.bitsPerPixel = wide ? 16 : 8;
    host::setGainMapFormats({mWorld.platform.gainMapFormat});
    return cat("gain-map format ", mWorld.platform.bitsPerPixel, " bits");
  }

  // The slot argument of a set call: mostly a slot of `kind` lent by this pool.
  std::shared_ptr<BufSlot> pickSlotArgument(int poolId, SlotKind kind, std::string& described) {
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
      described = cat("its own slot ", handle.index);
      return handle.slot;
    }
    if (choice < 8 && !mSlots.empty()) {
      SlotHandle const& handle = mSlots[mSource.below(static_cast<uint32_t>(mSlots.size()))];
      described = cat("slot ", handle.index, " of pool #", handle.poolId);
      return handle.slot;
    }
    if (choice == 8) {
      described = "no slot";
      return nullptr;
    }
    auto made = std::make_shared<BufSlot>();
    made->index = pick(mSource, kMadeIndices);
    described = cat("a made-up slot ", made->index);
    if (mSource.below(2) == 0) {
      keepSlot(made, -1, made->index, SlotKind::Made);
    }
    return made;
  }

  // Whether both lent a slot; checks the slot the library lent against the model's.
  bool checkLent(bool producer, std::shared_ptr<BufSlot> const& slot, int poolId, int index) {
    char const* call = producer ? "getProducerBuffer" : "getConsumerBuffer";
    expectEqual(cat(call, " lends a slot"), index >= 0, slot != nullptr);
    if (!slot || index < 0) {
      return false;
    }
    expectEqual(cat("index of the slot lent by ", call), index, slot->index);
    checkIdentity(slot, poolId, index);
    return true;
  }

  // After a set call: the statuses agree, and the handle of a returned slot mostly goes (a null
  // `slot` has none).
  void checkReturned(SlotKind kind, int modelStatus, int status,
                     std::shared_ptr<BufSlot> const& slot) {
    bool const producer = kind == SlotKind::Producer;
    expectEqual(producer ? "setProducerBuffer status" : "setConsumerBuffer status", modelStatus,
                status);
    // Half the time the client keeps the pointer, to misuse it later.
    if (status != 0 || slot == nullptr || mSource.below(2) == 0) {
      return;
    }
    for (size_t i = 0; i < mSlots.size(); ++i) {
      if (mSlots[i].slot == slot && mSlots[i].kind == kind) {
        dropSlotHandle(i);
        return;
      }
    }
  }

  void keepSlot(std::shared_ptr<BufSlot> slot, int poolId, int index, SlotKind kind) {
    // A full hand drops a slot at random without handing it back, as a careless client would.
    if (mSlots.size() >= kMaxSlotHandles) {
      dropSlotHandle(mSource.below(static_cast<uint32_t>(mSlots.size())));
    }
    if (poolId >= 0) {
      mWorld.pool(poolId).addSlotRef(index);
    }
    mSlots.push_back({std::move(slot), poolId, index, kind});
  }

  void dropSlotHandle(size_t which) {
    int const poolId = mSlots[which].poolId;
    int const index = mSlots[which].index;
    mSlots.erase(mSlots.begin() + static_cast<long>(which));
    if (poolId >= 0) {
      mWorld.pool(poolId).dropSlotRef(index);
    }
  }

  void keepPool(std::shared_ptr<IGainMapBufPool> pool, int id, Lines& expected) {
    if (mPools.size() >= kMaxPoolHandles) {
      size_t const which = mSource.below(static_cast<uint32_t>(mPools.size()));
      dropPoolHandle(which, expected);
    }
    mWorld.addPoolRef(id);
    mPools.push_back({std::move(pool), id});
  }

  void dropPoolHandle(size_t which, Lines& expected) {
    int const id = mPools[which].id;
    mPools.erase(mPools.begin() + static_cast<long>(which));
    mWorld.dropPoolRef(id, expected);
  }

  // Runs a client call that posts work with the queues held, so the call's own lines come first.
  template <class Call>
  auto heldCall(Call call) -> decltype(call()) {
    if (mHeld) {
      return call();
    }
    host::holdQueues();
    auto result = call();
    host::releaseQueues();
    return result;
  }

  void drain(Lines& expected) {
    if (!mHeld) {
      host::waitQueuesIdle();
      mWorld.runQueued(expected);
    }
  }

  template <class Model, class Library>
  void expectEqual(std::string const& what, Model model, Library library) {
    if (static_cast<long long>(model) != static_cast<long long>(library)) {
      mProblems.push_back(cat(what, ": model ", +model, ", library ", +library));
    }
  }

  // Files what differs between the lines the model expects and those captured.
  void checkLines(Lines const& expected, char const* what) {
    // Each line a sink received or the model expects, as "[level] text".
    std::multiset<std::string> want;
    for (Line const& line : expected) {
      want.insert(cat("[", line.level, "] ", line.text.substr(0, kLineLimit)));
    }
    std::multiset<std::string> got;
    for (host::LogRecord const& record : mCapture.records()) {
      if (record.sink != host::LogRecord::Sink::Logger) {
        continue;
      }
      if (record.tag != kTag || record.moduleId != kModuleId) {
        mProblems.push_back("line with tag " + record.tag + ": " + record.text);
      }
      bool const cut = record.text.size() >= kLineLimit;
      if (cut ? record.length < static_cast<int>(kLineLimit)
              : record.length != static_cast<int>(record.text.size())) {
        mProblems.push_back(cat("line of ", record.text.size(), " bytes given as length ",
                                record.length, ": ", record.text));
      }
      bool const isDump = record.text.rfind("[dump] ", 0) == 0;
      if (record.level == kError || record.level == kWarning || record.level == kInfo ||
          (record.level == kDebug && isDump)) {
        got.insert(cat("[", record.level, "] ", record.text));
      }
    }
    if (want != got) {
      std::vector<std::string> missing;
      std::vector<std::string> unexpected;
      std::set_difference(want.begin(), want.end(), got.begin(), got.end(),
                          std::back_inserter(missing));
      std::set_difference(got.begin(), got.end(), want.begin(), want.end(),
                          std::back_inserter(unexpected));
      mProblems.push_back(cat(what, "lines the model expects, not logged:\n", describe(missing),
                              "lines logged that the model does not expect:\n",
                              describe(unexpected)));
    }
  }

  void checkDumps() {
    mCapture.clear();
    Lines expected;
    mManager->dump();
    mWorld.dump(expected);
    for (int id : mWorld.poolsOutsideManager()) {
      auto held = std::find_if(mPools.begin(), mPools.end(),
                               [id](PoolHandle const& handle) { return handle.id == id; });
      if (held != mPools.end()) {
        held->pool->dump();
        mWorld.pool(id).dump(expected);
      }
    }
    checkLines(expected, "state dumps after the step differ:\n");
  }

  void checkSlots() {
    for (SlotHandle const& handle : mSlots) {
      if (handle.poolId < 0) {
        continue;
      }
      SlotModel const& model = *mWorld.pool(handle.poolId).slot(handle.index);
      BufSlot const& slot = *handle.slot;
      std::string const which = cat("slot ", handle.index, " of pool #", handle.poolId, " ");
      expectEqual(which + "index", model.index, slot.index);
      expectEqual(which + "validSize", model.validSize, slot.validSize);
      expectEqual(which + "buffers", model.buffers, slot.buffers.size());
      expectEqual(which + "buffersBySize", model.sizeKeys, slot.buffersBySize.size());
      expectEqual(which + "useSizeMap", model.useSizeMap, slot.useSizeMap);
      expectEqual(which + "reserved", 0, slot.reserved[0] | slot.reserved[1]);
      // A lent buffer always has memory behind it.
      for (auto const& buffer : slot.buffers) {
        if (buffer->getBufSizeInBytes(0) == 0) {
          mProblems.push_back(which + "holds a buffer of 0 bytes");
        }
      }
    }
  }

  void checkHeaps() {
    using Field = uint64_t host::HeapStats::*;
    static constexpr std::pair<char const*, Field> kFields[] = {
        {"image heaps created", &host::HeapStats::heapsCreated},
        {"image heaps alive", &host::HeapStats::heapsAlive},
        {"image bytes alive", &host::HeapStats::bytesAlive},
        {"image buffers locked", &host::HeapStats::buffersLocked},
        {"image buffers dropped while locked", &host::HeapStats::buffersDroppedLocked}};
    host::HeapStats const now = host::heapStats();
    HeapTotals const model = mWorld.heaps();
    for (auto const& [what, field] : kFields) {
      expectEqual(what, model.*field, now.*field - mBaseline.*field);
    }
  }

  void checkIdentity(std::shared_ptr<BufSlot> const& slot, int poolId, int index) {
    for (SlotHandle const& held : mSlots) {
      bool const same = held.poolId == poolId && held.index == index;
      if (held.poolId >= 0 && same != (held.slot == slot)) {
        mProblems.push_back(cat("slot ", index, " of pool #", poolId,
                                same ? " is another object than before" : " is the object of slot ",
                                same ? "" : cat(held.index, " of pool #", held.poolId)));
      }
    }
  }

  // First member: the gates go back last, after the destructor's own clean-up.
  host::LogGates mGates;
  ChoiceSource& mSource;
  std::ostream* mTrace;
  std::shared_ptr<NSCam::v3::Utils::IGainMapBufPoolManager> mManager;
  WorldModel mWorld;
  host::LogCapture mCapture;
  host::HeapStats mBaseline;
  std::vector<PoolHandle> mPools;
  std::vector<SlotHandle> mSlots;
  bool mHeld = false;
  int64_t mLastKey = 0;
  uint64_t mStep = 0;
  std::string mOperation;
  std::vector<std::string> mProblems;
  std::string mDivergence;
};

}  // namespace

uint32_t ChoiceSource::below(uint32_t bound) {
  if (mBytes) {
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
  mState += 0x9e3779b97f4a7c15ull;
  uint64_t z = mState;
  z = (z ^ (z >> 30)) * 0xbf58476d1ce4e5b9ull;
  z = (z ^ (z >> 27)) * 0x94d049bb133111ebull;
  z ^= z >> 31;
  return static_cast<uint32_t>(z % bound);
}

std::string runEpisode(ChoiceSource& source, uint64_t steps, std::ostream* trace) {
  Episode episode(source, trace);
  bool agreed = true;
  while (agreed && episode.steps() < steps && !source.exhausted()) {
    agreed = episode.step();
  }
  episode.finish();
  return episode.divergence();
}

}  // namespace gainmap_model
