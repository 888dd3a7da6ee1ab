# Installs what the build needs, when it is missing. Sourced by the other scripts.
GAINMAP_PACKAGES=(cmake ninja-build g++ clang libclang-rt-dev ccache googletest libgtest-dev
                  libgmock-dev libbenchmark-dev android-liblog-dev android-liblog binutils
                  pkgconf nlohmann-json3-dev)
# The arm64 build and its run under emulation (scripts/test.sh arm64): the cross compiler, the
# target's libraries from Debian multiarch, and user-mode QEMU.
GAINMAP_ARM64_PACKAGES=(g++-aarch64-linux-gnu qemu-user libc6:arm64 libstdc++6:arm64
                        libgtest-dev:arm64 libgmock-dev:arm64 android-liblog-dev:arm64
                        android-liblog:arm64)
# The simulator's sizing plot (gainmap-sim --size --plot FILE.png), installed when one is asked for.
GAINMAP_PLOT_PACKAGES=(gnuplot-nox)
# The Android.bp check (scripts/check-android-bp.sh): bpfmt and the source-list comparison.
GAINMAP_BP_PACKAGES=(blueprint-tools python3)

# gainmap_install_deps [PACKAGE...]: the common packages and the ones given. A package named
# NAME:arm64 adds the arm64 architecture to dpkg first.
gainmap_install_deps() {
  local missing=()
  local pkg
  for pkg in "${GAINMAP_PACKAGES[@]}" "$@"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$pkg")
  done
  if [ "${#missing[@]}" -gt 0 ]; then
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    if [[ " ${missing[*]}" == *":arm64"* ]] && ! dpkg --print-foreign-architectures | grep -qx arm64; then
      $sudo dpkg --add-architecture arm64
    fi
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
      "${missing[@]}"
  fi
}
