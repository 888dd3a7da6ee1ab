// The simulation on a virtual clock. One thread plays the producers, the consumers, the release
// schedule and the scenarios as events in time order, and runs every step the pools post to their
// queues itself, at the virtual moment the step would finish: its post time, or the end of the
// queue's previous step, plus its allocation cost. The queues stay held throughout; a caller that
// waits for a step (a release's barrier, a pool's destruction) runs it at once. Nothing depends on
// the wall clock, so the same options and seed give the same figures.

#include <algorithm>
#include <cstdint>
#include <memory>
#include <queue>
#include <string>
#include <vector>

#include "Hold.h"
#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "PoolClient.h"
#include "Simulation.h"
#include "camsys/Trace.h"

namespace gainmapsim {
namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Nanos = int64_t;

constexpr Nanos kSecond = 1000000000;
// How often, and how long at most, the teardown looks again for a consumer that holds a slot.
constexpr Nanos kTeardownRetry = kSecond / 1000;
constexpr Nanos kTeardownWait = 2 * kSecond;

// The reason the pool traced for the latest refusal; the listener runs on the refused caller's
// thread, which is the only thread here.
thread_local Refusal tLastRefusal = Refusal::Unexplained;

enum class EventKind : uint8_t {
  Task,
  Return,
  Frame,
  ReleaseTick,
  Release,
  Resume,
  Reconfigure,
  Teardown
};

struct Event {
  Nanos at;
  uint64_t order;  // events of one moment run in the order they were scheduled
  EventKind kind;
  uint32_t sensor;
  uint32_t consumer;
  uint64_t number;  // the task's number, or the frame's
};

struct Later {
  bool operator()(Event const& a, Event const& b) const {
    return a.at != b.at ? a.at > b.at : a.order > b.order;
  }
};

struct Consumer {
  explicit Consumer(HoldSampler sampler) : holds(sampler) {}
  HoldSampler holds;
  // The borrowed frame, while one is held.
  Slot slot;
  std::shared_ptr<IGainMapBufPool> pool;
  long key = 0;
  uint64_t resumes = 0;  // resumes asked for when the frame was made
  Contents contents = Contents::Intact;
  Nanos since = 0;
};

struct Sensor {
  SensorConfig config;
  SensorReport report;
  std::vector<Consumer> consumers;
  Nanos slotCost = 0;        // allocating one slot's memory
  Nanos queueBusyUntil = 0;  // when the last step posted to the pool's queue finishes
  uint32_t rotation = 0;     // slots in the rotation, as the posted growth steps make it
  uint64_t resumes = 0;
};

class VirtualSimulation {
 public:
  explicit VirtualSimulation(Options const& options)
      : mOptions(options),
        mManager(IGainMapBufPoolManager::getInstance()),
        mEnd(Nanos{options.durationSec} * kSecond),
        mWarmUp(Nanos{options.warmUpSec} * kSecond) {
    uint32_t seed = options.seed;
    for (auto const& config : options.sensors) {
      mSensors.emplace_back();
      Sensor& sensor = mSensors.back();
      sensor.config = config;
      sensor.report.id = config.id;
      sensor.report.modes = config.modes.size();
      sensor.rotation = config.slots;
      for (int c = 0; c < options.consumers; ++c) {
        sensor.consumers.emplace_back(HoldSampler(config.hold.value_or(options.hold), seed++));
      }
    }
  }

  Report run() {
    qelcam::host::TraceListener refusals(
        [](qelcam::host::TraceEvent const& event) {
          if (auto const* reason = event.find("reason")) {
            tLastRefusal = refusalOf(reason->text);
          }
        },
        NSCam::Utils::Trace::kInstants);
    createPools();
    qelcam::host::holdQueues();
    qelcam::host::setWaitRunsHeldTasks(true);
    mLastTask = qelcam::host::tasksPosted();
    scheduleStart();
    while (!mEvents.empty()) {
      Event const event = mEvents.top();
      mEvents.pop();
      mNow = event.at;
      handle(event);
    }
    qelcam::host::setWaitRunsHeldTasks(false);
    qelcam::host::releaseQueues();
    return finish();
  }

