#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs each one.
#
#   scripts/fuzz.sh [-t SECONDS] [-n RUNS] [-m] [-b] [TARGET...]
#     -t  time per target (default 60)
#     -n  stop each target after this many executions instead (0: no limit)
#     -m  merge new interesting inputs back into fuzz/corpus/<target>/
#     -b  build only
#   targets: parcel service hub sockdiag proc (default: all)
#
# Environment: QMED_FUZZ_BUILD (build dir, default build/fuzz), QMED_JOBS (build
# parallelism, default 2), QMED_FUZZ_ARGS (extra libFuzzer flags).
#
# As root every target runs in private mount, pid and network namespaces with its own
# /proc: the service target's operations then reach only the fuzzer's own processes and
# sockets. Findings land in <build>/artifacts/<target>/.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=60
runs=0
merge=0
buildOnly=0
while getopts "t:n:mb" opt; do
    case "$opt" in
        t) seconds=$OPTARG ;;
        n) runs=$OPTARG ;;
        m) merge=1 ;;
        b) buildOnly=1 ;;
        *) sed -n '2,18p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
targets=${*:-parcel service hub sockdiag proc}
build=${QMED_FUZZ_BUILD:-$root/build/fuzz}
jobs=${QMED_JOBS:-2}

flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
flags="$flags -fno-omit-frame-pointer -g -O1"
cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
    -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DQMED_BUILD_FUZZ=ON -DQMED_BUILD_BENCH=OFF \
    -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
    -DCMAKE_C_FLAGS_RELWITHDEBINFO= -DCMAKE_CXX_FLAGS_RELWITHDEBINFO= >/dev/null
fuzzers=()
for t in $targets; do fuzzers+=("${t}_fuzzer"); done
cmake --build "$build" -j "$jobs" --target "${fuzzers[@]}"
[ "$buildOnly" = 1 ] && exit 0

sandbox=()
if [ "$(id -u)" = 0 ] && unshare -m -p -f -n --mount-proc true 2>/dev/null; then
    sandbox=(unshare -m -p -f -n --mount-proc)
fi

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}
status=0
for t in $targets; do
    corpus=$build/corpus/$t
    artifacts=$build/artifacts/$t
    mkdir -p "$corpus" "$artifacts"
    cp -n "$root/fuzz/corpus/$t/"* "$corpus/" 2>/dev/null || true
    args=(-max_total_time="$seconds" -max_len=16384 -timeout=10 -print_final_stats=1
          -artifact_prefix="$artifacts/")
    [ "$runs" != 0 ] && args+=(-runs="$runs")
    [ -f "$root/fuzz/dict/$t.dict" ] && args+=(-dict="$root/fuzz/dict/$t.dict")
    echo "==== $t"
    # A temporary directory per run: libFuzzer names its own after the pid, which is 1 in
    # every pid namespace. tmpfs when there is one: the proc target writes files all the time.
    scratch=$(mktemp -d /dev/shm/qmed-fuzz-"$t".XXXXXX 2>/dev/null || mktemp -d)
    rc=0
    # shellcheck disable=SC2086
    TMPDIR=$scratch "${sandbox[@]}" nice -n 10 "$build/bin/${t}_fuzzer" "${args[@]}" ${QMED_FUZZ_ARGS:-} \
        "$corpus" >"$build/$t.log" 2>&1 || rc=$?
    grep -E "^(#[0-9]+ +(INITED|DONE)|stat::(number_of_executed_units|average_exec_per_sec)|==[0-9]+==ERROR|SUMMARY)" \
        "$build/$t.log" || true
    # -fork=N runs report their totals on progress lines only.
    grep -E "^#[0-9]+: cov" "$build/$t.log" | tail -n 1 || true
    if [ "$rc" != 0 ]; then
        echo "$t: finding (exit $rc), see $build/$t.log and $artifacts/"
        status=1
    fi
    if [ "$merge" = 1 ]; then
        TMPDIR=$scratch "${sandbox[@]}" "$build/bin/${t}_fuzzer" -merge=1 -max_len=16384 \
            "$root/fuzz/corpus/$t" "$corpus" >/dev/null 2>&1
    fi
    rm -rf "$scratch"
done
exit $status
