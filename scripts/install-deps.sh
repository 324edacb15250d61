#!/usr/bin/env bash
# Installs the Debian packages the project needs, only those that are missing.
# Quiet when everything is present; safe to run any number of times.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config
  googletest libgtest-dev libgmock-dev libbenchmark-dev
  libcli11-dev nlohmann-json3-dev gnuplot-nox
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
