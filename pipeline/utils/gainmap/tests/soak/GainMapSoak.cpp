// gainmap_soak: several sensors' pools under real threads, through the library's interface only.
// Per sensor a producer writes key-derived bytes into every slot it is lent and consumers check
// them; a churn thread releases, resumes, replaces and destroys the pools underneath. At the end
// every pool is destroyed and no image memory may be left. One round per consumer count.
//
//   gainmap_soak [--duration SECONDS per round] [--seed N] [--consumers N,N,...]
//
// A frame that a consumer finds all zero is a loss unless a release task may have run between the
// frame's start and the check: a release and resume give the slot fresh memory under the key it
// kept, which is the protocol's stale-key case. Releases are dated by their task: the churn thread
// counts a release as requested before calling releasePool and as done once the queues have run
// everything posted since, so a frame that started after `done` reached n and was checked before
// `requested` passed n crossed no release task.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "FramePattern.h"
#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "camsys/ULog.h"

namespace {

namespace framepattern = qelcam::framepattern;
using NSCam::MSize;
using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Buffers = std::vector<std::shared_ptr<qcam::IImageBuffer>>;
using Clock = std::chrono::steady_clock;

struct SensorSetup {
  IGainMapBufPoolManager::PoolParameters params;
  bool lagging;
};

// Small gain maps (16, 32 and 10 rows) so that every byte is written and checked.
std::vector<SensorSetup> sensorSetups() {
  std::vector<SensorSetup> setups(3);
  setups[0].params.sensorId = 0;
  setups[0].params.sensorSizes = {{0, MSize(5760, 160)}};
  setups[0].params.batchSize = 2;
  setups[0].params.slotCount = 3;
  setups[0].params.uniKey = 40;
  setups[0].lagging = false;
  setups[1].params.sensorId = 1;
  setups[1].params.sensorSizes = {{0, MSize(5760, 320)}};
  setups[1].params.batchSize = 1;
  setups[1].params.slotCount = 2;
  setups[1].params.uniKey = 40;
  setups[1].lagging = true;
  // Several modes: the batch lives per sensor size, `buffers` stays empty.
  setups[2].params.sensorId = 2;
  setups[2].params.sensorSizes = {
      {0, MSize(5760, 160)}, {1, MSize(5760, 90)}, {2, MSize(2880, 80)}};
  setups[2].params.batchSize = 2;
  setups[2].params.slotCount = 3;
  setups[2].params.uniKey = 41;
  setups[2].lagging = false;
  return setups;
}

struct Counters {
  std::atomic<uint64_t> framesProduced{0};
  std::atomic<uint64_t> framesChecked{0};
  std::atomic<uint64_t> staleKeyFrames{0};
  std::atomic<uint64_t> byteMismatches{0};
  std::atomic<uint64_t> framesLost{0};
  std::atomic<uint64_t> slotsWithoutBuffers{0};
  std::atomic<uint64_t> buffersTakenFromHolders{0};
  std::atomic<uint64_t> refusedReturns{0};
  std::atomic<uint64_t> releases{0};
  std::atomic<uint64_t> replacements{0};
  std::atomic<uint64_t> destructions{0};
};

// A frame as the producer announces it; it keeps its pool alive until the last consumer is done.
struct Frame {
  std::shared_ptr<IGainMapBufPool> pool;
  long key = 0;
  int index = -1;
  size_t written = 0;
  uint64_t releasesDoneAtStart = 0;
  uint64_t serial = 0;
};

struct Sensor {
  SensorSetup setup;
  bool singleMode = true;
  // Releases of this sensor's pool: counted before releasePool, and once its task has surely run.
  std::atomic<uint64_t> releasesRequested{0};
  std::atomic<uint64_t> releasesDone{0};
  std::mutex latestLock;
  Frame latest;  // guarded by latestLock
  // The newest frame serial each consumer has tried; the producer waits a little for them, so
  // that consumers hold slots the producer comes back to.
  std::vector<std::atomic<uint64_t>> tried;

