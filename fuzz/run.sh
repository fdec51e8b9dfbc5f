#!/usr/bin/env bash
# Builds the fuzz targets with clang (libFuzzer, address and undefined-behaviour sanitizers) and
# runs each for SECONDS, starting from the seeds in fuzz/corpus/<target>/. Every fuzz/fuzz_*.cpp
# is a target; naming some after the build directory runs only those. New inputs go to the build
# directory, so the committed seeds stay as they are. Exits non-zero on any finding.
# Usage: fuzz/run.sh SECONDS [BUILD_DIR [TARGET...]]
set -euo pipefail

seconds="${1:?usage: fuzz/run.sh SECONDS [BUILD_DIR [TARGET...]]}"
here="$(cd "$(dirname "$0")" && pwd)"
build="${2:-$here/../build-fuzz}"
shift $(($# < 2 ? $# : 2))
mkdir -p "$build"
build="$(cd "$build" && pwd)"

cxx="$(command -v clang++-14 || command -v clang++ || true)"
if [ -z "$cxx" ]; then
  echo "fuzz/run.sh: clang++ not found (install clang-14 and libclang-rt-14-dev)" >&2
  exit 2
fi
generator=()
if command -v ninja >/dev/null; then
  generator=(-G Ninja)
fi

cmake -S "$here" -B "$build" "${generator[@]}" -DCMAKE_CXX_COMPILER="$cxx" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=("$@")
if [ ${#targets[@]} -eq 0 ]; then
  for source in "$here"/fuzz_*.cpp; do
    targets+=("$(basename "$source" .cpp)")
  done
fi
cmake --build "$build" -j"$(nproc)" --target "${targets[@]}"

failed=()
for target in "${targets[@]}"; do
  work="$build/corpus/$target"
  mkdir -p "$work" "$build/artifacts"
  seeds=()
  if [ -d "$here/corpus/$target" ]; then
    seeds=("$here/corpus/$target")
  fi
  # A target may name further libFuzzer options in a line "// libFuzzer options: ..." of its source.
  read -r -a options <<<"$(sed -n 's|^// libFuzzer options: ||p' "$here/$target.cpp")"
  echo "== $target: $seconds s"
  if "$build/$target" -max_total_time="$seconds" -timeout=10 -print_final_stats=1 "${options[@]}" \
      -artifact_prefix="$build/artifacts/$target-" "$work" "${seeds[@]}" \
      >"$build/$target.log" 2>&1; then
    grep -E '^stat::number_of_executed_units' "$build/$target.log" || true
  else
    tail -n 60 "$build/$target.log"
    failed+=("$target")
  fi
done

if [ ${#failed[@]} -gt 0 ]; then
  echo "fuzz findings in: ${failed[*]} (inputs under $build/artifacts)" >&2
  exit 1
fi
echo "no findings"
