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

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <memory>
#include <mutex>
#include <random>
#include <sstream>
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
using PoolParameters = IGainMapBufPoolManager::PoolParameters;
using Buffers = std::vector<std::shared_ptr<qcam::IImageBuffer>>;
using Clock = std::chrono::steady_clock;

// The soak's counts, each printed as one row; byte mismatches to refused returns are faults.
enum Count {
  FramesProduced,
  FramesChecked,
  StaleKeyFrames,
  ByteMismatches,
  FramesLost,
  SlotsWithoutBuffers,
  BuffersTakenFromHolders,
  RefusedReturns,
  Releases,
  Replacements,
  Destructions,
  kCounts
};
constexpr char const* kLabels[kCounts] = {"frames produced",
                                          "frames checked by consumers",
                                          "frames crossing a release (stale key)",
                                          "byte mismatches",
                                          "frames lost",
                                          "single-mode slots without buffers",
                                          "buffers taken from a holder",
                                          "-22 on legitimate returns",
                                          "releases",
                                          "replacements",
                                          "destructions"};
using Counters = std::array<std::atomic<uint64_t>, kCounts>;

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
  PoolParameters params;
  bool lagging;
  // Releases of this sensor's pool: counted before releasePool, and once its task has surely run.
  std::atomic<uint64_t> releasesRequested{0};
  std::atomic<uint64_t> releasesDone{0};
  std::mutex latestLock;
  Frame latest;  // guarded by latestLock
  // The newest frame serial each consumer has tried; the producer waits a little for them, so
  // that consumers hold slots the producer comes back to.
  std::vector<std::atomic<uint64_t>> tried;

  Sensor(PoolParameters p, bool lags, size_t consumers)
      : params(std::move(p)), lagging(lags), tried(consumers) {}
  bool singleMode() const { return params.sensorSizes.size() == 1; }
};

uint8_t* bytesOf(std::shared_ptr<qcam::IImageBuffer> const& buffer) {
  return reinterpret_cast<uint8_t*>(buffer->getBufVA(0));
}

void writeFrame(std::shared_ptr<qcam::IImageBuffer> const& buffer, long key, size_t b) {
  framepattern::write(bytesOf(buffer), buffer->getBufSizeInBytes(0),
                      framepattern::seedOf(key, b, 0));
}

bool allHaveMemory(Buffers const& buffers) {
  return std::all_of(buffers.begin(), buffers.end(), [](auto const& buffer) {
    return bytesOf(buffer) != nullptr && buffer->getBufSizeInBytes(0) != 0;
  });
}

class Soak {
 public:
  Soak(double seconds, uint64_t seed, size_t consumers)
      : mManager(IGainMapBufPoolManager::getInstance()),
        mEnd(Clock::now() +
             std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
        mSeed(seed),
        mConsumers(consumers) {
    // Small gain maps (16, 32 and 10 rows) so that every byte is written and checked. Sensor 2
    // has several modes: the batch lives per sensor size, `buffers` stays empty.
    mSensors.push_back(std::make_unique<Sensor>(
        PoolParameters{0, {{0, MSize(5760, 160)}}, 2, 3, 40}, false, consumers));
    mSensors.push_back(std::make_unique<Sensor>(
        PoolParameters{1, {{0, MSize(5760, 320)}}, 1, 2, 40}, true, consumers));
    mSensors.push_back(std::make_unique<Sensor>(
        PoolParameters{
            2, {{0, MSize(5760, 160)}, {1, MSize(5760, 90)}, {2, MSize(2880, 80)}}, 2, 3, 41},
        false, consumers));
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
      mManager->destroyAllPools(sensor->params.uniKey);
    }
    qelcam::host::waitQueuesIdle();
  }

  uint64_t count(Count c) const { return mCounts[c].load(); }

 private:
  bool running() const { return Clock::now() < mEnd; }

  void create(Sensor& sensor) {
    mManager->createPool(sensor.params, sensor.lagging);
    if (sensor.lagging) {
      mManager->resumePool(sensor.params.sensorId);
    }
  }