  explicit Sensor(size_t consumers) : tried(consumers) {}
};

uint8_t* bytesOf(std::shared_ptr<qcam::IImageBuffer> const& buffer) {
  return reinterpret_cast<uint8_t*>(buffer->getBufVA(0));
}

void writeFrame(std::shared_ptr<qcam::IImageBuffer> const& buffer, long key, size_t b) {
  framepattern::write(bytesOf(buffer), buffer->getBufSizeInBytes(0),
                      framepattern::seedOf(key, b, 0));
}

enum class Content { Intact, AllZero, Other };

Content contentOf(std::shared_ptr<qcam::IImageBuffer> const& buffer, long key, size_t b) {
  uint8_t const* bytes = bytesOf(buffer);
  size_t const size = buffer->getBufSizeInBytes(0);
  if (framepattern::matches(bytes, size, framepattern::seedOf(key, b, 0))) {
    return Content::Intact;
  }
  return framepattern::allZero(bytes, size) ? Content::AllZero : Content::Other;
}

class Soak {
 public:
  Soak(double seconds, uint64_t seed, size_t consumers)
      : mManager(IGainMapBufPoolManager::getInstance()),
        mEnd(Clock::now() +
             std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        mSeed(seed),
        mConsumers(consumers) {
    for (SensorSetup const& setup : sensorSetups()) {
      auto sensor = std::make_unique<Sensor>(consumers);
      sensor->setup = setup;
      sensor->singleMode = setup.params.sensorSizes.size() == 1;
      mSensors.push_back(std::move(sensor));
    }
  }

  void run() {
    for (auto& sensor : mSensors) {
      create(*sensor);
    }
    std::vector<std::thread> threads;
    for (size_t s = 0; s < mSensors.size(); ++s) {
      threads.emplace_back([this, s] { produce(*mSensors[s]); });
      for (size_t c = 0; c < mConsumers; ++c) {
        threads.emplace_back([this, s, c] { consume(*mSensors[s], c, mSeed * 31 + s * 7 + c); });
      }
    }
    threads.emplace_back([this] { churn(); });
    for (std::thread& thread : threads) {
      thread.join();
    }
    for (auto& sensor : mSensors) {
      std::lock_guard<std::mutex> lock(sensor->latestLock);
      sensor->latest = Frame();
    }
    for (auto& sensor : mSensors) {
      mManager->destroyAllPools(sensor->setup.params.uniKey);
    }
    qelcam::host::waitQueuesIdle();
  }

  Counters const& counters() const { return mCounters; }

 private:
  bool running() const { return Clock::now() < mEnd; }

  void create(Sensor& sensor) {
    mManager->createPool(sensor.setup.params, sensor.setup.lagging);
    if (sensor.setup.lagging) {
      mManager->resumePool(sensor.setup.params.sensorId);
    }
  }

  void produce(Sensor& sensor) {
    int const sensorId = sensor.setup.params.sensorId;
    while (running()) {
      uint64_t const doneAtStart = sensor.releasesDone.load();
      std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensorId);
      std::shared_ptr<IGainMapBufPool::BufSlot> slot = pool ? pool->getProducerBuffer() : nullptr;
      if (!slot) {
        std::this_thread::yield();
        continue;
      }
      long const key = mNextKey.fetch_add(1);
      size_t written = 0;
      if (sensor.singleMode) {
        Buffers const buffers = slot->buffers;
        if (buffers.empty() || !allHaveMemory(buffers)) {
          ++mCounters.slotsWithoutBuffers;
        } else {
          for (size_t b = 0; b < buffers.size(); ++b) {
            writeFrame(buffers[b], key, b);
          }
          written = buffers.size();
        }
      } else {
        // The frame's gain map goes into the view of its sensor size; consumers cannot borrow
        // such slots (their `buffers` is empty), so the producer is the only reader here.
        writeSizeViews(*slot, key);
        std::this_thread::yield();
      }
      int const status = pool->setProducerBuffer(key, static_cast<int>(written), slot);
      if (status != 0) {
        ++mCounters.refusedReturns;
        continue;
      }
      ++mCounters.framesProduced;
      if (sensor.singleMode && written > 0) {
        uint64_t serial = 0;
        {
          std::lock_guard<std::mutex> lock(sensor.latestLock);
          serial = sensor.latest.serial + 1;
          sensor.latest = Frame{pool, key, slot->index, written, doneAtStart, serial};
        }
        waitForConsumers(sensor, serial);
      }
    }
  }

  // Paces the producer, never decides anything: it goes on after a bounded number of turns.
  void waitForConsumers(Sensor& sensor, uint64_t serial) {
    for (int turn = 0; turn < 2000 && running(); ++turn) {
      bool all = true;
      for (auto const& tried : sensor.tried) {
        all = all && tried.load() >= serial;
      }
      if (all) {
        return;
      }
      std::this_thread::yield();
    }
  }

  static bool allHaveMemory(Buffers const& buffers) {
    for (auto const& buffer : buffers) {
      if (bytesOf(buffer) == nullptr || buffer->getBufSizeInBytes(0) == 0) {
        return false;
      }
    }
    return true;
  }

  void writeSizeViews(IGainMapBufPool::BufSlot& slot, long key) {
    if (!slot.useSizeMap) {
      return;
    }
    for (auto const& [size, buffers] : slot.buffersBySize) {
      for (size_t b = 0; b < buffers.size(); ++b) {
        if (bytesOf(buffers[b]) != nullptr) {
          writeFrame(buffers[b], key, b);
        }
      }
    }
  }

