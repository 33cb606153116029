#!/usr/bin/env bash
# scripts/stress.sh BUILD_DIR [RUNS]: runs the whole suite of a built tree
# RUNS times in a row (20 by default) while two busy loops compete for the
# cores, and stops at the first run that fails. Shows each run's result;
# exits non-zero when a run failed.
set -uo pipefail
dir=${1:?usage: scripts/stress.sh BUILD_DIR [RUNS]}
runs=${2:-20}
busy=()
for _ in 1 2; do
  ( while :; do :; done ) &
  busy+=($!)
done
trap 'kill "${busy[@]}" 2>/dev/null' EXIT
start=$(date +%s)
for i in $(seq 1 "$runs"); do
  if ! out=$(ctest --test-dir "$dir" -j2 --output-on-failure 2>&1); then
    echo "$out" | grep -E '\(Failed\)|\(Timeout\)|\(SEGFAULT\)|Subprocess aborted' | head -20
    echo "stress: run $i of $runs FAILED after $(( $(date +%s) - start )) s"
    exit 1
  fi
  echo "stress: run $i of $runs: $(echo "$out" | grep -E 'tests passed')"
done
echo "stress: $runs runs passed in $(( $(date +%s) - start )) s with two busy loops"
