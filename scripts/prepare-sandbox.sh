#!/usr/bin/env bash
# scripts/prepare-sandbox.sh ROOT: lays out the device directories below ROOT
# and gives the properties a device would have at boot their values, keeping
# any value already set.
set -euo pipefail
ROOT=$1
mkdir -p "$ROOT"
ROOT=$(cd "$ROOT" && pwd)
for d in data/misc/tarnis data/dorva data/anr data/system data/nuvilog/stability/reboot \
         data/nuvilog/stability/nativecrash mnt/rescue/dorva mnt/vendor/persist/stability cache \
         dev/socket dev/binder dev/block/by-name proc sys/fs/f2fs system_ext/etc/tarnsys; do
  mkdir -p "$ROOT/$d"
done
ctl=build/tarnisctl
defprop() {
  if [ -z "$("$ctl" --root "$ROOT" getprop "$1")" ]; then
    "$ctl" --root "$ROOT" setprop "$1" "$2"
  fi
}
defprop ro.build.fingerprint "velmar/host/host:16/TARNIS.HOST/1:userdebug/test-keys"
defprop ro.build.version.incremental "1"
defprop ro.product.device "host"
defprop ro.debuggable "1"
defprop ro.boot.hwlevel "host"
defprop ro.build.ab_update "true"
defprop sys.boot_completed "0"
