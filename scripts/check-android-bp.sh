#!/usr/bin/env bash
# Checks Android.bp: bpfmt finds nothing to change, and every source list matches CMake's, read
# through CMake's file API from a configure (no build) in build-bp/.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
gainmap_install_deps "${GAINMAP_BP_PACKAGES[@]}"

unformatted="$(bpfmt -l Android.bp)"
if [ -n "$unformatted" ]; then
  echo "check-android-bp: bpfmt would change $unformatted; run: bpfmt -w Android.bp" >&2
  exit 1
fi

mkdir -p build-bp/.cmake/api/v1/query
touch build-bp/.cmake/api/v1/query/codemodel-v2
cmake -S . -B build-bp -G Ninja -DGAINMAP_BUILD_BENCHMARKS=ON >/dev/null
python3 scripts/compare-android-bp.py Android.bp build-bp
