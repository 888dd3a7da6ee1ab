#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh                      g++, no sanitizer, in build/ (benchmarks built too)
#   scripts/test.sh asan                 g++ with AddressSanitizer + UBSan, in build-asan/
#   scripts/test.sh tsan                 clang with ThreadSanitizer and -Wthread-safety, in build-tsan/
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
gainmap_install_deps

flavour="${1:-plain}"
case "$flavour" in
  plain) dir=build; cc=gcc; cxx=g++; sanitize="" ;;
  asan) dir=build-asan; cc=gcc; cxx=g++; sanitize="address,undefined" ;;
  tsan) dir=build-tsan; cc=clang; cxx=clang++; sanitize="thread" ;;
  *) echo "usage: scripts/test.sh [plain|asan|tsan]" >&2; exit 2 ;;
esac
# The benchmarks are built, not run, in the plain flavour, so that they keep compiling.
benchmarks=OFF
[ "$flavour" = plain ] && benchmarks=ON

CC=$cc CXX=$cxx cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DGAINMAP_SANITIZE="$sanitize" -DGAINMAP_BUILD_BENCHMARKS="$benchmarks" >/dev/null
cmake --build "$dir" -j"$(nproc)"
export ASAN_OPTIONS="${ASAN_OPTIONS:-detect_leaks=1:abort_on_error=0}"
export UBSAN_OPTIONS="${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}"
export TSAN_OPTIONS="${TSAN_OPTIONS:-halt_on_error=1:second_deadlock_stack=1}"
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
