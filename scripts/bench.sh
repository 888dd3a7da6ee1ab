#!/usr/bin/env bash
# Builds the benchmarks (RelWithDebInfo, in build-bench/) and runs them: five repetitions of each,
# reporting only their mean, median and spread. Arguments go to the benchmark program, e.g.
#   scripts/bench.sh --benchmark_filter=FrameCycle
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
gainmap_install_deps

cmake -S . -B build-bench -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF \
  -DGAINMAP_BUILD_BENCHMARKS=ON >/dev/null
cmake --build build-bench -j"$(nproc)" --target gainmap_bench
echo "load before the run: $(cut -d' ' -f1-3 /proc/loadavg)" >&2
build-bench/benchmarks/gainmap_bench --benchmark_repetitions=5 \
  --benchmark_report_aggregates_only=true "$@"
