#!/usr/bin/env bash
# Installs what is missing, builds, and runs every test: once plainly, once
# under AddressSanitizer + UndefinedBehaviorSanitizer, the concurrency suites
# under ThreadSanitizer, and once more built for arm64 under the emulator.
# Exits non-zero when anything fails.
set -uo pipefail
cd "$(dirname "$0")"
scripts/install-deps.sh || exit 1

# Suites whose threads ThreadSanitizer checks.
TSAN_SUITES="framework;binder;utils"
JOBS=${JOBS:-$(nproc)}
passed=0
failed=0
skipped=0
status=0
logdir=$(mktemp -d)

run_suite() {  # NAME DIR [cmake options...]
  local name=$1 dir=$2; shift 2
  echo "=== $name: build ($dir)"
  if ! scripts/build.sh "$dir" "$@"; then
    echo "=== $name: BUILD FAILED"
    status=1
    failed=$((failed + 1))
    return
  fi
  echo "=== $name: tests"
  ctest --test-dir "$dir" --output-on-failure -j"$JOBS" --timeout 600 2>&1 | tee "$logdir/$name.log"
  local rc=${PIPESTATUS[0]}
  local line
  line=$(grep -E '[0-9]+% tests passed, [0-9]+ tests? failed out of [0-9]+' "$logdir/$name.log" | tail -1)
  if [ -n "$line" ]; then
    local f t
    f=$(echo "$line" | sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\1/')
    t=$(echo "$line" | sed -E 's/.* ([0-9]+) tests? failed out of ([0-9]+).*/\2/')
    # Tests that need what this machine lacks (root, say) say so and are
    # counted apart, so that a green run never hides that they did not run.
    local s
    s=$(grep -cE '^\s*[0-9]+ - .*\(Skipped\)$' "$logdir/$name.log")
    passed=$((passed + t - f - s))
    failed=$((failed + f))
    skipped=$((skipped + s))
    [ "$s" -gt 0 ] && grep -E '^\s*[0-9]+ - .*\(Skipped\)$' "$logdir/$name.log" | sed 's/^/skipped: /' 
  elif [ "$rc" -ne 0 ]; then
    failed=$((failed + 1))
  fi
  [ "$rc" -ne 0 ] && status=1
}

# A check that is no test program, counted as one suite.
run_check() {
  local name=$1; shift
  echo "=== $name"
  if "$@"; then
    passed=$((passed + 1))
  else
    echo "=== $name FAILED"
    failed=$((failed + 1))
    status=1
  fi
}

# The device build files and the frozen interfaces cannot be built here;
# scripts/check.sh checks them.
run_check checks scripts/check.sh

run_suite plain build -DCMAKE_BUILD_TYPE=RelWithDebInfo
# The device build's link against the seam, read from the plain build's objects.
run_check seam scripts/seam-check.sh build
export ASAN_OPTIONS=detect_leaks=1:abort_on_error=1:strict_string_checks=1
export UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1
run_suite asan-ubsan build-asan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 \
  -DTARNIS_SANITIZE=address,undefined
# What the uninstrumented Android libraries do that is not a race, each entry with why.
export TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=$PWD/tests/tsan.supp
run_suite tsan build-tsan -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS=-O1 \
  -DTARNIS_SANITIZE=thread "-DTARNIS_TEST_SUBSET=$TSAN_SUITES"
# The device's architecture: cross-built for arm64 and run under qemu-user
# (docs/PLATFORM.md, "arm64"); every suite and the corpus replays, no benches.
run_suite arm64 build-arm64 -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/toolchain-aarch64-linux-gnu.cmake" \
  -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARNIS_BUILD_BENCH=OFF

# The parsers of outside input are fuzzed briefly on every run (clang's
# libFuzzer with AddressSanitizer + UndefinedBehaviorSanitizer), starting from
# their corpus; what a run finds is left in build-fuzz/findings/.
FUZZ_SECONDS=${FUZZ_SECONDS:-20}
FUZZERS="WireFramingFuzzer ParcelFuzzer IntentJsonFuzzer JsonUtilFuzzer NL80211Fuzzer BlackBoxImageFuzzer KernelStatsFuzzer F2fsStatusFuzzer LogConfigRecordFuzzer CaptureRequestFuzzer UpdateEngineLogFuzzer DbHistoryFuzzer BootWatchdogMessageFuzzer"
run_fuzz() {
  echo "=== fuzz: build (build-fuzz)"
  local targets=""
  for f in $FUZZERS; do targets="$targets fuzz_$f"; done
  if ! CC=clang CXX=clang++ BUILD_TARGETS="$targets" scripts/build.sh build-fuzz -DCMAKE_BUILD_TYPE=Debug \
      -DCMAKE_CXX_FLAGS=-O1 -DTARNIS_FUZZ=ON -DTARNIS_SANITIZE=address,undefined -DTARNIS_BUILD_BENCH=OFF; then
    echo "=== fuzz: BUILD FAILED"
    status=1
    failed=$((failed + 1))
    return
  fi
  mkdir -p build-fuzz/findings
  for f in $FUZZERS; do
    local work
    work=$(mktemp -d)
    cp fuzz/corpus/"$f"/* "$work"/ 2>/dev/null
    echo "=== fuzz: $f for ${FUZZ_SECONDS}s"
    if build-fuzz/fuzz/fuzz_"$f" -max_total_time="$FUZZ_SECONDS" -timeout=10 -rss_limit_mb=2048 \
        -artifact_prefix=build-fuzz/findings/"$f"- "$work" >"$logdir/fuzz-$f.log" 2>&1; then
      passed=$((passed + 1))
      grep -E '^Done [0-9]+ runs' "$logdir/fuzz-$f.log" | tail -1
    else
      echo "=== fuzz: $f FAILED"
      tail -40 "$logdir/fuzz-$f.log"
      failed=$((failed + 1))
      status=1
    fi
    rm -rf "$work"
  done
}
run_fuzz

rm -rf "$logdir"
echo "test.sh: $passed passed, $failed failed, $skipped skipped"
exit $status
