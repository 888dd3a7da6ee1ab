#!/usr/bin/env bash
# Installs what is missing, configures, builds and runs every test.
#   scripts/test.sh                      g++, no sanitizer, in build/
#   scripts/test.sh asan                 g++ with AddressSanitizer + UBSan, in build-asan/
#   scripts/test.sh tsan                 clang with ThreadSanitizer and -Wthread-safety, in build-tsan/
#   scripts/test.sh fuzz [SECONDS]       clang with libFuzzer, ASan and UBSan, in build-fuzz/: runs
#                                        the pool fuzz target for SECONDS (default 60)
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
gainmap_install_deps

flavour="${1:-plain}"
case "$flavour" in
  plain) dir=build; cc=gcc; cxx=g++; sanitize="" ;;
  asan) dir=build-asan; cc=gcc; cxx=g++; sanitize="address,undefined" ;;
  tsan) dir=build-tsan; cc=clang; cxx=clang++; sanitize="thread" ;;
  fuzz) dir=build-fuzz; cc=clang; cxx=clang++; sanitize="address,undefined,fuzzer-no-link" ;;
  *) echo "usage: scripts/test.sh [plain|asan|tsan|fuzz [SECONDS]]" >&2; exit 2 ;;
esac

extra=()
[ "$flavour" = fuzz ] && extra=(-DGAINMAP_BUILD_FUZZERS=ON)
CC=$cc CXX=$cxx cmake -S . -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DGAINMAP_SANITIZE="$sanitize" "${extra[@]}" >/dev/null
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
ctest --test-dir "$dir" --output-on-failure -j"$(nproc)"
