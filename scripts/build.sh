#!/usr/bin/env bash
# scripts/build.sh DIR [cmake options...]: configures and builds a tree; only
# the targets named in $BUILD_TARGETS when it is set. Whenever the options (or
# the compilers in CC/CXX) differ from those the tree was last configured
# with, it is configured afresh, so an option that changed or was dropped
# never lingers in the cache; objects whose commands did not change are kept.
# JOBS sets the parallel jobs (default: one per core).
set -euo pipefail
dir=$1; shift
wanted="CC=${CC:-} CXX=${CXX:-} $*"
stamp="$dir/.tarnis-options"
if [ ! -f "$dir/build.ninja" ] || [ ! -f "$stamp" ] || [ "$(cat "$stamp")" != "$wanted" ]; then
  rm -rf "$dir/CMakeCache.txt" "$dir/CMakeFiles/CMakeOutput.log"
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
  printf '%s' "$wanted" >"$stamp"
fi
targets=()
for t in ${BUILD_TARGETS:-}; do targets+=(--target "$t"); done
cmake --build "$dir" "${targets[@]}" -- -j"${JOBS:-$(nproc)}"
