// gainmap_model: random operation sequences through the library's interface, checked step by step
// against the reference model.
//
//   gainmap_model [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]
//
// The run is cut into episodes of --episode steps; each starts from no pool and ends by destroying
// every pool, and its choices come from (seed, episode number) alone, so one episode replays on
// its own with --from-episode.

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <mutex>
#include <string>
#include <thread>
#include <utility>

#include "ModelDriver.h"

namespace {

struct Options {
  uint64_t seed = 1;
  uint64_t steps = 100000;
  uint64_t episode = 1000;
  uint64_t fromEpisode = 0;
  bool trace = false;
};

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
    char* end = nullptr;
    if (target == nullptr || i + 1 >= argc) {
      return false;
    }
    *target = std::strtoull(argv[++i], &end, 0);
    if (end == argv[i] || *end != '\0') {
      return false;
    }
  }
  return options.episode > 0;
}

// Turns a step that never returns (a deadlock in the library) into a failure that says where.
class Watchdog {
 public:
  explicit Watchdog(std::string replay)
      : mReplay(std::move(replay)), mThread([this] { watch(); }) {}
  ~Watchdog() {
    {
      std::lock_guard<std::mutex> lock(mLock);
      mDone = true;
    }
    mChanged.notify_all();
    mThread.join();
  }

  // Relaxed: the watchdog only compares the count and prints the episode.
  void at(uint64_t episode) {
    mEpisode.store(episode, std::memory_order_relaxed);
    mTicks.fetch_add(1, std::memory_order_relaxed);
  }

 private:
  void watch() {
    std::unique_lock<std::mutex> lock(mLock);
    uint64_t seen = ~uint64_t{0};
    while (!mChanged.wait_for(lock, std::chrono::seconds(120), [this] { return mDone; })) {
      uint64_t const now = std::exchange(seen, mTicks.load(std::memory_order_relaxed));
      if (now == seen) {
        unsigned long long const episode = mEpisode.load(std::memory_order_relaxed);
        std::fprintf(stderr,
                     "gainmap_model: a step has not returned for 120 s\n"
                     "replay: %s --from-episode %llu --trace\n",
                     mReplay.c_str(), episode);
        std::abort();
      }
    }
  }

  std::string const mReplay;
  std::atomic<uint64_t> mEpisode{0};
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
  std::string const replay = std::string(argv[0]) + " --seed " + std::to_string(options.seed) +
                             " --episode " + std::to_string(options.episode);
  Watchdog watchdog(replay);
  gainmap_model::Tally tally;
  uint64_t done = 0;
  for (uint64_t episode = options.fromEpisode; done < options.steps; ++episode) {
    gainmap_model::SeededSource source(options.seed * 0x100000001b3ull + episode);
    gainmap_model::ModelDriver driver(source, options.trace ? &std::cout : nullptr);
    uint64_t const length = std::min(options.episode, options.steps - done);
    bool ok = true;
    while (ok && driver.steps() < length) {
      watchdog.at(episode);
      ok = driver.step();
    }
    watchdog.at(episode);
    if (!(ok && driver.finish())) {
      std::fprintf(stderr,
                   "gainmap_model: the library and the model differ\nepisode %llu, %s"
                   "replay: %s --from-episode %llu --steps %llu --trace\n",
                   static_cast<unsigned long long>(episode), driver.divergence().c_str(),
                   replay.c_str(), static_cast<unsigned long long>(episode),
                   static_cast<unsigned long long>(length));
      return 1;
    }
    for (auto const& [what, count] : driver.tally()) {
      tally[what] += count;
    }
    done += length;
  }
  std::printf("gainmap_model: %llu steps from seed %llu match the model\n",
              static_cast<unsigned long long>(done), static_cast<unsigned long long>(options.seed));
  for (auto const& [what, count] : tally) {
    std::printf("  %s: %llu\n", what.c_str(), static_cast<unsigned long long>(count));
  }
  return 0;
}
