#!/usr/bin/env bash
# Cross-builds everything for the ARM panels (32-bit ARM hard-float) into build-armhf/, runs every
# test under qemu and builds the armhf Debian package, checking the plug-in a panel loads in the
# build tree and in the package. Extra arguments go to cmake.
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

# A panel loads an ARM file that carries its verification record and exports its entry points.
check_plugin() {
  local plugin=$1 kind record
  kind=$(file -b "$plugin")
  echo "== armhf plug-in $plugin: $kind"
  if [[ $kind != "ELF 32-bit LSB shared object, ARM, EABI5"* ]]; then
    echo "the plug-in is not an armhf shared object" >&2
    return 1
  fi
  record=$(readelf -p .qtplugin "$plugin")
  echo "$record"
  grep -q 'pattern=QT_PLUGIN_VERIFICATION_DATA' <<<"$record"
  readelf --dyn-syms -W "$plugin" | awk '$7 != "UND" && $8 ~ /^(CreateDriver|qt_plugin_instance|qt_plugin_query_verification_data)$/ { print; n++ }
    END { exit n != 3 }'
}
check_plugin "$build/plugins/libhust_cnc_driver.so"

ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300

# The armhf package: stripped, it still carries a working plug-in, and it holds the same files with
# the same modes and declares the same relations as the build machine's package, when that build
# is there to compare with (CI's native build).
package() {
  rm -f "$1"/*.deb
  (cd "$1" && cpack -G DEB >/dev/null)
  find "$1" -maxdepth 1 -name '*.deb' -print -quit
}
deb=$(package "$build")
echo "== armhf package $deb"
dpkg-deb -f "$deb" Architecture | grep -qx armhf
unpacked=$(mktemp -d)
trap 'rm -rf "$unpacked"' EXIT
dpkg-deb -x "$deb" "$unpacked"
check_plugin "$(find "$unpacked" -name libhust_cnc_driver.so -print -quit)"
native="${HUST_BUILD_DIR:-build}"
if [ -f "$native/CPackConfig.cmake" ]; then
  native_deb=$(package "$native")
  contents() { dpkg-deb -c "$1" | awk '{ print $1, $6 }'; }
  relations() { dpkg-deb -f "$1" Package Version Depends Suggests; }
  diff <(contents "$native_deb") <(contents "$deb")
  diff <(relations "$native_deb") <(relations "$deb")
  echo "== the armhf package mirrors $native_deb"
fi
