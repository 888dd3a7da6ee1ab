#include "Simulation.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>

#include "HostPlatform.h"
#include "IGainMapBufPool.h"

namespace gainmapsim {
namespace {

using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Clock = std::chrono::steady_clock;
using Slot = std::shared_ptr<IGainMapBufPool::BufSlot>;

// The client key under which the simulator creates, and at the end destroys, its pools.
constexpr int32_t kUniKey = 7;
constexpr auto kSampleInterval = std::chrono::milliseconds(5);

// The latest frame a producer published: its timestamp and the slot that holds it.
struct Frame {
  uint64_t seq = 0;
  long key = 0;
  int32_t index = 0;
};

struct Sensor {
  SensorConfig config;
  // Set from just before releasePool until the resume task has run.
  std::atomic<bool> released{false};
  std::atomic<uint64_t> produced{0};
  std::atomic<uint64_t> consumed{0};

  std::mutex frameLock;
  std::condition_variable frameChanged;
  Frame latest;

  std::mutex reportLock;
  SensorReport report;
};

void merge(Sensor& sensor, SensorReport const& tally) {
  std::lock_guard<std::mutex> guard(sensor.reportLock);
  for (size_t i = 0; i < kCounterCount; ++i) {
    sensor.report.counts[i] += tally.counts[i];
  }
  sensor.report.slotsUsed = std::max(sensor.report.slotsUsed, tally.slotsUsed);
  for (size_t i = 0; i < kCallCount; ++i) {
    auto& into = sensor.report.latencies[i];
    into.insert(into.end(), tally.latencies[i].begin(), tally.latencies[i].end());
  }
}

template <typename Fn>
auto timed(SensorReport& tally, Call call, Fn&& fn) {
  auto begin = Clock::now();
  auto result = fn();
  tally.latencies[static_cast<size_t>(call)].push_back(
      std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - begin).count());
  return result;
}

// Every plane of every buffer gets its own 64-bit seed, so bytes of another frame, another buffer
// or another plane never pass for the expected ones.
uint64_t patternSeed(long key, size_t buffer, size_t plane) {
  uint64_t x = static_cast<uint64_t>(key) ^ (uint64_t{buffer} << 48) ^ (uint64_t{plane} << 60);
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

constexpr uint64_t kPatternStep = 0x9E3779B97F4A7C15ull;

bool writePattern(uint8_t* data, size_t size, uint64_t seed) {
  uint64_t word = seed;
  size_t offset = 0;
  for (; offset + sizeof word <= size; offset += sizeof word, word += kPatternStep) {
    std::memcpy(data + offset, &word, sizeof word);
  }
  std::memcpy(data + offset, &word, size - offset);
  return true;
}

bool checkPattern(uint8_t* data, size_t size, uint64_t seed) {
  uint64_t word = seed;
  size_t offset = 0;
  for (; offset + sizeof word <= size; offset += sizeof word, word += kPatternStep) {
    if (std::memcmp(data + offset, &word, sizeof word) != 0) {
      return false;
    }
  }
  return std::memcmp(data + offset, &word, size - offset) == 0;
}

// Applies `visit` to every plane of the first `count` buffers of the slot; false when a buffer
// has no address or `visit` says so.
template <typename Visit>
bool forEachPlane(Slot const& slot, size_t count, long key, Visit visit) {
  for (size_t b = 0; b < count; ++b) {
    auto const& buffer = slot->buffers[b];
    for (size_t p = 0; p < buffer->getPlaneCount(); ++p) {
      uintptr_t address = buffer->getBufVA(p);
      if (address == 0 || !visit(reinterpret_cast<uint8_t*>(address), buffer->getBufSizeInBytes(p),
                                 patternSeed(key, b, p))) {
        return false;
      }
    }
  }
  return true;
}

bool verifySlot(Slot const& slot, long key) {
  if (slot->validSize < 0 || static_cast<size_t>(slot->validSize) > slot->buffers.size()) {
    return false;
  }
  return forEachPlane(slot, slot->validSize, key, checkPattern);
}

long frameTimestamp() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

class Simulation {
 public:
  explicit Simulation(Options const& options)
      : mOptions(options), mManager(IGainMapBufPoolManager::getInstance()) {
    for (auto const& config : options.sensors) {
      mSensors.push_back(std::make_unique<Sensor>());
      mSensors.back()->config = config;
      mSensors.back()->report.id = config.id;
    }
  }

  Report run() {
    createPools();
    startThreads();
    runSchedule();
    stopThreads();
    return finish();
  }

 private:
  void createPools() {
    for (auto const& sensor : mSensors) {
      IGainMapBufPoolManager::PoolParameters params;
      params.sensorId = sensor->config.id;
      params.sensorSizes.insert(sensor->config.modes.begin(), sensor->config.modes.end());
      params.batchSize = sensor->config.batch;
      params.slotCount = sensor->config.slots;
      params.uniKey = kUniKey;
      mManager->createPool(params, sensor->config.lagging);
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
        mThreads.emplace_back([this, s = sensor.get(), seed] { consumerLoop(*s, seed); });
        ++seed;
      }
    }
    mMonitor = std::thread([this] { monitorLoop(); });
  }

  void runSchedule() {
    auto end = Clock::now() + std::chrono::seconds(mOptions.durationSec);
    if (mOptions.releasePeriodMs == 0) {
      std::this_thread::sleep_until(end);
      return;
    }
    auto period = std::chrono::milliseconds(mOptions.releasePeriodMs);
    for (auto next = Clock::now() + period; next < end; next += period) {
      std::this_thread::sleep_until(next);
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
    std::this_thread::sleep_until(end);
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
    if (mManager->resumePool(sensor.config.id) != 0) {
      std::lock_guard<std::mutex> guard(sensor.reportLock);
      ++sensor.report[Counter::ManagerRefused];
    }
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
      report.sensors.push_back(std::move(sensor->report));
      for (auto& samples : report.sensors.back().latencies) {
        std::sort(samples.begin(), samples.end());
      }
    }
    mManager->destroyAllPools(kUniKey);
    qelcam::host::waitQueuesIdle();
    auto stats = qelcam::host::heapStats();
    report.peakImageBytes = mPeakBytes;
    report.heapsLeft = stats.heapsAlive;
    report.bytesLeft = stats.bytesAlive;
    return report;
  }

  void producerLoop(Sensor& sensor) {
    SensorReport tally;
    auto period = std::chrono::nanoseconds(1000000000 / mOptions.fps);
    auto next = Clock::now();
    while (!mStop) {
      produceFrame(sensor, tally);
      // A late producer skips the frames it missed, as a sensor would.
      next = std::max(next + period, Clock::now());
      std::this_thread::sleep_until(next);
    }
    merge(sensor, tally);
  }

  void produceFrame(Sensor& sensor, SensorReport& tally) {
    auto pool = timed(tally, Call::GetPool, [&] { return mManager->getPool(sensor.config.id); });
    if (!pool) {
      ++tally[Counter::NoPool];
      return;
    }
    Slot slot = timed(tally, Call::GetProducer, [&] { return pool->getProducerBuffer(); });
    if (!slot) {
      ++tally[sensor.released ? Counter::ProducerReleased : Counter::ProducerNoSlot];
      return;
    }
    long key = frameTimestamp();
    int validSize = static_cast<int>(slot->buffers.size());
    if (validSize == 0) {
      ++tally[Counter::ProducerEmptySlot];
    }
    if (!forEachPlane(slot, validSize, key, writePattern)) {
      ++tally[Counter::VerificationFailures];
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
    publish(sensor, key, index);
  }

  void publish(Sensor& sensor, long key, int32_t index) {
    std::lock_guard<std::mutex> guard(sensor.frameLock);
    sensor.latest.seq++;
    sensor.latest.key = key;
    sensor.latest.index = index;
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

  void consumerLoop(Sensor& sensor, uint32_t seed) {
    SensorReport tally;
    std::mt19937 random(seed);
    std::uniform_int_distribution<int> holdMs(mOptions.holdMinMs, mOptions.holdMaxMs);
    Frame frame;
    while (waitFrame(sensor, frame.seq, frame)) {
      consumeFrame(sensor, frame, std::chrono::milliseconds(holdMs(random)), tally);
    }
    merge(sensor, tally);
  }

  void consumeFrame(Sensor& sensor, Frame const& frame, std::chrono::milliseconds hold,
                    SensorReport& tally) {
    auto pool = timed(tally, Call::GetPool, [&] { return mManager->getPool(sensor.config.id); });
    if (!pool) {
      ++tally[Counter::NoPool];
      return;
    }
    Slot slot = timed(tally, Call::GetConsumer,
                      [&] { return pool->getConsumerBuffer(frame.key, frame.index); });
    if (!slot) {
      ++tally[sensor.released ? Counter::ConsumerReleased : Counter::ConsumerRefused];
      return;
    }
    ++tally[Counter::Consumed];
    ++sensor.consumed;
    if (!verifySlot(slot, frame.key)) {
      ++tally[Counter::VerificationFailures];
    }
    std::this_thread::sleep_for(hold);
    // Nobody may touch a lent slot: the frame must still be intact when it goes back.
    if (!verifySlot(slot, frame.key)) {
      ++tally[Counter::VerificationFailures];
    }
    int status = timed(tally, Call::SetConsumer, [&] { return pool->setConsumerBuffer(slot); });
    if (status != 0) {
      ++tally[Counter::ConsumerSetFailed];
    }
  }

  void monitorLoop() {
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
  std::shared_ptr<IGainMapBufPoolManager> mManager;
  std::vector<std::unique_ptr<Sensor>> mSensors;
  std::atomic<bool> mStop{false};
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