 private:
  void createPool(Sensor& sensor) {
    mManager->createPool(poolParameters(sensor.config), sensor.config.lagging);
  }

  // Before the clock starts, as in real time: each pool made and lent memory, one after the other,
  // which also gives the size of its slots.
  void createPools() {
    for (auto& sensor : mSensors) {
      uint64_t const before = qelcam::host::heapStats().bytesAlive;
      createPool(sensor);
      qelcam::host::waitQueuesIdle();
      if (sensor.config.lagging) {
        resumePool(sensor);
        qelcam::host::waitQueuesIdle();
      }
      uint64_t const slotBytes =
          (qelcam::host::heapStats().bytesAlive - before) / std::max(sensor.config.slots, 1u);
      sensor.slotCost =
          static_cast<Nanos>(slotBytes * static_cast<uint64_t>(mOptions.allocCostUsPerMiB) * 1000 /
                             (uint64_t{1} << 20));
      if (auto pool = mManager->getPool(sensor.config.id)) {
        sensor.report.maxSlots = pool->getMaxSlotCount();
      }
      samplePeak();
    }
  }

  void scheduleStart() {
    for (uint32_t s = 0; s < mSensors.size(); ++s) {
      schedule(0, EventKind::Frame, s, 0, 0);
    }
    Nanos const period = Nanos{mOptions.releasePeriodMs} * 1000000;
    if (period > 0 && period < mEnd) {
      schedule(period, EventKind::ReleaseTick, 0, 0, 0);
    }
    if (mOptions.reconfigure) {
      schedule(mEnd / 2, EventKind::Reconfigure, 0, 0, 0);
    }
    if (mOptions.teardown) {
      schedule(mEnd * 3 / 4, EventKind::Teardown, 0, 0, 0);
    }
  }

  void schedule(Nanos at, EventKind kind, uint32_t sensor, uint32_t consumer, uint64_t number) {
    mEvents.push({at, mOrder++, kind, sensor, consumer, number});
  }

  void handle(Event const& event) {
    Sensor& sensor = mSensors[event.sensor];
    switch (event.kind) {
      case EventKind::Task:
        qelcam::host::runHeldTask(event.number);
        samplePeak();
        break;
      case EventKind::Return:
        giveBack(sensor, event.sensor, sensor.consumers[event.consumer]);
        break;
      case EventKind::Frame:
        produce(sensor, event.sensor, event.number);
        break;
      case EventKind::ReleaseTick:
        releaseTick();
        break;
      case EventKind::Release:
        release(sensor, event.sensor);
        break;
      case EventKind::Resume:
        resume(sensor, event.sensor);
        break;
      case EventKind::Reconfigure:
        reconfigure();
        break;
      case EventKind::Teardown:
        teardown();
        break;
    }
  }

  // The steps posted since the last look go to the sensor's queue, one after the other, each
  // finishing `cost` after the previous one (or after now).
  void queuePostedSteps(Sensor& sensor, uint32_t index, Nanos cost) {
    uint64_t const posted = qelcam::host::tasksPosted();
    for (uint64_t task = mLastTask + 1; task <= posted; ++task) {
      sensor.queueBusyUntil = std::max(mNow, sensor.queueBusyUntil) + cost;
      schedule(sensor.queueBusyUntil, EventKind::Task, index, 0, task);
    }
    mLastTask = posted;
  }

  void samplePeak() { mPeakBytes = std::max(mPeakBytes, qelcam::host::heapStats().bytesAlive); }

  Nanos frameTime(uint64_t frame) const {
    return static_cast<Nanos>(frame * uint64_t{kSecond} / static_cast<uint64_t>(mOptions.fps));
  }

