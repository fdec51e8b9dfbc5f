#!/usr/bin/env bash
# Measures the driver against the paced controller simulator and prints one table, each figure
# beside its limit and its target; the table, the machine it ran on and this command go to
# docs/performance.md.
#
#   scripts/perf.sh [--quick]
#
# --quick shortens the watches and leaves out the 1 MB transfers (a look, not a report).
# Takes about eight minutes otherwise, mostly on the line: the figures are about the serial
# line's rate, so nothing here can run faster than the line.
set -euo pipefail
cd "$(dirname "$0")/.."

quick=0
[ "${1:-}" = "--quick" ] && quick=1

scripts/install-deps.sh
for tool in valgrind jq; do
  if ! command -v "$tool" >/dev/null; then
    echo "perf.sh needs $tool: apt-get install $tool" >&2
    exit 1
  fi
done

build="${HUST_BUILD_DIR:-build}"
cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
cmake --build "$build" -j2 --target hust_linkprobe bench_driverread >/dev/null
probe="$build/bin/hust_linkprobe"
reads="$build/bench/driver/bench_driverread"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

watch_s=20
long_s=60
[ $quick = 1 ] && watch_s=8 && long_s=8

rows=()
row() { rows+=("| $1 | $2 | $3 | $4 | $5 |"); }
verdict() { if awk "BEGIN { exit !($1) }"; then echo ok; else echo "**missed**"; fi; }
fmt() { awk "BEGIN { printf \"%.${2:-2}f\", $1 }"; }

# Fresh blocks and data age through the plug-in, a screen polling every 10 ms.
for n in 10 30 99; do
  seconds=$watch_s
  [ $n = 99 ] && seconds=$long_s
  echo "watch N=$n for $seconds s" >&2
  "$probe" --n $n --seconds $seconds --json >"$work/watch$n.json"
done
for n in 10 30 99; do
  j="$work/watch$n.json"
  t=$(jq .T_ms "$j")
  rate=$(jq .fresh_blocks_per_T "$j")
  p50=$(jq .age_p50_T "$j")
  p95=$(jq .age_p95_T "$j")
  poll=$(fmt "10 / $t")
  row "fresh blocks per second, N = $n" "$(fmt "$rate") of 1/T ($(fmt "1000 * $rate / $t" 1)/s)" \
    "1/T" ">= 0.95 of 1/T" "$(verdict "$rate >= 0.95")"
  row "data age p50 / p95, N = $n" "$(fmt "$p50") T / $(fmt "$p95") T" \
    "1.5 T / 2 T + poll ($poll T)" "<= 1.6 T / 2.3 T + poll" \
    "$(verdict "$p50 <= 1.6 + $poll && $p95 <= 2.3 + $poll")"
done

# The worker's instructions per received byte, all of its loop cycles (the host port's reads
# included), under callgrind.
for n in 10 99; do
  echo "worker instructions, N=$n" >&2
  valgrind --tool=callgrind --callgrind-out-file="$work/worker$n.cg" \
    --toggle-collect='DriverHushCNCReaderWriter::loopRead()' \
    "$probe" --n $n --seconds $watch_s --json >"$work/worker$n.json" 2>/dev/null
  ir=$(callgrind_annotate "$work/worker$n.cg" | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }')
  bytes=$(jq .bytes_read "$work/worker$n.json")
  per=$(fmt "$ir / $bytes" 0)
  row "worker instructions per received byte, N = $n" "$per" "" "<= 100, flat in N" \
    "$(verdict "$per <= 100")"
done

# Instructions of one read() from a warm cache: the difference between 4000 and 2000 reads, so
# that the first translation of each command does not count.
for n in 1 10 99; do
  echo "read() instructions, $n double words" >&2
  for calls in 2000 4000; do
    valgrind --tool=callgrind --callgrind-out-file="$work/read$n-$calls.cg" \
      --toggle-collect='DriverHushCNC::read(*' "$reads" --calls $n $calls >/dev/null 2>&1
  done
  a=$(callgrind_annotate "$work/read$n-2000.cg" | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }')
  b=$(callgrind_annotate "$work/read$n-4000.cg" | awk '/PROGRAM TOTALS/ { gsub(",", "", $1); print $1 }')
  per=$(fmt "($b - $a) / 2000" 0)
  row "read() from a warm cache, $n double words" "$per instructions" "a copy" \
    "<= 2000, flat in N" "$(verdict "$per <= 2000")"
