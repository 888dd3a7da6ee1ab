// gainmap_model: random operation sequences through the library's interface, checked step by step
// against the reference model.
//
//   gainmap_model [--seed N] [--steps N] [--episode N] [--from-episode K] [--trace]
//
// The run is cut into episodes of --episode steps; each starts from no pool and ends by destroying
// every pool, and its choices come from (seed, episode number) alone, so one episode replays on
// its own with --from-episode.

#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iostream>
#include <string>

#include "ModelDriver.h"

namespace {

struct Options {
  unsigned long long seed = 1;
  unsigned long long steps = 100000;
  unsigned long long episode = 1000;
  unsigned long long fromEpisode = 0;
  bool trace = false;
};

bool parse(int argc, char** argv, Options& options) {
  for (int i = 1; i < argc; ++i) {
    std::string const flag = argv[i];
    if (flag == "--trace") {
      options.trace = true;
      continue;
    }
    unsigned long long* target = flag == "--seed"           ? &options.seed
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

// An episode that never ends (a deadlock in the library) fails with this text, which says which.
constexpr unsigned kPatienceSeconds = 300;
char gHang[1024];

void onHang(int) {
  [[maybe_unused]] ssize_t const written = write(STDERR_FILENO, gHang, std::strlen(gHang));
  std::abort();
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
  std::signal(SIGALRM, onHang);
  unsigned long long done = 0;
  for (unsigned long long episode = options.fromEpisode; done < options.steps; ++episode) {
    unsigned long long const length = std::min(options.episode, options.steps - done);
    std::string const replay = std::string(argv[0]) + " --seed " + std::to_string(options.seed) +
                               " --from-episode " + std::to_string(episode) + " --steps " +
                               std::to_string(length) + " --episode " + std::to_string(length) +
                               " --trace";
    std::snprintf(gHang, sizeof(gHang), "gainmap_model: episode %llu has not ended in %u s\n%s\n",
                  episode, kPatienceSeconds, replay.c_str());
    alarm(kPatienceSeconds);
    gainmap_model::ChoiceSource source(options.seed * 0x100000001b3ull + episode);
    std::string const divergence =
        gainmap_model::runEpisode(source, length, options.trace ? &std::cout : nullptr);
    if (!divergence.empty()) {
      std::fprintf(stderr, "gainmap_model: the library and the model differ\nepisode %llu, %s%s\n",
                   episode, divergence.c_str(), replay.c_str());
      return 1;
    }
    done += length;
  }
  alarm(0);
  std::printf("gainmap_model: %llu steps from seed %llu match the model\n", done, options.seed);
  return 0;
}
