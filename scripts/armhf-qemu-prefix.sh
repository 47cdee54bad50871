#!/usr/bin/env bash
# Fills DIR with the one file qemu-arm must take from its -L prefix: the armhf
# 7z.so that the armhf libbacktrace loads through its RUNPATH.
# Usage: scripts/armhf-qemu-prefix.sh DIR
set -euo pipefail
dir=${1:?usage: $0 DIR}
dest="$dir/usr/lib/p7zip/7z.so"
mkdir -p "$(dirname "$dest")"

is_arm() { [ -f "$1" ] && [ "$(od -An -tu2 -j18 -N2 "$1" | tr -d ' ')" = 40 ]; }

src=/usr/lib/p7zip/7z.so
if is_arm "$src"; then
  cp "$src" "$dest"
  exit 0
fi
# The amd64 p7zip-full owns the path: take the file out of the armhf package.
tmp=$(mktemp -d)
trap 'rm -rf "$tmp"' EXIT
deb=$(ls /var/cache/apt/archives/p7zip-full_*_armhf.deb 2>/dev/null | head -n1 || true)
if [ -z "$deb" ]; then
  (cd "$tmp" && apt-get download -qq p7zip-full:armhf)
  deb=$(ls "$tmp"/p7zip-full_*_armhf.deb | head -n1)
fi
dpkg-deb -x "$deb" "$tmp/x"
is_arm "$tmp/x$src" || { echo "no armhf 7z.so in $deb" >&2; exit 1; }
cp "$tmp/x$src" "$dest"
