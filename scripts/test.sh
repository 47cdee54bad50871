#!/usr/bin/env bash
# Builds everything and runs every test: natively, under AddressSanitizer +
# UBSan, the concurrency tests under ThreadSanitizer, and on 32-bit ARM under
# qemu-arm. First, clang checks the lock annotations (compile only).
# Installs the Debian packages it needs first.
#
#   scripts/test.sh               all stages
#   QMED_STAGES="native asan" scripts/test.sh
#   QMED_STAGES=coverage scripts/test.sh   line and branch coverage per folder
#   QMED_JOBS=N                   build/test parallelism (default: nproc)
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
stages=${QMED_STAGES:-tsa native asan tsan armhf}
jobs=${QMED_JOBS:-$(nproc)}
export CTEST_OUTPUT_ON_FAILURE=1

case " $stages " in
    *" armhf "*) scripts/install-deps.sh ;;
    *) scripts/install-deps.sh --no-armhf ;;
esac

stage() { printf '\n==== %s ====\n' "$*"; }
build() {  # build DIR TYPE
    cmake -S "$root" -B "$1" -G Ninja -DCMAKE_BUILD_TYPE="$2" >/dev/null
    cmake --build "$1" -j "$jobs"
}

start=$(date +%s)
for s in $stages; do
    t0=$(date +%s)
    case "$s" in
        tsa)
            stage "lock annotations checked by clang, build only (build/tsa)"
            cmake -S "$root" -B build/tsa -G Ninja -DCMAKE_BUILD_TYPE=Tsa -DQMED_BUILD_BENCH=OFF \
                -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ >/dev/null
            # The engines and the daemon; tests drive engine internals without the locks.
            cmake --build build/tsa -j "$jobs" --target qmed ykqmed ;;
        native)
            stage "native build and tests (build/)"
            build build Debug
            (cd build && ctest -j "$jobs" --timeout 600) ;;
        asan)
            stage "address + undefined sanitizer build and tests (build/asan)"
            # Benchmarks are compiled by the native stage; sanitized figures mean nothing.
            cmake -S "$root" -B build/asan -G Ninja -DCMAKE_BUILD_TYPE=Asan -DQMED_BUILD_BENCH=OFF >/dev/null
            cmake --build build/asan -j "$jobs"
            (cd build/asan && ASAN_OPTIONS=detect_leaks=0:abort_on_error=1 \
                UBSAN_OPTIONS=print_stacktrace=1:halt_on_error=1 \
                ctest -j "$jobs" --timeout 600) ;;
        tsan)
            stage "thread sanitizer build, concurrency tests (build/tsan)"
            cmake -S "$root" -B build/tsan -G Ninja -DCMAKE_BUILD_TYPE=Tsan -DQMED_BUILD_BENCH=OFF >/dev/null
            cmake --build build/tsan -j "$jobs" --target qmed_concurrency_tests
            (cd build/tsan && TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1 \
                ctest -j "$jobs" -L concurrency --timeout 600 --no-tests=error) ;;
        coverage)
            stage "coverage build and tests (build/coverage)"
            scripts/coverage-of.sh ;;
        armhf)
            stage "armhf cross build, tests under qemu-arm (build/armhf)"
            scripts/test-armhf.sh ;;
        *) echo "unknown stage $s" >&2; exit 2 ;;
    esac
    echo "stage $s took $(( $(date +%s) - t0 ))s"
done
echo "all stages passed in $(( $(date +%s) - start ))s"
