#!/usr/bin/env bash
# Cross-builds the tree for 32-bit ARM (armhf) and runs the test suite under
# qemu-arm. A test that needs a kernel facility qemu-user does not translate either
# carries the CTest label no-qemu or skips itself (GTEST_SKIP) when it finds the
# facility missing. Either way it must be listed, with the reason, in
# device/armhf.md: this script prints what was not run and fails on any skip that
# is not listed there.
#
#   scripts/test-armhf.sh [BUILD_DIR]      default build/armhf
#   QMED_JOBS=N                            parallelism (default: nproc)
#   QMED_ARMHF_TYPE=Debug                  build type (default Release: faster
#                                          under emulation)
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=${1:-$root/build/armhf}
jobs=${QMED_JOBS:-$(nproc)}
type=${QMED_ARMHF_TYPE:-Release}
t0=$(date +%s)

# Benchmarks measure nothing useful under emulation.
cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_TOOLCHAIN_FILE="$root/cmake/toolchain-armhf.cmake" \
    -DCMAKE_BUILD_TYPE="$type" -DQMED_BUILD_BENCH=OFF >/dev/null
cmake --build "$dir" -j "$jobs"
t1=$(date +%s)

prefix=$(sed -n 's/^QMED_QEMU_PREFIX:PATH=//p' "$dir/CMakeCache.txt")
# Tests spawn build/bin executables (the daemon, the client tools) through this
# prefix: without binfmt_misc the kernel cannot exec an ARM binary itself.
export QMED_EMULATOR="qemu-arm -L $prefix"
export CTEST_OUTPUT_ON_FAILURE=1

cd "$dir"
if ctest -N -L no-qemu | grep -q 'Test *#'; then
    echo "not run under qemu-arm (reasons in device/armhf.md):"
    ctest -N -L no-qemu | sed -n 's/^ *Test *#[0-9]*: /  /p'
fi
# gtest's threadsafe death tests re-exec /proc/self/exe, which the kernel cannot
# run without the emulator.
export GTEST_DEATH_TEST_STYLE=fast
rc=0
ctest -j "$jobs" --timeout 600 -LE no-qemu --no-tests=error || rc=$?
t2=$(date +%s)

# Skips inside a wrapped test binary count as a pass for CTest: find them in the log.
skipped=$(sed -n 's/^\(\([0-9]*: \)\?\)\[  SKIPPED \] \([A-Za-z0-9_]*\.[A-Za-z0-9_/]*\) (.*/\3/p' \
    Testing/Temporary/LastTest.log | sort -u)
if [ -n "$skipped" ]; then
    echo "skipped under qemu-arm:"
    for t in $skipped; do
        if grep -q "\`$t\`" "$root/device/armhf.md"; then
            echo "  $t"
        else
            echo "  $t   NOT LISTED in device/armhf.md"
            rc=1
        fi
    done
fi
echo "armhf: build $((t1 - t0))s, tests $((t2 - t1))s"
exit $rc
