// gainmap_soak [--duration SECONDS per round] [--seed N]: several sensors' pools under real
// threads, through the library's interface only, one round per consumer count. Per sensor a
// producer writes key-derived bytes into every slot it is lent and consumers check them; a churn
// thread releases, resumes and replaces the pools underneath. At the end every pool is destroyed
// and no image memory may be left.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "FramePattern.h"
#include "HostPlatform.h"
#include "IGainMapBufPool.h"
#include "camsys/ULog.h"

namespace {

namespace framepattern = qelcam::framepattern;
using NSCam::v3::Utils::IGainMapBufPool;
using NSCam::v3::Utils::IGainMapBufPoolManager;
using Buffers = std::vector<std::shared_ptr<qcam::IImageBuffer>>;
using Clock = std::chrono::steady_clock;

// The rows of a round's table, in order, and whether a row counts faults (which must stay 0).
constexpr std::pair<char const*, bool> kRows[] = {
    {"frames produced", false},
    {"frames checked by consumers", false},
    {"frames crossing a release (stale key)", false},
    {"byte mismatches", true},
    {"frames lost", true},
    {"single-mode slots without buffers", true},
    {"buffers taken from a holder", true},
    {"-22 on legitimate returns", true},
    {"releases", false},
    {"replacements", false},
};

// A frame as the producer announces it; it keeps its pool alive until the last consumer is done.
struct Frame {
  std::shared_ptr<IGainMapBufPool> pool;
  long key;
  int index;
  uint64_t releasesDoneAtStart;
};

struct Sensor {
  IGainMapBufPoolManager::PoolParameters params;
  bool lagging;  // its pool takes no memory until the churn resumes it
  // Releases dated by their task: requested before releasePool, done once the queues have run
  // everything posted since. A frame found all zero is lost unless a release was requested after
  // the last one done when it started (a release and a resume give fresh memory under its key).
  std::atomic<uint64_t> releasesRequested{0};
  std::atomic<uint64_t> releasesDone{0};
  // The newest frame, read and written only through std::atomic_load and std::atomic_store.
  std::shared_ptr<Frame const> latest{};
};

uint8_t* bytesOf(std::shared_ptr<qcam::IImageBuffer> const& buffer) {
  return reinterpret_cast<uint8_t*>(buffer->getBufVA(0));
}

// Buffers a frame can be written into or checked in.
bool allHaveMemory(Buffers const& buffers) {
  return !buffers.empty() && std::all_of(buffers.begin(), buffers.end(), [](auto const& buffer) {
    return bytesOf(buffer) != nullptr && buffer->getBufSizeInBytes(0) != 0;
  });
}

// One round: the threads run until `end`, then every pool is destroyed.
struct Soak {
  Clock::time_point const end;
  uint32_t const seed;
  size_t const consumers;
  std::shared_ptr<IGainMapBufPoolManager> const manager = IGainMapBufPoolManager::getInstance();
  // Small gain maps (16 and 32 rows) so that every byte is written and checked.
  Sensor sensors[3] = {{{0, {{0, NSCam::MSize(5760, 160)}}, 2, 3, 40}, false},
                       {{1, {{0, NSCam::MSize(5760, 320)}}, 1, 2, 40}, true},
                       {{2, {{0, NSCam::MSize(5760, 160)}}, 1, 3, 41}, false}};
  std::atomic<long> nextKey{1};
  // Every row exists before the threads start, and none is added later.
  std::map<std::string, std::atomic<uint64_t>> counts{};

  void run() {
    for (auto const& [label, fault] : kRows) {
      counts[label];
    }
    std::vector<std::thread> threads;
    for (Sensor& sensor : sensors) {
      manager->createPool(sensor.params, sensor.lagging);
      threads.emplace_back([this, &sensor] { produce(sensor); });
      for (size_t c = 0; c < consumers; ++c) {
        threads.emplace_back([this, &sensor, n = threads.size()] { consume(sensor, n); });
      }
    }
    threads.emplace_back([this] { churn(); });
    for (std::thread& thread : threads) {
      thread.join();
    }
    for (Sensor& sensor : sensors) {
      sensor.latest.reset();  // every thread has ended
      manager->destroyAllPools(sensor.params.uniKey);
    }
    qelcam::host::waitQueuesIdle();
  }

  bool running() const { return Clock::now() < end; }
  void add(char const* row) { ++counts.at(row); }

  void produce(Sensor& sensor) {
    while (running()) {
      uint64_t const doneAtStart = sensor.releasesDone.load();
      std::shared_ptr<IGainMapBufPool> pool = manager->getPool(sensor.params.sensorId);
      std::shared_ptr<IGainMapBufPool::BufSlot> slot = pool ? pool->getProducerBuffer() : nullptr;
      if (!slot) {
        std::this_thread::yield();
        continue;
      }
      long const key = nextKey.fetch_add(1);
      Buffers const buffers = slot->buffers;
      bool const written = allHaveMemory(buffers);
      for (size_t b = 0; written && b < buffers.size(); ++b) {
        framepattern::write(bytesOf(buffers[b]), buffers[b]->getBufSizeInBytes(0),
                            framepattern::seedOf(key, b, 0));
      }
      add(written ? "frames produced" : "single-mode slots without buffers");
      if (pool->setProducerBuffer(key, written ? static_cast<int>(buffers.size()) : 0, slot) != 0) {
        add("-22 on legitimate returns");
      } else if (written) {
        Frame const frame{pool, key, slot->index, doneAtStart};
        std::atomic_store(&sensor.latest, std::make_shared<Frame const>(frame));
        std::this_thread::yield();  // the consumers' turn at the frame: pacing, not a verdict
      }
    }
  }