  void consume(Sensor& sensor, size_t consumer, uint64_t seed) {
    std::minstd_rand random(static_cast<std::minstd_rand::result_type>(seed));
    uint64_t lastSerial = 0;
    while (running()) {
      Frame frame;
      {
        std::lock_guard<std::mutex> lock(sensor.latestLock);
        frame = sensor.latest;
      }
      if (!frame.pool || frame.serial == lastSerial) {
        std::this_thread::yield();
        continue;
      }
      lastSerial = frame.serial;
      auto slot = frame.pool->getConsumerBuffer(frame.key, frame.index);
      sensor.tried[consumer].store(frame.serial);
      if (!slot) {
        continue;
      }
      Buffers const buffers = slot->buffers;
      check(sensor, frame, buffers);
      // Hold the slot a little; nobody may write it meanwhile.
      for (uint32_t spin = random() % 64; spin > 0; --spin) {
        std::this_thread::yield();
      }
      check(sensor, frame, buffers);
      // Nothing may take the memory away from a consumer that holds the slot.
      if (slot->buffers != buffers) {
        ++mCounters.buffersTakenFromHolders;
      }
      if (frame.pool->setConsumerBuffer(slot) != 0) {
        ++mCounters.refusedReturns;
      }
    }
  }

  void check(Sensor& sensor, Frame const& frame, Buffers const& buffers) {
    if (buffers.size() < frame.written || !allHaveMemory(buffers)) {
      ++mCounters.slotsWithoutBuffers;
      return;
    }
    bool zero = false;
    bool other = false;
    for (size_t b = 0; b < frame.written; ++b) {
      Content const content = contentOf(buffers[b], frame.key, b);
      zero = zero || content == Content::AllZero;
      other = other || content == Content::Other;
    }
    ++mCounters.framesChecked;
    if (other) {
      ++mCounters.byteMismatches;
    } else if (zero) {
      // Fresh memory under the frame's key: only a release task in between explains it.
      if (sensor.releasesRequested.load() > frame.releasesDoneAtStart) {
        ++mCounters.staleKeyFrames;
      } else {
        ++mCounters.framesLost;
      }
    }
  }

  void churn() {
    std::minstd_rand random(static_cast<std::minstd_rand::result_type>(mSeed));
    while (running()) {
      Sensor& sensor = *mSensors[random() % mSensors.size()];
      int const sensorId = sensor.setup.params.sensorId;
      switch (random() % 9) {
        case 0:
        case 1:
        case 2:
          release(sensor);
          pause(random);
          mManager->resumePool(sensorId);
          break;
        case 3:
          release(sensor);
          break;
        case 4:
          mManager->resumePool(sensorId);
          break;
        case 5:
        case 6:
          create(sensor);
          ++mCounters.replacements;
          break;
        case 7:
          destroyAndRecreate(sensor.setup.params.uniKey);
          break;
        default:
          cycleThroughThePool(sensor);
          break;
      }
      pause(random);
    }
  }

  void release(Sensor& sensor) {
    ++sensor.releasesRequested;
    mManager->releasePool(sensor.setup.params.sensorId);
    // The release task was posted before this returned; once the queues have run everything
    // posted so far, it has run.
    qelcam::host::waitQueuesIdle();
    ++sensor.releasesDone;
    ++mCounters.releases;
  }

  // Release and resume back to back through the pool itself, so that the two tasks meet lending
  // calls in every order.
  void cycleThroughThePool(Sensor& sensor) {
    std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensor.setup.params.sensorId);
    if (!pool) {
      return;
    }
    ++sensor.releasesRequested;
    for (int cycle = 0; cycle < 5; ++cycle) {
      pool->setPoolReleased();
      pool->setPoolResume();
    }
    qelcam::host::waitQueuesIdle();
    ++sensor.releasesDone;
    ++mCounters.releases;
  }

  void destroyAndRecreate(int uniKey) {
    mManager->destroyAllPools(uniKey);
    ++mCounters.destructions;
    for (auto& sensor : mSensors) {
      if (sensor->setup.params.uniKey == uniKey) {
        create(*sensor);
      }
    }
  }

  // Lets the lending threads run a while between two changes.
  static void pause(std::minstd_rand& random) {
    std::this_thread::sleep_for(std::chrono::microseconds(200 + random() % 3000));
  }

  std::shared_ptr<IGainMapBufPoolManager> mManager;
  Clock::time_point const mEnd;
  uint64_t const mSeed;
  size_t const mConsumers;
  std::vector<std::unique_ptr<Sensor>> mSensors;
  std::atomic<long> mNextKey{1};
  Counters mCounters;
};

