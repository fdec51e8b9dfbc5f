#!/usr/bin/env bash
# The fault matrix: a panel screen (hust-faultscreen: the driver plug-in over the host serial
# port) against hust-sim on a pseudo-terminal, one row per line fault. Prints a Markdown table.
#
#   scripts/fault-matrix.sh            builds what it needs in $HUST_BUILD_DIR (default build)
#
# Columns:
#   error shows      from the fault to the first refresh marked stale (the driver's error);
#                    "never" when no refresh was
#   fresh again      outages: from the line's return to the first fresh block; lasting faults:
#                    the longest time without a fresh block; screen switches: the longest time
#                    from a switch to the new screen's values
#   stale refreshes  refreshes marked stale, of all refreshes
#   wrong values     values the controller never held in that register / values of another
#                    register (whole records out of place), summed over the refreshes that
#                    showed them; screen switches: after how many of the switches that got
#                    to the new screen's values any showed
#   writes lost      writes made while fresh values flowed that never reached the controller
set -euo pipefail
cd "$(dirname "$0")/.."
build="${HUST_BUILD_DIR:-build}"
if [ ! -f "$build/CMakeCache.txt" ]; then
  cmake -S . -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo -DHUST_BUILD_BENCH=OFF \
    >/dev/null
fi
cmake --build "$build" --target hust-sim hust-faultscreen hust_cnc_driver -j2 >/dev/null
bin="$(cd "$build/bin" && pwd)"

work="$(mktemp -d)"
sim_pid=""
cleanup() {
  if [ -n "$sim_pid" ]; then
    kill -CONT "$sim_pid" 2>/dev/null || true
    kill "$sim_pid" 2>/dev/null || true
  fi
  rm -rf "$work"
}
trap cleanup EXIT

read -r -a values <<<"$("$bin/hust-faultscreen" --sim-values)"
link="$work/cnc"
now() { date +%s%3N; }
# Sleeps until the epoch time $1 in ms.
sleep_until() {
  local left=$(($1 - $(now)))
  if [ "$left" -gt 0 ]; then sleep "$(printf '%d.%03d' $((left / 1000)) $((left % 1000)))"; fi
}

# Starts hust-sim behind the link with the screens' values, logging received frames to $1;
# further arguments are hust-sim options. Sets sim_pid and started (epoch ms, when it serves).
start_sim() {
  local log="$1"
  shift
  rm -f "$work/sim.out"
  "$bin/hust-sim" --link "$link" --seed 11 "${values[@]}" --log "$log" "$@" \
    >"$work/sim.out" 2>/dev/null &
  sim_pid=$!
  for _ in $(seq 500); do
    grep -q '^PTY' "$work/sim.out" 2>/dev/null && break
    sleep 0.01
  done
  started=$(now)
}

stop_sim() {
  kill "$sim_pid" 2>/dev/null || true
  wait "$sim_pid" 2>/dev/null || true
  sim_pid=""
}

