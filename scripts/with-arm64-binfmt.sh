#!/usr/bin/env bash
# Runs a command so that every arm64 program it starts, directly or through fork and exec, runs
# under qemu-aarch64. Without a system-wide registration for arm64 it enters a private user and
# mount namespace with a binfmt_misc instance of its own; nothing outside that namespace changes.
#   scripts/with-arm64-binfmt.sh COMMAND [ARGS...]
set -euo pipefail

binfmt=/proc/sys/fs/binfmt_misc
# ELF header of a 64-bit little-endian arm64 executable or position-independent executable.
magic='\x7fELF\x02\x01\x01\x00\x00\x00\x00\x00\x00\x00\x00\x00\x02\x00\xb7\x00'
mask='\xff\xff\xff\xff\xff\xff\xff\x00\xff\xff\xff\xff\xff\xff\xff\xff\xfe\xff\xff\xff'

if [ "${1:-}" = "--inside-namespace" ]; then
  shift
  mount -t binfmt_misc binfmt_misc "$binfmt"
  # F: the kernel opens qemu now, so that it is found whatever the program's root or mounts.
  printf '%s' ":qemu-aarch64:M::${magic}:${mask}:$(command -v qemu-aarch64):F" >"$binfmt/register"
  exec "$@"
fi

if [ "$#" -eq 0 ]; then
  echo "usage: scripts/with-arm64-binfmt.sh COMMAND [ARGS...]" >&2
  exit 2
fi
if [ -f "$binfmt/qemu-aarch64" ] && head -n1 "$binfmt/qemu-aarch64" | grep -q enabled; then
  exec "$@"
fi
exec unshare --user --map-root-user --mount --fork "$0" --inside-namespace "$@"
