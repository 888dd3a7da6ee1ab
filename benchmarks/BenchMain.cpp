#include <benchmark/benchmark.h>
#if __has_include(<sys/single_threaded.h>)
#include <sys/single_threaded.h>
#endif

#include <cstdio>
#include <thread>

#include "BenchSupport.h"
#include "camsys/ULog.h"

namespace {

// glibc and libstdc++ take cheaper paths (plain reference counts, no lock prefixes) until the
// process starts its first thread; a camera process never runs that way.
bool makeProcessMultiThreaded() {
  std::thread([] {}).join();
#if __has_include(<sys/single_threaded.h>)
  return __libc_single_threaded == 0;
#else
  return true;
#endif
}

// Nothing reaches a sink: refusals are timed as a device with logging off runs them.
void closeLogGates() {
  using NSCam::Utils::ULog::ULogger;
  ULogger::sMode = 0;
  ULogger::sDetailsLevel = 0;
  ULogger::sNormalDetailsMask = 0;
  for (int level = 0; level < CAM_DBG_LEVEL_COUNT; ++level) {
    qelcam::host::setDebugPrintLevelEnabled(level, false);
  }
}

// The manager, the task workers and the first pool's one-time costs, out of every measurement.
void warmUp() {
  gainmap_bench::createReadyPool(0);
  gainmap_bench::destroyPools();
}

}  // namespace

int main(int argc, char** argv) {
  if (!makeProcessMultiThreaded()) {
    std::fprintf(stderr, "the process still counts as single-threaded\n");
    return 1;
  }
  closeLogGates();
  warmUp();
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
