#include "Simulation.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>

#include "Hold.h"
#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "PoolClient.h"
#include "camsys/Trace.h"

namespace gainmapsim {
namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Clock = std::chrono::steady_clock;
namespace trace = NSCam::Utils::Trace;

constexpr auto kSampleInterval = std::chrono::milliseconds(5);
// How long the teardown waits for a consumer to hold a slot before it goes ahead anyway.
constexpr auto kTeardownWait = std::chrono::seconds(2);
constexpr char kFlowCategory[] = "frame";

// The reason the pool traced for the latest refusal on this thread; the trace listener runs on
// the refused caller's own thread, before the call returns.
thread_local Refusal tLastRefusal = Refusal::Unexplained;

// The latest frame a producer published: its timestamp, the slot that holds it, and how many
// resumes its pool had been asked for when it was made.
struct Frame {
  uint64_t seq = 0;
  long key = 0;
  int32_t index = 0;
  uint64_t resumes = 0;
};

struct Sensor {
  SensorConfig config;
  size_t position = 0;
  // Set from just before releasePool until the resume task has run; for the progress line.
  std::atomic<bool> released{false};
  std::atomic<uint64_t> produced{0};
  std::atomic<uint64_t> consumed{0};
  std::atomic<uint64_t> resumes{0};
  std::atomic<int> holding{0};
  std::atomic<uint64_t> producedAfterReconfigure{0};

  std::mutex frameLock;
  std::condition_variable frameChanged;
  Frame latest;

  std::mutex reportLock;
  SensorReport report;
};

void merge(Sensor& sensor, SensorReport const& tally) {
  std::lock_guard<std::mutex> guard(sensor.reportLock);
  SensorReport& into = sensor.report;
  for (size_t i = 0; i < kCounterCount; ++i) {
    into.counts[i] += tally.counts[i];
  }
  for (size_t i = 0; i < kRefusalCount; ++i) {
    into.producerRefusals[i] += tally.producerRefusals[i];
    into.consumerRefusals[i] += tally.consumerRefusals[i];
  }
  into.slotsUsed = std::max(into.slotsUsed, tally.slotsUsed);
  for (size_t i = 0; i < kCallCount; ++i) {
    into.latencies[i].insert(into.latencies[i].end(), tally.latencies[i].begin(),
                             tally.latencies[i].end());
  }
  into.holds.insert(into.holds.end(), tally.holds.begin(), tally.holds.end());
}

template <typename Fn>
auto timed(SensorReport& tally, Call call, Fn&& fn) {
  auto begin = Clock::now();
  auto result = fn();
  tally.latencies[static_cast<size_t>(call)].push_back(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count());
  return result;
}

long frameTimestamp() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

void nameThread(std::string const& name) {
  pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
}

std::string sensorName(int32_t id) {
  return "s:" + std::to_string(id);
}

// A slice of the simulator's own on the calling thread, written only into a trace file.
class SimSlice {
 public:
  SimSlice(bool on, std::string const& name) : mOn(on) {
    if (mOn) {
      trace::beginSlice(name);
    }
  }
  ~SimSlice() {
    if (mOn) {
      trace::endSlice();
    }
  }
  SimSlice(SimSlice const&) = delete;
  SimSlice& operator=(SimSlice const&) = delete;

 private:
  bool const mOn;
};

class Simulation {
 public:
  explicit Simulation(Options const& options)
      : mOptions(options),
        mTraceFlows(!options.tracePath.empty()),
        mManager(IGainMapBufPoolManager::getInstance()) {
    for (auto const& config : options.sensors) {
      mSensors.push_back(std::make_unique<Sensor>());
      Sensor& sensor = *mSensors.back();
      sensor.config = config;
      sensor.position = mSensors.size() - 1;
      sensor.report.id = config.id;
      sensor.report.modes = config.modes.size();
    }
  }

  Report run() {
    // Refusals are learnt from the pool's refusal instants, which leave the lending calls'
    // timeline untraced (and their latencies as they are) unless a trace file is written.
    qelcam::host::TraceListener refusals(
        [](qelcam::host::TraceEvent const& event) {
          if (auto const* reason = event.find("reason")) {
            tLastRefusal = refusalOf(reason->text);
          }
        },
        trace::kInstants);
    createPools();
    startThreads();
    runSchedule();
    stopThreads();
    return finish();
  }

 private:
  void createPool(Sensor& sensor) {
    mManager->createPool(poolParameters(sensor.config), sensor.config.lagging);
  }

