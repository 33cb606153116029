#!/usr/bin/env bash
# The device build links the daemon and its tools against the seam
# (platform/seam, with platform/seam/device in place of the host's stand-ins).
# This checks, on a host build, that every platform:: call they make has a
# definition there, so that a call added to the seam without its device end
# fails here rather than in a platform team's link. It also compiles the
# device end against bionic's declarations.
#   scripts/seam-check.sh BUILD_DIR
set -euo pipefail
cd "$(dirname "$0")/.."
build=${1:?usage: seam-check.sh BUILD_DIR}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

android_include=$(sed -n 's/^TARNIS_ANDROID_INCLUDE:[A-Z]*=//p' "$build/CMakeCache.txt")
cxx=$(sed -n 's/^CMAKE_CXX_COMPILER:[A-Z]*=//p' "$build/CMakeCache.txt")
"$cxx" -std=c++17 -Wall -Wextra -Werror -c platform/seam/device/DeviceSeam.cpp -o "$work/device.o" \
  -I tests/support/bionic -I platform/seam -isystem "$android_include"

objects=$(find "$build/CMakeFiles/tarnisd.dir" "$build/CMakeFiles/tarnisctl.dir" "$build/CMakeFiles/tarnisctl-json.dir" \
  "$build/CMakeFiles/tarnis-blackbox.dir" -name '*.o')
archives=$(ls "$build"/libtarnis_{layout,utils,dump,framework,service}.a "$build"/modules/libmodulelib_*.a)
# shellcheck disable=SC2086
nm -C --undefined-only $objects $archives 2>/dev/null | sed -n 's/^ *U \(platform::.*\)$/\1/p' | sort -u >"$work/needed"
nm -C --defined-only "$work/device.o" $(find "$build/CMakeFiles/tarnis_platform.dir/platform/seam" -name '*.o') |
  sed -n 's/^[0-9a-f]* [TWV] \(platform::.*\)$/\1/p' | sort -u >"$work/defined"
missing=$(comm -23 "$work/needed" "$work/defined")
if [ -n "$missing" ]; then
  echo "seam-check: called by the daemon or its tools, but with no device end in platform/seam:" >&2
  echo "$missing" | sed 's/^/  /' >&2
  exit 1
fi
echo "seam-check: the $(wc -l <"$work/needed") platform:: calls of the daemon and its tools all have a device end"
