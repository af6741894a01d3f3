# Debian packages that the scripts need; sourced by them. `install_packages NAME...` installs those that
# are missing, with sudo where the user is not root.

packages_build="g++ cmake ninja-build pkg-config libsndfile1-dev libsamplerate0-dev libcli11-dev nlohmann-json3-dev libcairo2-dev"
packages_demo="espeak-ng python3-numpy python3-scipy fonts-dejavu-core"
packages_bench="libbenchmark-dev libspeexdsp-dev libwebrtc-audio-processing-dev libfftw3-dev valgrind qemu-user g++-arm-linux-gnueabihf g++-aarch64-linux-gnu binutils python3-numpy python3-matplotlib"
packages_test="googletest clang libclang-rt-14-dev binutils g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user python3-numpy python3-scipy python3-soundfile python3-matplotlib python3-torch libopenblas0-pthread fonts-dejavu-core"

install_packages() {
  missing=""
  for package in "$@"; do
    dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q 'ok installed' || missing="$missing $package"
  done
  [ -z "$missing" ] && return 0
  echo "installing:$missing"
  as_root=""
  [ "$(id -u)" -eq 0 ] || as_root=sudo
  log=$(mktemp)
  # shellcheck disable=SC2086
  { $as_root apt-get update -qq && DEBIAN_FRONTEND=noninteractive $as_root apt-get install -y -qq --no-install-recommends $missing; } > "$log" 2>&1 || {
    echo "could not install$missing; see $log" >&2
    return 1
  }
  rm "$log"
}