# One row: name, kind (outage, lasting or switch), fault start and line return (epoch ms; empty
# when not an outage); reads $work/screen.out and the simulator logs $work/sim*.log.
report() {
  local name="$1" kind="$2" from="${3:-}" back="${4:-}"
  local received
  received=$(cat "$work"/sim*.log | grep '"kind":"write_dword"' | grep '"addresses":\[300\]' |
    sed 's/.*"values":\[\([0-9]*\)\].*/\1/' | sort -n | uniq | tr '\n' ' ')
  awk -v name="$name" -v kind="$kind" -v from="$from" -v back="$back" -v received="$received" '
    function seconds(ms) { return sprintf("%.1f s", ms / 1000) }
    BEGIN { split(received, got, " "); for (i in got) arrived[got[i]] = 1 }
    $1 == "start" { start = $2; if (from == "") from = start }
    $1 == "switch" { switches[++nswitch] = $2 }
    $1 == "refresh" {
      t = $2; ++refreshes; stale += $3; corrupt += $7; shifted += $8
      if (kind != "switch" && $3 && t >= from && errorAt == "") errorAt = t - from
      if (kind == "outage" && t < back) blocksBefore = $4
      if (kind == "outage" && t >= back && freshAt == "" && $4 > blocksBefore) freshAt = t
      if (kind == "switch" && nswitch > 0 && !done[nswitch] && $6) {
        done[nswitch] = 1
        ++shownSwitches
        wait = t - switches[nswitch]
        if (wait > longest) longest = wait
      }
      if (kind == "switch" && nswitch > 0 && $7 + $8 > 0 && !wronged[nswitch]) {
        wronged[nswitch] = 1
        ++wrongSwitches
      }
      if (kind == "switch" && nswitch > 0 && $3 && !erred[nswitch]) {
        erred[nswitch] = 1
        ++errorSwitches
        wait = t - switches[nswitch]
        if (errorAt == "" || wait < errorAt) errorAt = wait
      }
    }
    $1 == "write" && $4 { writes[$3] = $2 }
    $1 == "end" { gap = $3 }
    END {
      if (kind == "outage") fresh = freshAt == "" ? "never" : seconds(freshAt - back)
      else if (kind == "switch") fresh = seconds(longest)
      else fresh = seconds(gap)
      error = errorAt == "" ? "never" : seconds(errorAt)
      if (kind == "switch" && errorSwitches > 0) error = error " (" errorSwitches " of " shownSwitches " switches)"
      wrong = sprintf("%d / %d", corrupt, shifted)
      if (kind == "switch" && wrongSwitches > 0) wrong = wrong " (" wrongSwitches " of " shownSwitches " switches)"
      healthy = 0; lost = 0
      for (s in writes) {
        if (kind == "outage" && writes[s] >= from - 200 && (freshAt == "" || writes[s] <= freshAt)) continue
        ++healthy
        if (!(s in arrived)) ++lost
      }
      printf "| %s | %s | %s | %d of %d | %s | %d of %d |\n", name, error, fresh, stale, refreshes, wrong, lost, healthy
    }' "$work/screen.out"
}

# A lasting fault: hust-sim runs with it from the start.
lasting() {
  local name="$1"
  shift
  rm -f "$work"/sim*.log
  start_sim "$work/sim1.log" "$@"
  "$bin/hust-faultscreen" --port "$link" --seconds 10 >"$work/screen.out"
  stop_sim
  report "$name" lasting
}

# An outage of the line 3 s into the watch: cable, silence or restart.
outage() {
  local name="$1" how="$2" from back
  rm -f "$work"/sim*.log
  if [ "$how" = cable ]; then
    start_sim "$work/sim1.log" --cable-pull 3000:5000
  else
    start_sim "$work/sim1.log"
  fi
  "$bin/hust-faultscreen" --port "$link" --seconds 14 >"$work/screen.out" &
  local screen=$!
  from=$((started + 3000))
  sleep_until "$from"
  case "$how" in
    cable) back=$((from + 5000)) ;;
    silence)
      # The controller stops answering: hust-sim is stopped, the line stays up.
      kill -STOP "$sim_pid"
      sleep 5
      kill -CONT "$sim_pid"
      back=$(now)
      ;;
    restart)
      # Killing hust-sim hangs the line up; a new one comes up behind the same path.
      stop_sim
      sleep_until $((from + 4000))
      start_sim "$work/sim2.log"
      back=$started
      ;;
  esac
  wait "$screen"
  stop_sim
  report "$name" outage "$from" "$back"
}

# Screen switches every second, refreshed every 10 ms, while the controller ignores every stop
# frame and streams the old list until it has taken the new request. Further arguments go to
# hust-faultscreen.
switching() {
  local name="$1" seconds="$2"
  shift 2
  rm -f "$work"/sim*.log
  start_sim "$work/sim1.log" --lose-stop 1
  "$bin/hust-faultscreen" --port "$link" --seconds "$seconds" --refresh 10 --switch 1000 "$@" \
    >"$work/screen.out"
  stop_sim
  report "$name" switch
}

echo "| fault | error shows | fresh again | stale refreshes | wrong values | writes lost |"
echo "|---|---|---|---|---|---|"
outage "cable pull 5 s" cable
outage "silence 5 s" silence
outage "hang-up, simulator restarted behind the link after 4 s" restart
lasting "random bytes before 1 % of frames" --garbage 0.01
lasting "random bytes before 10 % of frames" --garbage 0.1
lasting "each H code on 3 frames" --repeat-h 3
lasting "short values (10 % of records)" --short-values 0.1
lasting "cut frames (10 %)" --cut 0.1
switching "every stop frame lost, screen switch every second" 30
switching "every stop frame lost, switches between screens of one length" 12 --same-length
