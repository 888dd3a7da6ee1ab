#!/usr/bin/env bash
# Installs a built tree into a temporary prefix, then builds the example consumer against it, once
# through the CMake package and once through pkg-config, and runs both.
#   scripts/check-package.sh [BUILD_DIR]          default: build/
set -euo pipefail
cd "$(dirname "$0")/.."
build="${1:-build}"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
prefix="$work/prefix"

cmake --install "$build" --prefix "$prefix" >/dev/null
library="$(find "$prefix" -name 'libqelcam_gainmappool.so.*.*.*')"
soname="$(objdump -p "$library" | awk '$1 == "SONAME" { print $2 }')"
if [ "$soname" != "libqelcam_gainmappool.so.1" ]; then
  echo "check-package: $library has soname '$soname'" >&2
  exit 1
fi

cmake -S examples/consumer -B "$work/cmake" -G Ninja -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
cmake --build "$work/cmake"
"$work/cmake/gainmap_consumer"

export PKG_CONFIG_PATH
PKG_CONFIG_PATH="$(dirname "$(find "$prefix" -name qelcam_gainmappool.pc)")"
libdir="$(pkg-config --variable=libdir qelcam_gainmappool)"
# shellcheck disable=SC2046 # pkg-config's flags are separate words
c++ -std=c++17 -Wall -Wextra -Werror -Wshadow -Wconversion examples/consumer/main.cpp \
  -o "$work/pkg-config-consumer" $(pkg-config --cflags --libs qelcam_gainmappool qelcam_platform_host) \
  -Wl,-rpath,"$libdir"
"$work/pkg-config-consumer"
echo "check-package: installed package built and ran through CMake and pkg-config"
