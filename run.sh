#!/usr/bin/env bash
# Builds if needed, prepares a sandbox root and runs tarnisd on it in the
# foreground. The root is $TARNIS_ROOT, else ./sandbox.
set -euo pipefail
cd "$(dirname "$0")"
scripts/install-deps.sh
scripts/build.sh build -DCMAKE_BUILD_TYPE=RelWithDebInfo
ROOT="${TARNIS_ROOT:-$PWD/sandbox}"
scripts/prepare-sandbox.sh "$ROOT"
# Captures run tools by name: the sandbox's bin/ (getprop and the host tools) first.
export PATH="$ROOT/bin:$PATH"
echo "run.sh: tarnisd --root $ROOT (try: build/tarnisctl --root $ROOT getprop)"
# The daemon's log also goes to a file of this boot, which the sandbox's
# logcat prints.
LOG="$ROOT/data/misc/tarnis/tarnisd.log"
: >"$LOG"
exec build/tarnisd --root "$ROOT" 2> >(tee -a "$LOG" >&2)
