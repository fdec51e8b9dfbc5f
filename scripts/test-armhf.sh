#!/usr/bin/env bash
# Cross-builds everything for the ARM panels (32-bit ARM hard-float) into build-armhf/, checks the
# plug-in a panel loads, and runs every test under qemu. Extra arguments go to cmake.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --armhf
build="${HUST_ARMHF_BUILD_DIR:-build-armhf}"
scripts/armhf-sysroot.sh "$build/sysroot"
# Benchmarks say nothing under an emulator; they are not built.
cmake -S . -B "$build" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/armhf-toolchain.cmake" \
  -DHUST_ARMHF_SYSROOT="$PWD/$build/sysroot" -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHUST_WERROR=ON \
  -DHUST_BUILD_BENCH=OFF "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"

# The panel loads an ARM file that carries its verification record and exports its entry points.
plugin=$(find "$build" -path "$build/sysroot" -prune -o -name libhust_cnc_driver.so -print -quit)
kind=$(file -b "$plugin")
echo "== armhf plug-in $plugin: $kind"
if [[ $kind != "ELF 32-bit LSB shared object, ARM, EABI5"* ]]; then
  echo "the plug-in is not an armhf shared object" >&2
  exit 1
fi
record=$(readelf -p .qtplugin "$plugin")
echo "$record"
grep -q 'pattern=QT_PLUGIN_VERIFICATION_DATA' <<<"$record"
readelf --dyn-syms -W "$plugin" | awk '$7 != "UND" && $8 ~ /^(CreateDriver|qt_plugin_instance|qt_plugin_query_verification_data)$/ { print; n++ }
  END { exit n != 3 }'

ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300