  void createPools() {
    for (auto const& sensor : mSensors) {
      createPool(*sensor);
    }
    // Creation runs on the pools' queues; the first frames should find finished pools.
    qelcam::host::waitQueuesIdle();
    for (auto const& sensor : mSensors) {
      // A pool that lags its allocation starts released; its client resumes it when needed.
      if (sensor->config.lagging) {
        resume(*sensor);
      }
      if (auto pool = mManager->getPool(sensor->config.id)) {
        sensor->report.maxSlots = pool->getMaxSlotCount();
      }
    }
    qelcam::host::waitQueuesIdle();
  }

  void startThreads() {
    uint32_t seed = mOptions.seed;
    for (auto const& sensor : mSensors) {
      mThreads.emplace_back([this, s = sensor.get()] { producerLoop(*s); });
      for (int c = 0; c < mOptions.consumers; ++c) {
        mThreads.emplace_back([this, s = sensor.get(), seed, c] { consumerLoop(*s, seed, c); });
        ++seed;
      }
    }
    mMonitor = std::thread([this] { monitorLoop(); });
  }

  void runSchedule() {
    nameThread("sim-schedule");
    auto const start = Clock::now();
    auto const end = start + std::chrono::seconds(mOptions.durationSec);
    auto const period = std::chrono::milliseconds(mOptions.releasePeriodMs);
    // Halfway the pools are replaced; at three quarters the client tears them down.
    auto reconfigureAt = mOptions.reconfigure ? start + (end - start) / 2 : end;
    auto teardownAt = mOptions.teardown ? start + (end - start) * 3 / 4 : end;
    auto nextRelease = mOptions.releasePeriodMs > 0 ? start + period : end;
    for (;;) {
      auto next = std::min({nextRelease, reconfigureAt, teardownAt});
      if (next >= end) {
        break;
      }
      std::this_thread::sleep_until(next);
      if (next == reconfigureAt) {
        reconfigure();
        reconfigureAt = end;
      } else if (next == teardownAt) {
        teardown();
        teardownAt = end;
        nextRelease = end;  // nothing is left to release
      } else {
        releaseCycle();
        nextRelease += period;
      }
    }
    std::this_thread::sleep_until(end);
  }

  void releaseCycle() {
    for (auto const& sensor : mSensors) {
      release(*sensor);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(mOptions.releaseTimeMs));
    for (auto const& sensor : mSensors) {
      resume(*sensor);
    }
    // The resume tasks have run once the queues are idle: the pools lend again.
    qelcam::host::waitQueuesIdle();
    for (auto const& sensor : mSensors) {
      sensor->released = false;
    }
  }

  void release(Sensor& sensor) {
    sensor.released = true;
    int status = mManager->releasePool(sensor.config.id);
    std::lock_guard<std::mutex> guard(sensor.reportLock);
    ++sensor.report[Counter::Releases];
    if (status != 0) {
      ++sensor.report[Counter::ManagerRefused];
    }
  }

  void resume(Sensor& sensor) {
    ++sensor.resumes;
    if (mManager->resumePool(sensor.config.id) != 0) {
      std::lock_guard<std::mutex> guard(sensor.reportLock);
      ++sensor.report[Counter::ManagerRefused];
    }
  }

  // A new configuration: every pool is replaced by createPool while frames are in flight.
  void reconfigure() {
    for (auto const& sensor : mSensors) {
      mReplaced.push_back(mManager->getPool(sensor->config.id));
      createPool(*sensor);
    }
    mReconfigured = true;
    qelcam::host::waitQueuesIdle();
    for (auto const& sensor : mSensors) {
      if (sensor->config.lagging) {
        resume(*sensor);
      }
    }
  }

  // The client goes away: destroyAllPools while consumers still hold slots.
  void teardown() {
    auto const giveUp = Clock::now() + kTeardownWait;
    while (heldSlots() == 0 && Clock::now() < giveUp) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    mHeldAtTeardown = heldSlots();
    mTornDown = true;
    mManager->destroyAllPools(kUniKey);
  }

  uint64_t heldSlots() const {
    uint64_t held = 0;
    for (auto const& sensor : mSensors) {
      held += static_cast<uint64_t>(sensor->holding.load());
    }
    return held;
  }

  void stopThreads() {
    mStop = true;
    for (auto const& sensor : mSensors) {
      std::lock_guard<std::mutex> guard(sensor->frameLock);
      sensor->frameChanged.notify_all();
    }
    for (auto& thread : mThreads) {
      thread.join();
    }
    mMonitor.join();
  }

