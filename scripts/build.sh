#!/usr/bin/env bash
# scripts/build.sh DIR [cmake options...]: configures (once) and builds a tree.
set -euo pipefail
dir=$1; shift
if [ ! -f "$dir/build.ninja" ]; then
  cmake -S . -B "$dir" -G Ninja "$@" >/dev/null
fi
cmake --build "$dir" -- -j"$(nproc)"
