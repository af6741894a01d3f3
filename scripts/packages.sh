# Debian packages that the scripts need; sourced by them. `install_packages NAME...` installs those that
# are missing, with sudo where the user is not root.

packages_build="g++ cmake ninja-build pkg-config libsndfile1-dev libsamplerate0-dev libspeexdsp-dev libcli11-dev nlohmann-json3-dev libcairo2-dev nettle-dev"
packages_demo="espeak-ng python3-numpy python3-scipy fonts-dejavu-core"
packages_web="emscripten cmake ninja-build nodejs ca-certificates"
packages_web_test="googletest chromium"
packages_bench="libbenchmark-dev libspeexdsp-dev libwebrtc-audio-processing-dev libfftw3-dev valgrind qemu-user g++-arm-linux-gnueabihf g++-aarch64-linux-gnu binutils python3-numpy python3-matplotlib"
packages_abi="abigail-tools"
packages_fuzz="clang libclang-rt-14-dev"
packages_lint="clang-format clang-tidy shellcheck pyflakes3"
packages_adapters="lv2-dev lilv-utils sordi ladspa-sdk sox alsa-utils libspa-0.2-dev pipewire pipewire-bin wireplumber dbus-daemon espeak-ng libgstreamer1.0-dev libgstreamer-plugins-base1.0-dev gstreamer1.0-tools gstreamer1.0-plugins-base gstreamer1.0-plugins-good"
packages_python="python3-build python3-venv python3-setuptools python3-wheel python3-pytest mypy python3-numpy python3-soundfile"
packages_test="googletest zsh clang libclang-rt-14-dev binutils g++-arm-linux-gnueabihf g++-aarch64-linux-gnu qemu-user python3-numpy python3-scipy python3-soundfile python3-matplotlib python3-torch libopenblas0-pthread fonts-dejavu-core"
packages_package="build-essential debhelper dh-python dpkg-dev fakeroot googletest help2man lintian pybuild-plugin-pyproject python3-all python3-setuptools python3-wheel"
packages_cluster="slurm-wlm munge parallel"

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
