#!/usr/bin/env bash
# Builds everything with warnings as errors and runs every test.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh --tests
build="${HUST_BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHUST_WERROR=ON "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure --timeout 300