  Report finish() {
    Report report;
    for (auto const& sensor : mSensors) {
      SensorReport& result = sensor->report;
      for (auto& samples : result.latencies) {
        std::sort(samples.begin(), samples.end());
      }
      std::sort(result.holds.begin(), result.holds.end());
      report.scenarios.producedAfterReconfigure += sensor->producedAfterReconfigure.load();
      report.sensors.push_back(std::move(result));
    }
    report.scenarios.reconfigured = mReconfigured;
    report.scenarios.tornDown = mTornDown;
    report.scenarios.heldAtTeardown = mHeldAtTeardown;
    // Every thread is joined: nothing of the simulator holds a pool any more.
    destroyPools(*mManager, mReplaced, report);
    report.peakImageBytes = mPeakBytes;
    return report;
  }

  // Flows go from the producer's frame to each consumer that may read it.
  uint64_t flowId(Sensor const& sensor, uint64_t seq, int consumer) const {
    return (seq * 16 + static_cast<uint64_t>(consumer)) * 8 + sensor.position;
  }

  void producerLoop(Sensor& sensor) {
    nameThread("prod " + sensorName(sensor.config.id));
    SensorReport tally;
    auto const period = std::chrono::nanoseconds(1000000000 / mOptions.fps);
    auto next = Clock::now();
    while (!mStop) {
      ++tally[Counter::FramesDue];
      produceFrame(sensor, tally);
      next += period;
      // A late producer skips the frame times it missed, as a sensor would; they count as due.
      auto const late = Clock::now() - next;
      if (late > period) {
        auto const missed = late / period;
        tally[Counter::FramesDue] += static_cast<uint64_t>(missed);
        next += missed * period;
      }
      std::this_thread::sleep_until(next);
    }
    merge(sensor, tally);
  }

  void produceFrame(Sensor& sensor, SensorReport& tally) {
    SimSlice slice(mTraceFlows, "frame " + sensorName(sensor.config.id));
    auto pool = timed(tally, Call::GetPool, [&] { return mManager->getPool(sensor.config.id); });
    if (!pool) {
      ++tally[mTornDown ? Counter::NoPoolAfterTeardown : Counter::NoPool];
      return;
    }
    tLastRefusal = Refusal::Unexplained;
    Slot slot = timed(tally, Call::GetProducer, [&] { return pool->getProducerBuffer(); });
    if (!slot) {
      ++tally.producerRefusals[static_cast<size_t>(tLastRefusal)];
      return;
    }
    long key = frameTimestamp();
    int validSize = static_cast<int>(slot->buffers.size());
    if (validSize == 0) {
      ++tally[Counter::ProducerEmptySlot];
    }
    if (!fill(slot, static_cast<size_t>(validSize), key, Coverage::Whole)) {
      ++tally[Counter::Corrupted];
    }
    int32_t index = slot->index;
    int status = timed(tally, Call::SetProducer,
                       [&] { return pool->setProducerBuffer(key, validSize, slot); });
    if (status != 0) {
      ++tally[Counter::ProducerSetFailed];
      return;
    }
    ++tally[Counter::Produced];
    ++sensor.produced;
    tally.slotsUsed = std::max(tally.slotsUsed, static_cast<uint32_t>(index) + 1);
    if (mReconfigured) {
      ++sensor.producedAfterReconfigure;
    }
    publish(sensor, key, index);
  }

  void publish(Sensor& sensor, long key, int32_t index) {
    std::lock_guard<std::mutex> guard(sensor.frameLock);
    sensor.latest.seq++;
    // Before any consumer can see the frame, so that every flow starts before it ends.
    for (int c = 0; mTraceFlows && c < mOptions.consumers; ++c) {
      trace::flowBegin(kFlowCategory, "frame", flowId(sensor, sensor.latest.seq, c));
    }
    sensor.latest.key = key;
    sensor.latest.index = index;
    sensor.latest.resumes = sensor.resumes.load();
    sensor.frameChanged.notify_all();
  }

  // Waits for a frame newer than `lastSeq`; false once the run is over.
  bool waitFrame(Sensor& sensor, uint64_t lastSeq, Frame& frame) {
    std::unique_lock<std::mutex> lock(sensor.frameLock);
    sensor.frameChanged.wait(lock, [&] { return mStop || sensor.latest.seq > lastSeq; });
    if (mStop) {
      return false;
    }
    frame = sensor.latest;
    return true;
  }

