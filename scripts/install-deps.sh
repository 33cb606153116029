#!/usr/bin/env bash
# Installs the Debian packages the project needs when any is missing.
set -euo pipefail

PACKAGES=(build-essential cmake ninja-build pkg-config libjsoncpp-dev libssl-dev zlib1g-dev
          libminizip-dev libgtest-dev libgmock-dev libbenchmark-dev zip unzip python3 openssl
          procps net-tools clang libclang-rt-14-dev aidl blueprint-tools
          android-libbase-dev android-libutils-dev android-libcutils-dev android-liblog-dev)

missing=()
for pkg in "${PACKAGES[@]}"; do
  if ! dpkg-query -W -f='${Status}' "$pkg" 2>/dev/null | grep -q "install ok installed"; then
    missing+=("$pkg")
  fi
done
[ ${#missing[@]} -eq 0 ] && exit 0

echo "install-deps: installing ${missing[*]}"
SUDO=""
if [ "$(id -u)" -ne 0 ]; then
  if command -v sudo >/dev/null 2>&1; then SUDO="sudo"; else
    echo "install-deps: missing packages (${missing[*]}) and not root: install them and re-run" >&2
    exit 1
  fi
fi
export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}"
