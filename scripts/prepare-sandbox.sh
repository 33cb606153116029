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
         dev/socket dev/binder dev/block/by-name dev/block/bootdevice/by-name data/dorva/download \
         proc sys/fs/f2fs system_ext/etc/tarnsys data/aee_exp mnt/rescue/recovery data/tombstones \
         data/nuvilog/stability/nativecrash/tombstones data/misc/update_engine_log; do
  mkdir -p "$ROOT/$d"
done
# The black-box partition: a sparse file of a version-2 size (190 MiB), kept
# across runs like a real partition.
if [ ! -e "$ROOT/dev/block/by-name/blackbox" ]; then
  truncate -s 190M "$ROOT/dev/block/by-name/blackbox"
fi
REPO=$(cd "$(dirname "$0")/.." && pwd)
BUILD_DIR="${TARNIS_BUILD_DIR:-$REPO/build}"
ctl="$BUILD_DIR/tarnisctl"

# Tools that captures run by name. tarnisd puts $ROOT/bin first on its PATH:
# the host's own tools where it has them, and a getprop that reads this
# sandbox's properties. Tools the host lacks (logcat, dumpsys) stay missing,
# and a capture records their exec failure.
mkdir -p "$ROOT/bin"
for tool in uptime df ps top cat dmesg netstat; do
  # Looked up on the standard PATH only, so that a link never points back into bin/.
  if host_tool=$(PATH="$(getconf PATH):/usr/sbin:/sbin:/usr/local/bin" command -v "$tool" 2>/dev/null) &&
     [ "${host_tool#/}" != "$host_tool" ]; then
    ln -sfn "$host_tool" "$ROOT/bin/$tool"
  fi
done
# The system's own tools that the boot log dumper runs by path: the host's
# tar, rm and dmesg (a host that refuses dmesg to this user leaves the kernel
# log holding its complaint), and a logcat that prints the daemon's log, which
# run.sh keeps in data/misc/tarnis/tarnisd.log.
mkdir -p "$ROOT/system/bin"
for tool in tar rm dmesg; do
  if host_tool=$(PATH="$(getconf PATH):/usr/sbin:/sbin:/usr/local/bin" command -v "$tool" 2>/dev/null) &&
     [ "${host_tool#/}" != "$host_tool" ]; then
    ln -sfn "$host_tool" "$ROOT/system/bin/$tool"
  fi
done
cat > "$ROOT/system/bin/logcat" <<LOGCAT
#!/bin/sh
# Stands in for logcat: the options are accepted and the daemon's log printed.
[ -f "$ROOT/data/misc/tarnis/tarnisd.log" ] && exec cat "$ROOT/data/misc/tarnis/tarnisd.log"
exit 0
LOGCAT
chmod 755 "$ROOT/system/bin/logcat"
# The boot loader's log and the boot profile the kernel would offer; a text
# put there by hand is kept.
if [ ! -e "$ROOT/proc/pl_lk" ]; then
  echo "Sandbox stand-in for the boot loader log (/proc/pl_lk): preloader and lk messages would be here." \
    >"$ROOT/proc/pl_lk"
fi
if [ ! -e "$ROOT/proc/bootprof" ]; then
  echo "Sandbox stand-in for the boot profile (/proc/bootprof): boot stage timings would be here." \
    >"$ROOT/proc/bootprof"
fi
cat > "$ROOT/bin/getprop" <<GETPROP
#!/bin/sh
exec "$BUILD_DIR/getprop" --root "$ROOT" "\$@"
GETPROP
chmod 755 "$ROOT/bin/getprop"
# Host commands of the services that captures start with ctl.start (none by
# default: see platform/InitServices.h).
mkdir -p "$ROOT/system/etc/init/host"
# The binder instances this "device" declares: clients wait for the daemon's
# two services; the vendor peer is not declared, so lookups of it come back
# empty at once.
mkdir -p "$ROOT/system/etc/vintf"
cat > "$ROOT/system/etc/vintf/manifest.txt" <<'MANIFEST'
# One binder instance name per line.
velmar.system.tarnis.common.ITarnisSsi/default
velmar.system.tarnis.common.ITarnisSsiIntl/default
MANIFEST
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
# This "device" keeps the daily storage report switched on.
defprop persist.sys.stability.f2fsTrackEnable "true"

# Log directories the log manager keeps in bounds (see README, "Log directories"):
# the default configuration that an install puts in place too; a config edited
# by hand is kept.
mkdir -p "$ROOT/data/nuvilog/bsp"
if [ ! -e "$ROOT/system_ext/etc/tarnsys/log_config.json" ]; then
  cp "$REPO/config/log_config.json" "$ROOT/system_ext/etc/tarnsys/log_config.json"
fi

# Who may call which method of the daemon's services (binder and SELinux
# decide that on a device). These are the rules the daemon applies without
# the file; edit them here (a policy edited by hand is kept). Format: one
# "DESCRIPTOR.METHOD UID[,UID...]" a line, METHOD "*" for every method not
# named on a line of its own, UID "*" for anybody and "self" for the uid
# tarnisd runs as; "#" starts a comment. For example, to let the shell user
# (uid 2000) order captures:
#   nuvi.dorva.IDorvaNative.captureLog 0,1000,2000,self
mkdir -p "$ROOT/system/etc/tarnis"
if [ ! -e "$ROOT/system/etc/tarnis/caller_policy.conf" ]; then
  cat > "$ROOT/system/etc/tarnis/caller_policy.conf" <<'POLICY'
# Who may call each method of the daemon's services: DESCRIPTOR.METHOD UID[,UID...]
# (METHOD "*": every method not named on a line of its own; UID "*": anybody,
# "self": the uid the daemon runs as). Without this file these are the rules.
nuvi.dorva.IDorvaNative.* 0,1000,self
velmar.system.tarnis.common.ITarnisSsiIntl.* 0,1000,self
velmar.system.tarnis.common.ITarnisSsi.* *
POLICY
fi