  void produce(Sensor& sensor, uint32_t index, uint64_t frame) {
    if (frameTime(frame + 1) < mEnd) {
      schedule(frameTime(frame + 1), EventKind::Frame, index, 0, frame + 1);
    }
    SensorReport& tally = sensor.report;
    ++tally[Counter::FramesDue];
    bool const judged = mNow >= mWarmUp;
    tally.dueAfterWarmUp += judged ? 1 : 0;
    auto pool = mManager->getPool(sensor.config.id);
    if (!pool) {
      ++tally[mTornDown ? Counter::NoPoolAfterTeardown : Counter::NoPool];
      return;
    }
    tLastRefusal = Refusal::Unexplained;
    Slot slot = pool->getProducerBuffer();
    uint64_t const before = mLastTask;
    queuePostedSteps(sensor, index, sensor.slotCost);
    sensor.rotation = std::min<uint32_t>(
        sensor.rotation + static_cast<uint32_t>(mLastTask - before), sensor.report.maxSlots);
    if (!slot) {
      ++tally.producerRefusals[static_cast<size_t>(tLastRefusal)];
      if (judged) {
        countBusy(tally, tLastRefusal);
      }
      return;
    }
    long const key = static_cast<long>(mNow) + 1;
    int const validSize = static_cast<int>(slot->buffers.size());
    tally[Counter::ProducerEmptySlot] += validSize == 0 ? 1 : 0;
    if (!fill(slot, static_cast<size_t>(validSize), key, Coverage::Sparse)) {
      ++tally[Counter::Corrupted];
    }
    int32_t const slotIndex = slot->index;
    if (pool->setProducerBuffer(key, validSize, slot) != 0) {
      ++tally[Counter::ProducerSetFailed];
      return;
    }
    ++tally[Counter::Produced];
    tally.slotsUsed = std::max(tally.slotsUsed, static_cast<uint32_t>(slotIndex) + 1);
    mProducedAfterReconfigure += mReconfigured ? 1 : 0;
    // Every consumer that is free takes the new frame as it is published.
    for (uint32_t c = 0; c < sensor.consumers.size(); ++c) {
      if (!sensor.consumers[c].slot) {
        borrow(sensor, index, c, pool, key, slotIndex);
      }
    }
  }

  static void countBusy(SensorReport& tally, Refusal refusal) {
    if (refusal == Refusal::RotationAtMax) {
      ++tally.droppedAtMax;
    } else if (refusal == Refusal::HeldByConsumers || refusal == Refusal::NotReady ||
               refusal == Refusal::HeldByProducer) {
      ++tally.droppedGrowing;
    }
  }

  void borrow(Sensor& sensor, uint32_t index, uint32_t c,
              std::shared_ptr<IGainMapBufPool> const& pool, long key, int32_t slotIndex) {
    SensorReport& tally = sensor.report;
    tLastRefusal = Refusal::Unexplained;
    Slot slot = pool->getConsumerBuffer(key, slotIndex);
    if (!slot) {
      ++tally.consumerRefusals[static_cast<size_t>(tLastRefusal)];
      return;
    }
    ++tally[Counter::Consumed];
    Consumer& consumer = sensor.consumers[c];
    consumer.slot = std::move(slot);
    consumer.pool = pool;
    consumer.key = key;
    consumer.resumes = sensor.resumes;
    consumer.contents = inspect(consumer.slot, key, Coverage::Sparse);
    consumer.since = mNow;
    schedule(mNow + consumer.holds.nextNs(), EventKind::Return, index, c, 0);
  }

  void giveBack(Sensor& sensor, uint32_t index, Consumer& consumer) {
    SensorReport& tally = sensor.report;
    Contents contents = consumer.contents;
    // Nobody may touch a lent slot: the frame must still be as it was when it goes back.
    if (contents != Contents::Corrupt &&
        inspect(consumer.slot, consumer.key, Coverage::Sparse) != contents) {
      contents = Contents::Corrupt;
    }
    if (contents == Contents::Fresh && consumer.resumes < sensor.resumes) {
      ++tally[Counter::FreshUnderOldKey];
    } else if (contents != Contents::Intact) {
      ++tally[Counter::Corrupted];
    }
    if (consumer.pool->setConsumerBuffer(consumer.slot) != 0) {
      ++tally[Counter::ConsumerSetFailed];
    }
    tally.holds.push_back(mNow - consumer.since);
    consumer.slot.reset();
    // A replaced or removed pool goes with its last holder; its destruction waits for its queue.
    consumer.pool.reset();
    queuePostedSteps(sensor, index, 0);
  }

  void releaseTick() {
    if (mTornDown) {
      return;
    }
    for (uint32_t s = 0; s < mSensors.size(); ++s) {
      schedule(mNow, EventKind::Release, s, 0, 0);
    }
    Nanos const next = mNow + Nanos{mOptions.releasePeriodMs} * 1000000;
    if (next < mEnd) {
      schedule(next, EventKind::ReleaseTick, 0, 0, 0);
    }
  }