struct Options {
  double seconds = 3;
  uint64_t seed = 1;
  // One round per count: a lone consumer, a pair, and more consumers than slots.
  std::vector<size_t> consumers = {1, 2, 4};
};

bool parseCounts(char const* text, std::vector<size_t>& counts) {
  counts.clear();
  for (char const* at = text;; ++at) {
    char* end = nullptr;
    unsigned long const count = std::strtoul(at, &end, 10);
    if (end == at || count > 16) {
      return false;
    }
    counts.push_back(count);
    if (*end == '\0') {
      return true;
    }
    if (*end != ',') {
      return false;
    }
    at = end;
  }
}

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string const flag = argv[i];
    char* end = nullptr;
    if (flag == "--duration") {
      options.seconds = std::strtod(argv[i + 1], &end);
    } else if (flag == "--seed") {
      options.seed = std::strtoull(argv[i + 1], &end, 0);
    } else if (flag == "--consumers") {
      if (!parseCounts(argv[i + 1], options.consumers)) {
        return false;
      }
      continue;
    } else {
      return false;
    }
    if (end == argv[i + 1] || *end != '\0') {
      return false;
    }
  }
  return argc % 2 == 1 && options.seconds > 0;
}

// One round: the soak with `consumers` consumers per sensor, its table, and whether it was clean.
bool round(Options const& options, size_t consumers) {
  qelcam::host::HeapStats const before = qelcam::host::heapStats();
  Soak soak(options.seconds, options.seed, consumers);
  // Threads that never finish (a deadlock in the library) end the run with a message.
  auto finished = std::async(std::launch::async, [&soak] { soak.run(); });
  if (finished.wait_for(std::chrono::duration<double>(options.seconds + 120)) !=
      std::future_status::ready) {
    std::fprintf(stderr, "gainmap_soak: the threads have not finished 120 s after the end\n");
    std::abort();
  }
  finished.get();
  qelcam::host::HeapStats const after = qelcam::host::heapStats();
  Counters const& c = soak.counters();
  uint64_t const heapsLeft = after.heapsAlive - before.heapsAlive;
  uint64_t const bytesLeft = after.bytesAlive - before.bytesAlive;
  uint64_t const lockedLeft = after.buffersLocked - before.buffersLocked;
  std::printf(
      "consumers per sensor                 %zu\n"
      "frames produced                      %llu\n"
      "frames checked by consumers          %llu\n"
      "frames crossing a release (stale key) %llu\n"
      "releases / replacements / destructions %llu / %llu / %llu\n"
      "byte mismatches                      %llu\n"
      "frames lost                          %llu\n"
      "single-mode slots without buffers    %llu\n"
      "buffers taken from a holder          %llu\n"
      "-22 on legitimate returns            %llu\n"
      "image heaps / bytes / locked buffers left %llu / %llu / %llu\n",
      consumers, static_cast<unsigned long long>(c.framesProduced.load()),
      static_cast<unsigned long long>(c.framesChecked.load()),
      static_cast<unsigned long long>(c.staleKeyFrames.load()),
      static_cast<unsigned long long>(c.releases.load()),
      static_cast<unsigned long long>(c.replacements.load()),
      static_cast<unsigned long long>(c.destructions.load()),
      static_cast<unsigned long long>(c.byteMismatches.load()),
      static_cast<unsigned long long>(c.framesLost.load()),
      static_cast<unsigned long long>(c.slotsWithoutBuffers.load()),
      static_cast<unsigned long long>(c.buffersTakenFromHolders.load()),
      static_cast<unsigned long long>(c.refusedReturns.load()),
      static_cast<unsigned long long>(heapsLeft), static_cast<unsigned long long>(bytesLeft),
      static_cast<unsigned long long>(lockedLeft));
  // Without consumers nothing is checked; a clean round then needs frames produced.
  uint64_t const evidence = consumers > 0 ? c.framesChecked.load() : c.framesProduced.load();
  return c.byteMismatches == 0 && c.framesLost == 0 && c.slotsWithoutBuffers == 0 &&
         c.buffersTakenFromHolders == 0 && c.refusedReturns == 0 && heapsLeft == 0 &&
         bytesLeft == 0 && lockedLeft == 0 && evidence > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [--duration SECONDS per round] [--seed N] [--consumers N,N,...]\n",
                 argv[0]);
    return 2;
  }
  // Refusals are part of the run and the library logs each one.
  NSCam::Utils::ULog::ULogger::sMode = 0;
  bool clean = true;
  for (size_t consumers : options.consumers) {
    clean = round(options, consumers) && clean;
  }
  std::printf("result: %s\n", clean ? "clean" : "FAULTS");
  return clean ? 0 : 1;
}
