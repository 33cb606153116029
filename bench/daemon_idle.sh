#!/usr/bin/env bash
# bench/daemon_idle.sh [RUNS] [IDLE_SECONDS]: the daemon as a whole, every
# module loaded, in a fresh sandbox per run.
#
# Start-up: from the exec of tarnisd to its "Loaded N modules" line (the log's
# own millisecond stamp against the launch time), and to the first dump that
# `tarnisctl dump ModuleManager dump` gets answered (tarnisctl's own start
# included). The peer, in the same run: the same launch-to-first-answer loop
# around a bare `sleep` that a `true` stands for, i.e. what starting a process
# and looking at it costs here, so the ratio says how much the daemon adds.
#
# Idle: after the start-up settles (5 s), resident memory (VmRSS), thread
# count, and the CPU ticks (utime + stime from /proc/PID/stat) spent over
# IDLE_SECONDS. Runs twice per sandbox state: with "sys.boot_completed" 0 (the
# boot monitor waiting, as in a fresh ./run.sh) and 1 (the boot monitor done).
set -euo pipefail
cd "$(dirname "$0")/.."
RUNS=${1:-5}
IDLE=${2:-60}
BUILD_DIR="${TARNIS_BUILD_DIR:-$PWD/build}"
export TARNIS_BUILD_DIR="$BUILD_DIR"
tarnisd="$BUILD_DIR/tarnisd"
ctl="$BUILD_DIR/tarnisctl"
work=$(mktemp -d)
trap 'pkill -f "tarnisd --root $work" 2>/dev/null || true; rm -rf "$work"' EXIT

now_ms() { date +%s%3N; }
median() { sort -n | awk '{v[NR]=$1} END {if (NR%2) print v[(NR+1)/2]; else print (v[NR/2]+v[NR/2+1])/2}'; }
# Epoch milliseconds of a log line's "MM-DD HH:MM:SS.mmm" stamp (this year, local time).
stamp_ms() {
  local md=$1 hms=$2
  local ms=${hms##*.}
  echo $(( $(date -d "$(date +%Y)-$md ${hms%.*}" +%s) * 1000 + 10#$ms ))
}

start_daemon() {  # root, boot_completed -> sets pid, t0, log
  local root=$1
  rm -rf "$root"
  scripts/prepare-sandbox.sh "$root" >/dev/null
  "$ctl" --root "$root" setprop sys.boot_completed "$2"
  log="$root.log"
  t0=$(now_ms)
  PATH="$root/bin:$PATH" "$tarnisd" --root "$root" >"$log" 2>&1 &
  pid=$!
}

declare -a loaded dumped peer rss threads ticks
for state in 0 1; do
  loaded=(); dumped=(); peer=(); rss=(); threads=(); ticks=()
  for run in $(seq "$RUNS"); do
    root="$work/root$state-$run"
    start_daemon "$root" "$state"
    until "$ctl" --root "$root" --timeout 2 dump ModuleManager dump >/dev/null 2>&1; do :; done
    dumped+=($(( $(now_ms) - t0 )))
    line=$(grep -m1 "Loaded [0-9]* modules" "$log")
    loaded+=($(( $(stamp_ms $line) - t0 )))
    # The peer: start a process and wait for it to answer (exit).
    p0=$(now_ms); /bin/true; "$ctl" --help >/dev/null; peer+=($(( $(now_ms) - p0 )))
    sleep 5
    read -r -a stat < <(sed 's/^.*) //' "/proc/$pid/stat")
    before=$(( stat[11] + stat[12] ))
    sleep "$IDLE"
    read -r -a stat < <(sed 's/^.*) //' "/proc/$pid/stat")
    ticks+=($(( stat[11] + stat[12] - before )))
    rss+=($(awk '/^VmRSS/ {print $2}' "/proc/$pid/status"))
    threads+=($(awk '/^Threads/ {print $2}' "/proc/$pid/status"))
    modules=$("$ctl" --root "$root" dump ModuleManager dump | grep -c -E 'Running|Stopped' || true)
    kill "$pid"; wait "$pid" 2>/dev/null || true
  done
  echo "sys.boot_completed=$state, $RUNS runs, idle ${IDLE}s, $modules modules listed (last run):"
  echo "  start to \"Loaded N modules\": median $(printf '%s\n' "${loaded[@]}" | median) ms (${loaded[*]})"
  echo "  start to first answered dump:  median $(printf '%s\n' "${dumped[@]}" | median) ms (${dumped[*]})"
  echo "  peer (start /bin/true + tarnisctl --help): median $(printf '%s\n' "${peer[@]}" | median) ms"
  echo "  VmRSS: median $(printf '%s\n' "${rss[@]}" | median) KiB (${rss[*]})"
  echo "  threads: median $(printf '%s\n' "${threads[@]}" | median) (${threads[*]})"
  echo "  CPU ticks over ${IDLE}s idle: median $(printf '%s\n' "${ticks[@]}" | median) (${ticks[*]}); $(getconf CLK_TCK) ticks/s"
done
