// gainmap_model: random operation sequences through the library's interface, checked step by step
// against the reference model.
//
//   gainmap_model [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]
//
// The run is cut into episodes of --episode steps; each starts from no pool and ends by destroying
// every pool, and its choices come from (seed, episode number) alone, so one episode replays on
// its own with --from-episode.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>

#include "ModelDriver.h"

namespace {

struct Options {
  uint64_t seed = 1;
  uint64_t steps = 100000;
  uint64_t episode = 1000;
  uint64_t fromEpisode = 0;
  bool trace = false;
};

bool parseNumber(char const* text, uint64_t& value) {
  char* end = nullptr;
  value = std::strtoull(text, &end, 0);
  return end != text && *end == '\0';
}

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string const flag = argv[i];
    if (flag == "--trace") {
      options.trace = true;
      continue;
    }
    uint64_t* target = flag == "--seed"           ? &options.seed
                       : flag == "--steps"        ? &options.steps
                       : flag == "--episode"      ? &options.episode
                       : flag == "--from-episode" ? &options.fromEpisode
                                                  : nullptr;
    if (target == nullptr || i + 1 >= argc || !parseNumber(argv[++i], *target)) {
      return false;
    }
  }
  return options.episode > 0;
}

uint64_t episodeSeed(uint64_t seed, uint64_t episode) {
  return seed * 0x100000001b3ull + episode;
}

// Turns a step that never returns (a deadlock in the library) into a failure that says where.
class Watchdog {
 public:
  static constexpr std::chrono::seconds kPatience{120};

  Watchdog(uint64_t seed, char const* program) : mSeed(seed), mProgram(program) {
    mThread = std::thread([this] { watch(); });
  }
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mLock);
      mDone = true;
    }
    mChanged.notify_all();
    mThread.join();
  }

  void at(uint64_t episode, uint64_t step) {
    mEpisode.store(episode, std::memory_order_relaxed);
    mStep.store(step, std::memory_order_relaxed);
    mTicks.fetch_add(1, std::memory_order_relaxed);
  }

 private:
  void watch() {
    std::unique_lock<std::mutex> lock(mLock);
    uint64_t seen = mTicks.load(std::memory_order_relaxed);
    while (!mChanged.wait_for(lock, kPatience, [this] { return mDone; })) {
      uint64_t const now = mTicks.load(std::memory_order_relaxed);
      if (now == seen) {
        std::fprintf(stderr,
                     "gainmap_model: a step has not returned for %lld s\n"
                     "seed %llu, episode %llu, step %llu\n"
                     "replay: %s --seed %llu --from-episode %llu --trace\n",
                     static_cast<long long>(kPatience.count()),
                     static_cast<unsigned long long>(mSeed),
                     static_cast<unsigned long long>(mEpisode.load()),
                     static_cast<unsigned long long>(mStep.load()), mProgram,
                     static_cast<unsigned long long>(mSeed),
                     static_cast<unsigned long long>(mEpisode.load()));
        std::abort();
      }
      seen = now;
    }
  }

  uint64_t const mSeed;
  char const* const mProgram;
  // Read only to report a hang; relaxed is enough for a number that is printed.
  std::atomic<uint64_t> mEpisode{0};
  std::atomic<uint64_t> mStep{0};
  std::atomic<uint64_t> mTicks{0};
  std::mutex mLock;
  std::condition_variable mChanged;
  bool mDone = false;  // guarded by mLock
  std::thread mThread;
};

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]\n",
                 argv[0]);
    return 2;
  }
  Watchdog watchdog(options.seed, argv[0]);
  gainmap_model::Tally tally;
  uint64_t done = 0;
  for (uint64_t episode = options.fromEpisode; done < options.steps; ++episode) {
    gainmap_model::SeededSource source(episodeSeed(options.seed, episode));
    gainmap_model::ModelDriver driver(source, options.trace ? &std::cout : nullptr);
    uint64_t const length = std::min(options.episode, options.steps - done);
    bool ok = true;
    while (ok && driver.steps() < length) {
      watchdog.at(episode, driver.steps() + 1);
      ok = driver.step();
    }
    watchdog.at(episode, length + 1);
    ok = ok && driver.finish();
    if (!ok) {
      std::fprintf(
          stderr,
          "gainmap_model: the library and the model differ\n"
          "seed %llu, episode %llu, %s"
          "replay: %s --seed %llu --from-episode %llu --steps %llu --episode %llu --trace\n",
          static_cast<unsigned long long>(options.seed), static_cast<unsigned long long>(episode),
          driver.divergence().c_str(), argv[0], static_cast<unsigned long long>(options.seed),
          static_cast<unsigned long long>(episode), static_cast<unsigned long long>(length),
          static_cast<unsigned long long>(options.episode));
      return 1;
    }
    tally += driver.tally();
    done += length;
  }
  std::printf(
      "gainmap_model: %llu steps from seed %llu match the model\n"
      "  pools created %llu (unworkable %llu); steps with the queues held %llu\n"
      "  producer: %llu lent, %llu refused, %llu handed back\n"
      "  consumers: %llu lent, %llu refused, %llu handed back; returns refused %llu\n",
      static_cast<unsigned long long>(done), static_cast<unsigned long long>(options.seed),
      static_cast<unsigned long long>(tally.poolsCreated),
      static_cast<unsigned long long>(tally.unworkablePools),
      static_cast<unsigned long long>(tally.stepsHeld),
      static_cast<unsigned long long>(tally.producerLends),
      static_cast<unsigned long long>(tally.producerRefusals),
      static_cast<unsigned long long>(tally.producerReturns),
      static_cast<unsigned long long>(tally.consumerLends),
      static_cast<unsigned long long>(tally.consumerRefusals),
      static_cast<unsigned long long>(tally.consumerReturns),
      static_cast<unsigned long long>(tally.refusedReturns));
  return 0;
}
