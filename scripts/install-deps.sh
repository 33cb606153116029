#!/usr/bin/env bash
# Installs the Debian packages the project needs when any is missing, and
# lets this machine run the arm64 build (see docs/PLATFORM.md, "arm64").
set -euo pipefail

PACKAGES=(build-essential cmake ninja-build pkg-config libjsoncpp-dev libssl-dev zlib1g-dev
          libminizip-dev libgtest-dev libgmock-dev libbenchmark-dev zip unzip python3 openssl
          procps net-tools clang libclang-rt-14-dev aidl blueprint-tools
          android-libbase-dev android-libutils-dev android-libcutils-dev android-liblog-dev)

# The device is 64-bit Arm: the cross compiler, the arm64 builds of the
# libraries the code links, and qemu to run what comes out. libc6:arm64 is
# named because its loader is the one that must run the programs: the cross
# toolchain's own copy of glibc (libc6-arm64-cross) can lag behind it.
ARM64_PACKAGES=(crossbuild-essential-arm64 qemu-user-static libc6:arm64 libjsoncpp-dev:arm64
                libssl-dev:arm64 libminizip-dev:arm64 zlib1g-dev:arm64 libgtest-dev:arm64
                libgmock-dev:arm64 android-libbase-dev:arm64 android-libutils-dev:arm64
                android-libcutils-dev:arm64 android-liblog-dev:arm64)

SUDO=""
if [ "$(id -u)" -ne 0 ] && command -v sudo >/dev/null 2>&1; then SUDO="sudo"; fi
need_root() {  # WHAT
  if [ "$(id -u)" -ne 0 ] && [ -z "$SUDO" ]; then
    echo "install-deps: $1 needs root: do it as root and re-run" >&2
    exit 1
  fi
}

missing=()
for pkg in "${PACKAGES[@]}" "${ARM64_PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "install-deps: installing ${missing[*]}"
  need_root "installing ${missing[*]}"
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
  fi
  export DEBIAN_FRONTEND=noninteractive
  $SUDO apt-get update -qq
  $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
fi

# libutils's libbacktrace needs p7zip's 7z.so, which Debian installs for one
# architecture only (p7zip-full is not co-installable): the arm64 build of it
# is taken from its package into the arm64 loader's default directory, where
# the arm64 programs find it and the host's never look.
ARM64_7Z=/usr/lib/aarch64-linux-gnu/7z.so
if [ ! -e "$ARM64_7Z" ]; then
  need_root "placing p7zip's arm64 7z.so"
  scratch=$(mktemp -d)
  chmod 755 "$scratch"
  (cd "$scratch" && apt-get download -qq p7zip-full:arm64 && dpkg-deb -x p7zip-full_*_arm64.deb tree)
  $SUDO install -m 0644 "$scratch/tree/usr/lib/p7zip/7z.so" "$ARM64_7Z"
  rm -rf "$scratch"
fi

# The tests start the daemon and its tools as child processes, and tarnisctl
# starts tarnisctl-json: under qemu-user an arm64 program can only start
# another one when the kernel hands arm64 binaries to qemu. A machine booted
# by systemd registers that from the conf file qemu-user-static installs; here
# it is done the same way when nothing did it.
BINFMT=/proc/sys/fs/binfmt_misc
if ! grep -qx enabled "$BINFMT/qemu-aarch64" 2>/dev/null; then
  need_root "registering qemu-aarch64 with binfmt_misc"
  if [ ! -e "$BINFMT/register" ]; then
    $SUDO mount -t binfmt_misc binfmt_misc "$BINFMT"
  fi
  if [ -e "$BINFMT/qemu-aarch64" ]; then
    echo 1 | $SUDO tee "$BINFMT/qemu-aarch64" >/dev/null
  else
    $SUDO tee "$BINFMT/register" </usr/lib/binfmt.d/qemu-aarch64.conf >/dev/null
  fi
  grep -qx enabled "$BINFMT/qemu-aarch64"
fi
