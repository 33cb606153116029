#!/usr/bin/env bash
# Checks that need no build: every Android.bp parses and is in bpfmt's form
# (the platform's tree refuses one that is not), the interface definitions
# match their frozen API, device paths live in the one path table, and
# includes keep to the layers.
# Exits non-zero on a finding.
set -uo pipefail
cd "$(dirname "$0")/.."
status=0

mapfile -t blueprints < <(git ls-files --cached --others --exclude-standard -- 'Android.bp' '*/Android.bp')
if [ ${#blueprints[@]} -eq 0 ]; then
  echo "check: no Android.bp found" >&2
  status=1
fi
# bpfmt -l lists the files it would change and fails on one it cannot parse.
if ! unformatted=$(bpfmt -l "${blueprints[@]}" 2>&1); then
  echo "check: bpfmt cannot parse: $unformatted" >&2
  status=1
elif [ -n "$unformatted" ]; then
  echo "check: not in bpfmt's form (bpfmt -w fixes them):" >&2
  echo "$unformatted" | sed 's/^/  /' >&2
  status=1
else
  echo "check: ${#blueprints[@]} Android.bp files parse and are in bpfmt's form"
fi

scripts/aidl-api.sh check || status=1

# The table's paths are clean and absolute: the code builds names by
# appending to them and matches log directories by substring.
table=utils/Paths.h
bad=$(grep -oE '"[^"]*"' "$table" | grep -E '^"/' | grep -E '//|/\./|/\.\.|[[:space:]]' || true)
relative=$(grep -E 'inline constexpr' "$table" | grep -oE '"[^"]*"' | grep -vE '^"/' || true)
if [ -n "$bad$relative" ]; then
  echo "check: paths in $table that are not clean absolute paths:" >&2
  printf '%s\n' $bad $relative | sed 's/^/  /' >&2
  status=1
fi
# Device paths are spelled in the table only, above the platform layer (the
# process's own /proc/self and the kernel's byte sources are no device paths).
device='"/(data|proc|sys|mnt|cache|dev|system|system_ext|vendor|sdcard|persist)(/|")'
inline=$(git ls-files -- framework service main modules tools utils | grep -E '\.(cpp|h)$' | grep -v "^$table$" |
  xargs grep -nE "$device" | grep -vE '^[^:]+:[0-9]+:[[:space:]]*//' |
  grep -vE '"/(proc/self/|dev/null"|dev/urandom")' || true)
if [ -n "$inline" ]; then
  echo "check: device paths spelled outside $table:" >&2
  echo "$inline" | sed 's/^/  /' >&2
  status=1
else
  echo "check: device paths live in $table only"
fi
# Layers: each directory includes only its own headers and those of the
# layers below it (the platform's published headers are reached by their
# Android names, never as platform/...), a module none of another module's,
# and the tools only the layout headers they share with the daemon.
layer_rules=(
  "platform|utils framework service modules main tools"
  "utils|framework service modules main tools platform"
  "framework|service modules main tools platform"
  "modules|service main tools platform"
  "service|main tools platform"
  "main|tools platform"
  "tools|framework service modules main platform"
)
crossing=""
for rule in "${layer_rules[@]}"; do
  dir=${rule%%|*}
  banned=$(echo "${rule#*|}" | sed 's/ /|/g')
  found=$(git ls-files -- "$dir" | grep -E '\.(cpp|h)$' | xargs -r grep -nE "^#include \"($banned)/" || true)
  [ -n "$found" ] && crossing+="$found"$'\n'
done
# One module reaching into another's directory.
for f in $(git ls-files -- modules | grep -E '\.(cpp|h)$'); do
  own=$(echo "$f" | cut -d/ -f2)
  found=$(grep -nE '^#include "modules/' "$f" | grep -v "\"modules/$own/" | sed "s|^|$f:|" || true)
  [ -n "$found" ] && crossing+="$found"$'\n'
done
tools_allowed='utils/(Paths|CaptureLayout|BlackBoxLayout|BlackBoxPartition|BuildProbes)\.h'
found=$(git ls-files -- tools | grep -E '\.(cpp|h)$' | xargs -r grep -nE '^#include "utils/' | grep -vE "\"$tools_allowed\"" || true)
[ -n "$found" ] && crossing+="$found"$'\n'
if [ -n "$crossing" ]; then
  echo "check: includes that cross the layers:" >&2
  printf '%s' "$crossing" | sed 's/^/  /' >&2
  status=1
else
  echo "check: includes keep to the layers (platform < utils < framework < modules < service < main; tools on the layout headers)"
fi
exit $status