  void consumerLoop(Sensor& sensor, uint32_t seed, int consumer) {
    nameThread("cons " + sensorName(sensor.config.id) + " #" + std::to_string(consumer));
    SensorReport tally;
    HoldSampler holds(sensor.config.hold.value_or(mOptions.hold), seed);
    Frame frame;
    while (waitFrame(sensor, frame.seq, frame)) {
      consumeFrame(sensor, frame, consumer, std::chrono::nanoseconds(holds.nextNs()), tally);
    }
    merge(sensor, tally);
  }

  void consumeFrame(Sensor& sensor, Frame const& frame, int consumer, std::chrono::nanoseconds hold,
                    SensorReport& tally) {
    SimSlice slice(mTraceFlows, "consume " + sensorName(sensor.config.id));
    if (mTraceFlows) {
      trace::flowEnd(kFlowCategory, "frame", flowId(sensor, frame.seq, consumer));
    }
    auto pool = timed(tally, Call::GetPool, [&] { return mManager->getPool(sensor.config.id); });
    if (!pool) {
      ++tally[mTornDown ? Counter::NoPoolAfterTeardown : Counter::NoPool];
      return;
    }
    tLastRefusal = Refusal::Unexplained;
    Slot slot = timed(tally, Call::GetConsumer,
                      [&] { return pool->getConsumerBuffer(frame.key, frame.index); });
    if (!slot) {
      ++tally.consumerRefusals[static_cast<size_t>(tLastRefusal)];
      return;
    }
    ++sensor.holding;
    auto const heldSince = Clock::now();
    ++tally[Counter::Consumed];
    ++sensor.consumed;
    Contents contents = inspect(slot, frame.key, Coverage::Whole);
    std::this_thread::sleep_for(hold);
    // Nobody may touch a lent slot: the frame must still be as it was when it goes back.
    if (contents != Contents::Corrupt && inspect(slot, frame.key, Coverage::Whole) != contents) {
      contents = Contents::Corrupt;
    }
    // Memory made afresh by a resume, lent under the key of a frame made before it.
    bool const fresh = contents == Contents::Fresh && frame.resumes < sensor.resumes.load();
    if (fresh) {
      ++tally[Counter::FreshUnderOldKey];
    } else if (contents != Contents::Intact) {
      ++tally[Counter::Corrupted];
    }
    int status = timed(tally, Call::SetConsumer, [&] { return pool->setConsumerBuffer(slot); });
    tally.holds.push_back(
        std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - heldSince).count());
    --sensor.holding;
    if (status != 0) {
      ++tally[Counter::ConsumerSetFailed];
    }
  }

  void monitorLoop() {
    nameThread("sim-monitor");
    auto start = Clock::now();
    auto nextLine = start + std::chrono::seconds(1);
    while (!mStop) {
      mPeakBytes = std::max<uint64_t>(mPeakBytes, qelcam::host::heapStats().bytesAlive);
      if (Clock::now() >= nextLine) {
        printProgress(std::chrono::duration_cast<std::chrono::seconds>(nextLine - start).count());
        nextLine += std::chrono::seconds(1);
      }
      std::this_thread::sleep_for(kSampleInterval);
    }
  }

  void printProgress(long seconds) {
    if (mOptions.quiet) {
      return;
    }
    std::string line =
        "[" + std::to_string(seconds) + "/" + std::to_string(mOptions.durationSec) + " s]";
    for (auto const& sensor : mSensors) {
      line += " sensor " + std::to_string(sensor->config.id) + ": " +
              std::to_string(sensor->produced.load()) + " produced, " +
              std::to_string(sensor->consumed.load()) + " consumed" +
              (sensor->released ? " (released);" : ";");
    }
    line += " image memory " + std::to_string(qelcam::host::heapStats().bytesAlive >> 10) + " KiB";
    std::fprintf(stderr, "%s\n", line.c_str());
  }

  Options const& mOptions;
  bool const mTraceFlows;
  std::shared_ptr<IGainMapBufPoolManager> mManager;
  std::vector<std::unique_ptr<Sensor>> mSensors;
  std::atomic<bool> mStop{false};
  std::atomic<bool> mReconfigured{false};
  std::atomic<bool> mTornDown{false};
  // Written by the schedule thread only; read once it is done.
  uint64_t mHeldAtTeardown = 0;
  std::vector<std::weak_ptr<IGainMapBufPool>> mReplaced;
  std::vector<std::thread> mThreads;
  std::thread mMonitor;
  // Written by the monitor thread only; read once it has been joined.
  uint64_t mPeakBytes = 0;
};

}  // namespace

Report runSimulation(Options const& options) {
  return Simulation(options).run();
}

}  // namespace gainmapsim