done

peak10=$(jq .peak_memory_kb "$work/watch10.json")
peak99=$(jq .peak_memory_kb "$work/watch99.json")
row "peak memory, watch N = 99, $long_s s" "$(fmt "$peak99 / 1024" 1) MB (N = 10, $watch_s s: $(fmt "$peak10 / 1024" 1) MB)" \
  "" "flat" "$(verdict "$peak99 <= 1.2 * $peak10")"

# Part programs through the G-code keys. 1 MB runs on a line ten times faster: at 38400 baud
# its read alone would take ten minutes.
sizes="10240 102400 1048576"
[ $quick = 1 ] && sizes="10240 102400"
for size in $sizes; do
  speed=1
  [ "$size" = 1048576 ] && speed=10
  for kind in read send; do
    echo "G-code $kind, $size bytes" >&2
    "$probe" --gcode $kind --size $size --speed $speed >"$work/gcode-$kind-$size.json"
  done
done
for size in $sizes; do
  label="$((size / 1024)) KB"
  [ "$size" = 1048576 ] && label="1 MB (line x10)"
  r="$work/gcode-read-$size.json"
  s="$work/gcode-send-$size.json"
  row "G-code read, $label: line share / CPU per byte" \
    "$(fmt "100 * $(jq .line_share "$r")" 1) % / $(fmt "$(jq .cpu_us_per_byte "$r")" 1) us" \
    "50 % (two agreeing answers)" "keep (42 % at 10 KB, 49.9 % at 1 MB)" \
    "$(verdict "$(jq .transferred "$r") == $size")"
  row "G-code send, $label: line share / CPU per byte" \
    "$(fmt "100 * $(jq .line_share "$s")" 1) % / $(fmt "$(jq .cpu_us_per_byte "$s")" 1) us" \
    "100 %" "keep" "$(verdict "$(jq .transferred "$s") == $size")"
done

machine="$(uname -srm); $(lscpu | awk -F: '/Model name/ { gsub(/^ +/, "", $2); print $2; exit }'), $(nproc) cores; $(awk '/MemTotal/ { printf "%.1f GB", $2 / 1048576 }' /proc/meminfo); $(. /etc/os-release && echo "$PRETTY_NAME"); load $(cut -d' ' -f1-3 /proc/loadavg) at the end"
table=$(
  echo "| figure | measured | limit | target | |"
  echo "|---|---|---|---|---|"
  printf '%s\n' "${rows[@]}"
)
echo
echo "$table"
echo
echo "Machine: $machine"

[ $quick = 1 ] && exit 0
mkdir -p docs
cat >docs/performance.md <<EOF
# Performance

Measured by \`scripts/perf.sh\` on $(date -u +%Y-%m-%d) with the commit $(git rev-parse --short HEAD).

Machine: $machine.

$table

How each figure is taken:
- Fresh blocks and data age: \`hust_linkprobe\` loads the plug-in and watches N double words
  through the host serial port against \`hust-sim --clock 100\` on a pseudo-terminal paced at
  38400 baud 7E2 (3,490.9 characters a second), reading the block every 10 ms as a screen does.
  T = (10 N + 25) / 3490.9 s is the time one response takes on the line. The age of a read is
  the simulator's monotonic clock when the frame was formatted, subtracted from the time of the
  read. N = 10 and 30 watch for $watch_s s, N = 99 for $long_s s.
- Worker instructions: callgrind, collecting inside the worker's loop cycles only
  (\`--toggle-collect='DriverHushCNCReaderWriter::loopRead()'\`), divided by the bytes the worker
  read; the host serial port's reads are part of the cycles and are counted.
- \`read()\`: callgrind on \`bench_driverread --calls SIZE COUNT\`, the difference between 4000 and
  2000 reads from a warm cache of SIZE double words, divided by 2000.
- Peak memory: the probe's maximum resident set size.
- G-code: the probe writes the request key and polls the status word every 10 ms until the
  transfer is over. The line share is the program bytes over the time taken at the line's
  character rate; a read takes two agreeing answers, so it cannot pass 50 %, and its own pauses
  (about 0.75 s) weigh most on small programs. The pseudo-terminal takes the panel's writes at
  once, so the probe holds each write for as long as the line would take to send it. CPU is the
  probe's user and system time per program byte.
EOF
echo "wrote docs/performance.md"
