// gainmap_model: random operation sequences through the library's interface, checked step by step
// against the reference model.
//
//   gainmap_model [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]
//
// The run is cut into episodes of --episode steps; each starts from no pool and ends by destroying
// every pool, and its choices come from (seed, episode number) alone, so one episode replays on
// its own with --from-episode.

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

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

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr,
                 "usage: %s [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]\n",
                 argv[0]);
    return 2;
  }
  uint64_t done = 0;
  for (uint64_t episode = options.fromEpisode; done < options.steps; ++episode) {
    gainmap_model::SeededSource source(episodeSeed(options.seed, episode));
    gainmap_model::ModelDriver driver(source, options.trace ? &std::cout : nullptr);
    uint64_t const length = std::min(options.episode, options.steps - done);
    bool ok = true;
    while (ok && driver.steps() < length) {
      ok = driver.step();
    }
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
    done += length;
  }
  std::printf("gainmap_model: %llu steps from seed %llu match the model\n",
              static_cast<unsigned long long>(done), static_cast<unsigned long long>(options.seed));
  return 0;
}