  // A release waits for the steps its pool's queue has before it, so it happens once they finish.
  void release(Sensor& sensor, uint32_t index) {
    if (mTornDown) {
      return;
    }
    if (sensor.queueBusyUntil > mNow) {
      schedule(sensor.queueBusyUntil, EventKind::Release, index, 0, 0);
      return;
    }
    ++sensor.report[Counter::Releases];
    if (mManager->releasePool(sensor.config.id) != 0) {
      ++sensor.report[Counter::ManagerRefused];
    }
    queuePostedSteps(sensor, index, 0);
    schedule(mNow + Nanos{mOptions.releaseTimeMs} * 1000000, EventKind::Resume, index, 0, 0);
  }

  void resumePool(Sensor& sensor) {
    ++sensor.resumes;
    if (mManager->resumePool(sensor.config.id) != 0) {
      ++sensor.report[Counter::ManagerRefused];
    }
  }

  // The resume step allocates the whole rotation again.
  void resume(Sensor& sensor, uint32_t index) {
    if (mTornDown) {
      return;
    }
    resumePool(sensor);
    queuePostedSteps(sensor, index, sensor.slotCost * sensor.rotation);
  }

  void reconfigure() {
    for (uint32_t s = 0; s < mSensors.size(); ++s) {
      Sensor& sensor = mSensors[s];
      mReplaced.push_back(mManager->getPool(sensor.config.id));
      createPool(sensor);
      sensor.rotation = sensor.config.slots;
      queuePostedSteps(sensor, s, sensor.config.lagging ? 0 : sensor.slotCost * sensor.rotation);
      if (sensor.config.lagging) {
        resume(sensor, s);
      }
    }
    mReconfigured = true;
  }

  void teardown() {
    uint64_t const held = heldSlots();
    if (held == 0 && mOptions.consumers > 0 && mNow < mEnd * 3 / 4 + kTeardownWait) {
      schedule(mNow + kTeardownRetry, EventKind::Teardown, 0, 0, 0);
      return;
    }
    mHeldAtTeardown = held;
    mTornDown = true;
    mManager->destroyAllPools(kUniKey);
    for (uint32_t s = 0; s < mSensors.size(); ++s) {
      queuePostedSteps(mSensors[s], s, 0);
    }
  }

  uint64_t heldSlots() const {
    uint64_t held = 0;
    for (auto const& sensor : mSensors) {
      for (auto const& consumer : sensor.consumers) {
        held += consumer.slot ? 1 : 0;
      }
    }
    return held;
  }

  Report finish() {
    Report report;
    for (auto& sensor : mSensors) {
      std::sort(sensor.report.holds.begin(), sensor.report.holds.end());
      report.sensors.push_back(std::move(sensor.report));
    }
    report.scenarios.reconfigured = mReconfigured;
    report.scenarios.producedAfterReconfigure = mProducedAfterReconfigure;
    report.scenarios.tornDown = mTornDown;
    report.scenarios.heldAtTeardown = mHeldAtTeardown;
    destroyPools(*mManager, mReplaced, report);
    report.peakImageBytes = mPeakBytes;
    return report;
  }

  Options const& mOptions;
  std::shared_ptr<IGainMapBufPoolManager> mManager;
  Nanos const mEnd;
  Nanos const mWarmUp;
  std::vector<Sensor> mSensors;
  std::priority_queue<Event, std::vector<Event>, Later> mEvents;
  uint64_t mOrder = 0;
  Nanos mNow = 0;
  uint64_t mLastTask = 0;  // the newest task number already scheduled
  uint64_t mPeakBytes = 0;
  bool mReconfigured = false;
  uint64_t mProducedAfterReconfigure = 0;
  bool mTornDown = false;
  uint64_t mHeldAtTeardown = 0;
  std::vector<std::weak_ptr<IGainMapBufPool>> mReplaced;
};

}  // namespace

Report runVirtualSimulation(Options const& options) {
  return VirtualSimulation(options).run();
}

}  // namespace gainmapsim