  // Borrows the newest frame and checks it after a hold: nobody may write a lent slot meanwhile,
  // nor take its buffers.
  void consume(Sensor& sensor, size_t thread) {
    std::minstd_rand random(seed + static_cast<uint32_t>(thread));
    while (running()) {
      std::shared_ptr<Frame const> const frame = std::atomic_load(&sensor.latest);
      auto slot = frame ? frame->pool->getConsumerBuffer(frame->key, frame->index) : nullptr;
      if (!slot) {
        std::this_thread::yield();
        continue;
      }
      Buffers const buffers = slot->buffers;
      for (uint32_t spin = random() % 64; spin > 0; --spin) {
        std::this_thread::yield();
      }
      check(sensor, *frame, buffers);
      if (slot->buffers != buffers) {
        add("buffers taken from a holder");
      }
      if (frame->pool->setConsumerBuffer(slot) != 0) {
        add("-22 on legitimate returns");
      }
    }
  }

  void check(Sensor const& sensor, Frame const& frame, Buffers const& buffers) {
    if (!allHaveMemory(buffers)) {
      return add("single-mode slots without buffers");
    }
    add("frames checked by consumers");
    bool zero = false;
    for (size_t b = 0; b < buffers.size(); ++b) {
      uint8_t const* bytes = bytesOf(buffers[b]);
      size_t const size = buffers[b]->getBufSizeInBytes(0);
      if (!framepattern::matches(bytes, size, framepattern::seedOf(frame.key, b, 0))) {
        if (!framepattern::allZero(bytes, size)) {
          return add("byte mismatches");
        }
        zero = true;
      }
    }
    // Fresh memory under the frame's key: only a release task in between explains it.
    if (zero) {
      bool const crossed = sensor.releasesRequested.load() > frame.releasesDoneAtStart;
      add(crossed ? "frames crossing a release (stale key)" : "frames lost");
    }
  }

  // One change at random to one sensor's pool: a release, a resume or a replacement.
  void churn() {
    std::minstd_rand random(seed);
    while (running()) {
      Sensor& sensor = sensors[random() % std::size(sensors)];
      auto const pick = random() % 3;
      if (pick == 0) {
        ++sensor.releasesRequested;
        manager->releasePool(sensor.params.sensorId);
        qelcam::host::waitQueuesIdle();
        ++sensor.releasesDone;
        add("releases");
      } else if (pick == 1) {
        manager->resumePool(sensor.params.sensorId);
      } else {
        manager->createPool(sensor.params, sensor.lagging);
        add("replacements");
      }
      // Lets the lending threads run a while between two changes; it decides nothing.
      std::this_thread::sleep_for(std::chrono::microseconds(200 + random() % 3000));
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  double seconds = 3;
  uint64_t seed = 1;
  bool usable = argc % 2 == 1;
  for (int i = 1; usable && i + 1 < argc; i += 2) {
    std::string const flag = argv[i];
    std::istringstream value(argv[i + 1]);
    usable = (flag == "--duration" ? !!(value >> seconds) : flag == "--seed" && value >> seed) &&
             value.eof();
  }
  if (!usable || seconds <= 0) {
    std::fprintf(stderr, "usage: %s [--duration SECONDS per round] [--seed N]\n", argv[0]);
    return 2;
  }
  // Refusals are part of the run and the library logs each one.
  NSCam::Utils::ULog::ULogger::sMode = 0;
  bool clean = true;
  auto const row = [&clean](char const* label, uint64_t value, bool fault) {
    std::printf("%-38s %llu\n", label, static_cast<unsigned long long>(value));
    clean = clean && !(fault && value != 0);
  };
  // One round per count: a lone consumer, a pair, and more consumers than slots. A round is clean
  // when consumers checked frames and every fault row is 0.
  for (size_t consumers : {1u, 2u, 4u}) {
    qelcam::host::HeapStats const before = qelcam::host::heapStats();
    auto const end = Clock::now() + std::chrono::milliseconds(static_cast<int64_t>(seconds * 1e3));
    Soak soak{end, static_cast<uint32_t>(seed), consumers};
    soak.run();
    qelcam::host::HeapStats const after = qelcam::host::heapStats();
    row("consumers per sensor", consumers, false);
    for (auto const& [label, fault] : kRows) {
      row(label, soak.counts.at(label), fault);
    }
    row("image heaps left", after.heapsAlive - before.heapsAlive, true);
    row("image bytes left", after.bytesAlive - before.bytesAlive, true);
    row("locked buffers left", after.buffersLocked - before.buffersLocked, true);
    clean = clean && soak.counts.at("frames checked by consumers") > 0;
  }
  std::printf("result: %s\n", clean ? "clean" : "FAULTS");
  return clean ? 0 : 1;
}
