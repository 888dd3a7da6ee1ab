#!/usr/bin/env bash
# Installs what is missing, builds the simulator and runs it; arguments go to gainmap-sim.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
gainmap_install_deps
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)" --target gainmap-sim >/dev/null
exec build/tools/gainmap-sim/gainmap-sim "$@"
