#!/usr/bin/env bash
# Installs what is missing (gnuplot too when --plot is given), builds the simulator and runs it;
# arguments go to gainmap-sim.
# The build is quiet when it succeeds; when it fails its whole output goes to stderr.
set -euo pipefail
cd "$(dirname "$0")/.."
source scripts/deps.sh
# gnuplot only when a plot is asked for.
extra=()
for arg in "$@"; do
  case "$arg" in --plot | --plot=*) extra=("${GAINMAP_PLOT_PACKAGES[@]}") ;; esac
done
gainmap_install_deps "${extra[@]}"
log="$(mktemp)"
if ! { cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo &&
       cmake --build build -j"$(nproc)" --target gainmap-sim; } >"$log" 2>&1; then
  cat "$log" >&2
  rm -f "$log"
  echo "run-sim.sh: the build failed; its output is above" >&2
  exit 1
fi
rm -f "$log"
exec build/tools/gainmap-sim/gainmap-sim "$@"
