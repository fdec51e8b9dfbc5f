#!/usr/bin/env bash
# Installs the Debian 12 packages the build, the demo and the tests need, when they are missing.
set -euo pipefail

packages=(
  cmake ninja-build g++ make pkg-config ccache
  qtbase5-dev qtbase5-dev-tools libqt5sql5-sqlite
  libbenchmark-dev
  fonts-unifont
)
if [ "${1:-}" = "--tests" ]; then
  # The fuzz targets are built with clang's libFuzzer and sanitizer run-times.
  packages+=(clang-14 libclang-rt-14-dev)
fi
if [ "${1:-}" = "--armhf" ]; then
  # The cross-build for the ARM panels: Debian's cross toolchain, and qemu to run its tests.
  packages+=(crossbuild-essential-armhf qemu-user-static file)
fi

missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  export DEBIAN_FRONTEND=noninteractive
  apt-get update -qq
  apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi
