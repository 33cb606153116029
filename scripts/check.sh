#!/usr/bin/env bash
# Checks of what the host cannot build: every Android.bp parses and is in
# bpfmt's form (the platform's tree refuses one that is not), and the
# interface definitions match their frozen API. Exits non-zero on a finding.
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
exit $status
