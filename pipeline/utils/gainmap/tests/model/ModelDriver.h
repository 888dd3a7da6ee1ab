#pragma once

// Runs operation sequences through the library's exported interface and, step by step, checks
// what a client sees against the reference model: return values, the lines logged, every pool's
// dump, the fields of every slot the client holds, and the image memory alive.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <ostream>
#include <string>
#include <vector>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "PoolModel.h"

namespace gainmap_model {

// Where the choices come from: a seeded generator or a fuzzer's bytes.
class ChoiceSource {
 public:
  virtual ~ChoiceSource() = default;
  // A value below `bound`, which is at least 1.
  virtual uint32_t below(uint32_t bound) = 0;
  // Nothing left to decide from; further choices are 0.
  virtual bool exhausted() const = 0;
};

// splitmix64: the same sequence for a seed on every platform and standard library.
class SeededSource : public ChoiceSource {
 public:
  explicit SeededSource(uint64_t seed) : mState(seed) {}
  uint32_t below(uint32_t bound) override;
  bool exhausted() const override { return false; }

 private:
  uint64_t mState;
};

class ByteSource : public ChoiceSource {
 public:
  ByteSource(uint8_t const* data, size_t size) : mData(data), mSize(size) {}
  uint32_t below(uint32_t bound) override;
  bool exhausted() const override { return mPos >= mSize; }

 private:
  uint8_t const* mData;
  size_t mSize;
  size_t mPos = 0;
};

// What a run went through, to judge how much of the protocol it reached.
struct Tally {
  uint64_t poolsCreated = 0;
  uint64_t unworkablePools = 0;
  uint64_t producerLends = 0;
  uint64_t producerRefusals = 0;
  uint64_t producerReturns = 0;
  uint64_t consumerLends = 0;
  uint64_t consumerRefusals = 0;
  uint64_t consumerReturns = 0;
  uint64_t refusedReturns = 0;
  uint64_t stepsHeld = 0;

  Tally& operator+=(Tally const& other);
};

class ModelDriver {
 public:
  // `trace`, when given, receives one line per step.
  ModelDriver(ChoiceSource& source, std::ostream* trace);
  ~ModelDriver();
  ModelDriver(ModelDriver const&) = delete;
  ModelDriver& operator=(ModelDriver const&) = delete;

  // One operation and the checks after it; false once the library and the model differ.
  bool step();
  // Lets go of everything, destroys every pool and checks that no memory is left.
  bool finish();
  // What differed, at which step and in which operation.
  std::string const& divergence() const { return mDivergence; }
  uint64_t steps() const { return mStep; }
  Tally const& tally() const { return mTally; }

 private:
  using IGainMapBufPool = NSCam::v3::Utils::IGainMapBufPool;
  using BufSlot = IGainMapBufPool::BufSlot;

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

  // Whether the step found no problem; otherwise files its divergence, the step and its problems.
  bool agreed();
  std::string perform(Lines& expected);
  std::string createPool(Lines& expected);
  PoolParameters drawParameters();
  std::string getPool(Lines& expected);
  std::string releaseOrResume(bool release, Lines& expected);
  std::string destroyAllPools(Lines& expected);
  std::string dropPool(Lines& expected);
  // A producer's whole turn: take the next slot and hand it back filled. These calls act on a
  // pool handle the client holds.
  std::string frame(PoolHandle const& handle, Lines& expected);
  std::string getProducerBuffer(PoolHandle const& handle, Lines& expected);
  std::string setProducerBuffer(PoolHandle const& handle, Lines& expected);
  std::string getConsumerBuffer(PoolHandle const& handle, Lines& expected);
  std::string setConsumerBuffer(PoolHandle const& handle, Lines& expected);
  std::string poolReleaseOrResume(PoolHandle const& handle, bool release, Lines& expected);
  std::string accessors();
  std::string dropSlot();
  std::string holdOrRelease();
  std::string platformChange();

  // A pool handle, or null when the client holds none.
  PoolHandle* pickPool();
  // The slot argument of a set call: mostly a slot of `kind` lent by this pool.
  std::shared_ptr<BufSlot> pickSlotArgument(int poolId, SlotKind kind, std::string& described);
  void keepSlot(std::shared_ptr<BufSlot> slot, int poolId, int index, SlotKind kind);
  void dropSlotHandle(size_t which);
  // After a successful return, mostly lets go of the handle the slot was returned with.
  void forgetReturned(std::shared_ptr<BufSlot> const& slot, SlotKind kind);
  void keepPool(std::shared_ptr<IGainMapBufPool> pool, int id, Lines& expected);
  void dropPoolHandle(size_t which, Lines& expected);
  // Runs a client call that posts work with the queues held, so the call's own lines come first.
  template <class Call>
  auto heldCall(Call call);
  void drain(Lines& expected);

  void expectEqual(char const* what, long long expected, long long actual);
  // What differs between the lines the model expects and those captured; empty when they agree.
  std::string compareLines(Lines const& expected);
  void checkLines(Lines const& expected);
  void checkDumps();
  void checkSlots();
  void checkHeaps();
  void checkIdentity(std::shared_ptr<BufSlot> const& slot, int poolId, int index);

  // First member: the gates go back last, after the destructor's own clean-up.
  qelcam::host::LogGates mGates;
  ChoiceSource& mSource;
  std::ostream* mTrace;
  std::shared_ptr<NSCam::v3::Utils::IGainMapBufPoolManager> mManager;
  WorldModel mWorld;
  qelcam::host::LogCapture mCapture;
  qelcam::host::HeapStats mBaseline;
  std::vector<PoolHandle> mPools;
  std::vector<SlotHandle> mSlots;
  bool mHeld = false;
  int64_t mLastKey = 0;
  uint64_t mStep = 0;
  Tally mTally;
  std::string mOperation;
  std::vector<std::string> mProblems;
  std::string mDivergence;
};

}  // namespace gainmap_model
