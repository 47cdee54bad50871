#!/usr/bin/env bash
# Builds the daemon and runs it in the foreground with its host defaults:
# a private mount namespace with the kernel's cgroup-v1 freezer at /dev/frz,
# a file at /dev/power_watchdog, config/host.prop as the property file, the
# kernel-module simulator on @kmodsim, and logs on this terminal.
#
#   scripts/run.sh [ykqmed options, e.g. -t 3]
set -euo pipefail
cd "$(dirname "$0")/.."

if [ "${1:-}" = "--inner" ]; then
    shift
    build/bin/kmodsim serve --log /tmp/kmodsim.log &
    sim=$!
    trap 'kill $sim 2>/dev/null || true' EXIT
    echo "qmed: watchdog records go to $QMED_WATCHDOG_FILE; simulator log /tmp/kmodsim.log" >&2
    KMODSIM_SOCKET=@kmodsim LD_PRELOAD="$PWD/build/bin/libkmodshim.so" \
        QMED_LOG_LEVEL="${QMED_LOG_LEVEL:-d}" build/bin/ykqmed "$@"
    exit $?
fi

scripts/install-deps.sh --no-armhf
cmake -S . -B build -G Ninja -DCMAKE_BUILD_TYPE=Debug >/dev/null
cmake --build build -j "$(nproc)" --target ykqmed qmedctl service kmodsim kmodshim
# Clients in other terminals use the default binder prefix.
export BINDER_HOST_NS=""
exec build/bin/qmed-ns --frz-root --props config/host.prop --watchdog /tmp/qmed-power_watchdog \
    -- "$0" --inner "$@"
