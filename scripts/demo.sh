#!/usr/bin/env bash
# Builds the driver and its tools, then runs the demo against the built-in controller simulator.
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build build -j"$(nproc)"
exec build/bin/hustctl demo "$@"
