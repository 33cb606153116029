#!/usr/bin/env bash
# scripts/build.sh DIR [cmake options...]: configures (once) and builds a tree;
# only the targets named in $BUILD_TARGETS when it is set.
set -euo pipefail
dir=$1; shift
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
fi
targets=()
for t in ${BUILD_TARGETS:-}; do targets+=(--target "$t"); done
cmake --build "$dir" "${targets[@]}" -- -j"$(nproc)"
