#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh                      g++, no sanitizer, in build/ (benchmarks built too); then
#                                        installs the package into a temporary prefix and builds
#                                        and runs its consumer; prints the test budget
#   scripts/test.sh asan                 g++ with AddressSanitizer + UBSan, in build-asan/
#   plain, asan and tsan also explore every interleaving scenario of the pool to its preemption
#   bound (gainmap_explore_pool_scenarios, outside CTest; under tsan it reports data races too);
#   scripts/test.sh plain|asan|tsan RUNS then samples RUNS more schedules of each with PCT
#   scripts/test.sh tsan                 clang with ThreadSanitizer and -Wthread-safety, in build-tsan/
#   scripts/test.sh arm64                aarch64-linux-gnu-g++, in build-arm64/, every test run under
#                                        qemu-aarch64; the library also built with clang for arm64
#                                        (lock annotations), in build-arm64-clang/
#   scripts/test.sh fuzz [SECONDS]       clang with libFuzzer, ASan and UBSan, in build-fuzz/: runs
#                                        the pool fuzz target for SECONDS (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh

flavour="${1:-plain}"
toolchain=""
model_steps=100000
packages=()
case "$flavour" in
  plain) dir=build; cc=gcc; cxx=g++; sanitize="" ;;
  asan) dir=build-asan; cc=gcc; cxx=g++; sanitize="address,undefined" ;;
  tsan) dir=build-tsan; cc=clang; cxx=clang++; sanitize="thread" ;;
  arm64)
    dir=build-arm64; cc=""; cxx=""; sanitize=""
    toolchain=cmake/toolchains/aarch64-linux-gnu.cmake
    # Under emulation the model's 10^5 steps alone take minutes.
    model_steps=20000
    packages=("${GAINMAP_ARM64_PACKAGES[@]}")
    ;;
  fuzz) dir=build-fuzz; cc=clang; cxx=clang++; sanitize="address,undefined,fuzzer-no-link" ;;
  *) echo "usage: scripts/test.sh [plain|asan|tsan [PCT_RUNS]|arm64|fuzz [SECONDS]]" >&2; exit 2 ;;
esac
gainmap_install_deps "${packages[@]}"
# The benchmarks are built, not run, in the plain flavour, so that they keep compiling.
benchmarks=OFF
[ "$flavour" = plain ] && benchmarks=ON

configure=(cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo
           -DGAINMAP_SANITIZE="$sanitize" -DGAINMAP_BUILD_BENCHMARKS="$benchmarks"
           -DGAINMAP_MODEL_STEPS="$model_steps")
[ "$flavour" = fuzz ] && configure+=(-DGAINMAP_BUILD_FUZZERS=ON)
# The explorer's copy of the pool and its scenarios; they run below, outside CTest.
explore=OFF
case "$flavour" in plain | asan | tsan) explore=ON ;; esac
configure+=(-DGAINMAP_SCHEDULING_POINTS="$explore")
if [ -n "$toolchain" ]; then
  "${configure[@]}" -DCMAKE_TOOLCHAIN_FILE="$toolchain" >/dev/null
else
  CC=$cc CXX=$cxx "${configure[@]}" >/dev/null
fi
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
if [ "$flavour" = fuzz ]; then
  cmake --build "$dir" -j"$(nproc)" --target gainmap_fuzz
  mkdir -p "$dir/fuzz-corpus"
  exec "$dir/pipeline/utils/gainmap/tests/fuzz/gainmap_fuzz" -max_total_time="${2:-60}" \
    -print_final_stats=1 -artifact_prefix="$dir/" "$dir/fuzz-corpus"
fi
cmake --build "$dir" -j"$(nproc)"

case "$flavour" in
  arm64)
    # Death tests and the simulator's tests start arm64 programs themselves.
    scripts/with-arm64-binfmt.sh ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
    cmake -S . -B build-arm64-clang -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DBUILD_TESTING=OFF \
      -DCMAKE_TOOLCHAIN_FILE=cmake/toolchains/aarch64-linux-gnu-clang.cmake >/dev/null
    cmake --build build-arm64-clang -j"$(nproc)" --target qelcam_gainmappool
    ;;
  plain | asan | tsan)
    ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
    scenarios="$dir/pipeline/utils/gainmap/tests/explore/gainmap_explore_pool_scenarios"
    "$scenarios"
    if [ -n "${2:-}" ]; then
      "$scenarios" --pct "$2" --seed "$(date +%s)"
    fi
    if [ "$flavour" = plain ]; then
      scripts/check-package.sh "$dir"
      scripts/test-budget.sh
    fi
    ;;
  *) ctest --test-dir "$dir" --output-on-failure -j"$(nproc)" ;;
esac
