#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Quiet when everything is present; safe to run any number of times.
#   build and tools: cmake .. gnuplot-nox, help2man (man page), bash-completion
#   fuzzing: clang with its libFuzzer and sanitizer runtimes
#   SocketCAN tests in a small VM: qemu, busybox, can-utils, iproute2 (the
#     guest kernel itself is fetched with apt-get download and only unpacked)
#   Python bindings: Debian's python3 with pybind11, pytest and python-can
#   ocpctl scope: cpp-httplib (its server); chromium, chromium-driver and
#     python3-selenium for the test of its page in a real browser
#   the Debian package (make package): dpkg-dev (dpkg-shlibdeps) and lintian
#   make bench: valgrind (callgrind instruction counts) and bc
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev gnuplot-nox help2man bash-completion
  clang libclang-rt-14-dev
  qemu-system-x86 busybox-static can-utils iproute2 xz-utils binutils
  python3 python3-dev pybind11-dev python3-pybind11 python3-pytest python3-can
  libcpp-httplib-dev chromium chromium-driver python3-selenium
  dpkg-dev lintian
  valgrind bc
)

missing=()
for package in "${packages[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$package")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "Installing missing packages: ${missing[*]}"
sudo=""
if [ "$(id -u)" -ne 0 ]; then
  command -v sudo >/dev/null || { echo "Need root (or sudo) to install: ${missing[*]}" >&2; exit 1; }
  sudo="sudo"
fi
export DEBIAN_FRONTEND=noninteractive
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
