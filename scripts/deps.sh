# Installs what the build needs, when it is missing. Sourced by the other scripts.
GAINMAP_PACKAGES=(cmake ninja-build g++ clang libclang-rt-dev ccache googletest libgtest-dev
                  libgmock-dev libbenchmark-dev android-liblog-dev android-liblog binutils
                  nlohmann-json3-dev)

gainmap_install_deps() {
  local missing=()
  local pkg
  for pkg in "${GAINMAP_PACKAGES[@]}"; do
    dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed" ||
      missing+=("$pkg")
  done
  if [ "${#missing[@]}" -gt 0 ]; then
    echo "installing: ${missing[*]}"
    local sudo=""
    [ "$(id -u)" -eq 0 ] || sudo="sudo"
    $sudo apt-get update -qq
    DEBIAN_FRONTEND=noninteractive $sudo apt-get install -y -qq --no-install-recommends \
      "${missing[@]}"
  fi
}
