#!/usr/bin/env bash
# Installs every Debian package the build, the tests and the benchmarks need.
# Usage: scripts/install-deps.sh [--no-armhf]
set -euo pipefail
want_armhf=1
[ "${1:-}" = "--no-armhf" ] && want_armhf=0

SUDO=""
[ "$(id -u)" -ne 0 ] && SUDO="sudo"
export DEBIAN_FRONTEND=noninteractive

native=(
  build-essential cmake ninja-build pkg-config
  clang libclang-rt-14-dev llvm
  android-libutils-dev android-liblog-dev android-libcutils-dev
  libsafec-dev libgtest-dev libgmock-dev libbenchmark-dev
  iproute2 procps util-linux psmisc cpulimit aidl gcovr
  blueprint-tools  # bpfmt: tests/device checks device/Android.bp with it
  jq groff-base  # qmedctl status --json is parsed, the man pages rendered, in tests
  # amd64 libbacktrace loads /usr/lib/p7zip/7z.so; the armhf copy for qemu is extracted
  # by scripts/armhf-qemu-prefix.sh, since both architectures cannot own that path.
  p7zip-full
)
armhf=(
  g++-arm-linux-gnueabihf qemu-user
  android-libutils-dev:armhf android-liblog-dev:armhf android-libcutils-dev:armhf
  libsafec-dev:armhf libgtest-dev:armhf libgmock-dev:armhf
)

missing() {
  local out=()
  for p in "$@"; do
    dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || out+=("$p")
  done
  echo "${out[@]:-}"
}

if [ "$want_armhf" = 1 ] && ! dpkg --print-foreign-architectures | grep -qx armhf; then
  $SUDO dpkg --add-architecture armhf
  $SUDO apt-get update -qq || true
fi
pkgs=("${native[@]}")
[ "$want_armhf" = 1 ] && pkgs+=("${armhf[@]}")
todo=$(missing "${pkgs[@]}")
if [ -n "$todo" ]; then
  $SUDO apt-get update -qq || true
  # shellcheck disable=SC2086
  $SUDO apt-get install -y -qq --no-install-recommends $todo
fi