  void produce(Sensor& sensor) {
    while (running()) {
      uint64_t const doneAtStart = sensor.releasesDone.load();
      std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensor.params.sensorId);
      std::shared_ptr<IGainMapBufPool::BufSlot> slot = pool ? pool->getProducerBuffer() : nullptr;
      if (!slot) {
        std::this_thread::yield();
        continue;
      }
      long const key = mNextKey.fetch_add(1);
      size_t written = 0;
      if (!sensor.singleMode()) {
        // The frame's gain map goes into the view of its sensor size; consumers cannot borrow
        // such slots (their `buffers` is empty), so the producer is the only reader here.
        writeSizeViews(*slot, key);
        std::this_thread::yield();
      } else if (Buffers const buffers = slot->buffers;
                 buffers.empty() || !allHaveMemory(buffers)) {
        ++mCounts[SlotsWithoutBuffers];
      } else {
        for (written = 0; written < buffers.size(); ++written) {
          writeFrame(buffers[written], key, written);
        }
      }
      if (pool->setProducerBuffer(key, static_cast<int>(written), slot) != 0) {
        ++mCounts[RefusedReturns];
        continue;
      }
      ++mCounts[FramesProduced];
      if (written > 0) {
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
      if (std::all_of(sensor.tried.begin(), sensor.tried.end(),
                      [serial](auto const& tried) { return tried.load() >= serial; })) {
        return;
      }
      std::this_thread::yield();
    }
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
        ++mCounts[BuffersTakenFromHolders];
      }
      if (frame.pool->setConsumerBuffer(slot) != 0) {
        ++mCounts[RefusedReturns];
      }
    }
  }

  void check(Sensor& sensor, Frame const& frame, Buffers const& buffers) {
    if (buffers.size() < frame.written || !allHaveMemory(buffers)) {
      ++mCounts[SlotsWithoutBuffers];
      return;
    }
    bool zero = false;
    bool other = false;
    for (size_t b = 0; b < frame.written; ++b) {
      uint8_t const* bytes = bytesOf(buffers[b]);
      size_t const size = buffers[b]->getBufSizeInBytes(0);
      if (!framepattern::matches(bytes, size, framepattern::seedOf(frame.key, b, 0))) {
        bool const allZero = framepattern::allZero(bytes, size);
        zero = zero || allZero;
        other = other || !allZero;
      }
    }
    ++mCounts[FramesChecked];
    if (other) {
      ++mCounts[ByteMismatches];
    } else if (zero) {
      // Fresh memory under the frame's key: only a release task in between explains it.
      bool const crossed = sensor.releasesRequested.load() > frame.releasesDoneAtStart;
      ++mCounts[crossed ? StaleKeyFrames : FramesLost];
    }
  }

  // One change at random: a release (two in three followed by a resume), a resume, a
  // replacement, a destruction of a client's pools, or releases and resumes through the pool.
  void churn() {
    std::minstd_rand random(static_cast<std::minstd_rand::result_type>(mSeed));
    while (running()) {
      Sensor& sensor = *mSensors[random() % mSensors.size()];
      int const sensorId = sensor.params.sensorId;
      auto const pick = random() % 9;
      if (pick <= 3) {
        release(sensor, [&] { mManager->releasePool(sensorId); });
        if (pick < 3) {
          pause(random);
          mManager->resumePool(sensorId);
        }
      } else if (pick == 4) {
        mManager->resumePool(sensorId);
      } else if (pick <= 6) {
        create(sensor);
        ++mCounts[Replacements];
      } else if (pick == 7) {
        // Every pool of the sensor's client goes, then comes back.
        mManager->destroyAllPools(sensor.params.uniKey);
        ++mCounts[Destructions];
        for (auto& other : mSensors) {
          if (other->params.uniKey == sensor.params.uniKey) {
            create(*other);
          }
        }
      } else if (std::shared_ptr<IGainMapBufPool> pool = mManager->getPool(sensorId)) {
        // Back to back through the pool itself, so that the tasks meet lending calls in any order.
        release(sensor, [&pool] {
          for (int cycle = 0; cycle < 5; ++cycle) {
            pool->setPoolReleased();
            pool->setPoolResume();
          }
        });
      }
      pause(random);
    }
  }

  // Dates the release tasks that `act` posts: requested before, done once the queues have run
  // everything posted so far.
  void release(Sensor& sensor, std::function<void()> const& act) {
    ++sensor.releasesRequested;
    act();
    qelcam::host::waitQueuesIdle();
    ++sensor.releasesDone;
    ++mCounts[Releases];
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
  Counters mCounts{};
};

struct Options {
  double seconds = 3;
  uint64_t seed = 1;
  // One round per count: a lone consumer, a pair, and more consumers than slots.
  std::vector<size_t> consumers = {1, 2, 4};
};

bool parseCounts(char const* text, std::vector<size_t>& counts) {
  counts.clear();
  std::istringstream list(text);
  for (std::string count; std::getline(list, count, ',');) {
    char* end = nullptr;
    counts.push_back(std::strtoul(count.c_str(), &end, 10));
    if (count.empty() || *end != '\0' || counts.back() > 16) {
      return false;
    }
  }
  return !counts.empty();
}

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string const flag = argv[i];
    char* end = nullptr;
    if (flag == "--duration") {
      options.seconds = std::strtod(argv[i + 1], &end);
    } else if (flag == "--seed") {
      options.seed = std::strtoull(argv[i + 1], &end, 0);
    } else if (flag != "--consumers" || !parseCounts(argv[i + 1], options.consumers)) {
      return false;
    }
    if (end != nullptr && (end == argv[i + 1] || *end != '\0')) {
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
  struct Row {
    char const* label;
    uint64_t value;
    bool fault;
  };
  std::vector<Row> rows = {{"consumers per sensor", consumers, false}};
  for (int c = 0; c < kCounts; ++c) {
    rows.push_back({kLabels[c], soak.count(static_cast<Count>(c)),
                    c >= ByteMismatches && c <= RefusedReturns});
  }
  rows.insert(rows.end(),
              {{"image heaps left", after.heapsAlive - before.heapsAlive, true},
               {"image bytes left", after.bytesAlive - before.bytesAlive, true},
               {"locked buffers left", after.buffersLocked - before.buffersLocked, true}});
  bool clean = true;
  for (Row const& row : rows) {
    std::printf("%-38s %llu\n", row.label, static_cast<unsigned long long>(row.value));
    clean = clean && !(row.fault && row.value != 0);
  }
  // Without consumers nothing is checked; a clean round then needs frames produced.
  return clean && soak.count(consumers > 0 ? FramesChecked : FramesProduced) > 0;
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
