#!/usr/bin/env bash
# Builds the libFuzzer targets with clang and runs them, then prints per target the
# executions, time, executions per second and findings. A finding fails the command.
#
#   scripts/fuzz.sh [-t SECONDS] [-n RUNS] [-u TIME] [-j JOBS] [-m] [-b|-r] [TARGET...]
#     -t  time per target (default 60, or no limit when -n is given; 0: no limit)
#     -n  executions per target (default: no limit)
#     -u  stop every target by this time (any date(1) -d form, e.g. 14:45); later ones don't start
#     -j  targets run at once (default 1)
#     -m  merge new interesting inputs back into fuzz/corpus/<target>/
#     -b  build only
#     -r  run only, with the binaries already built
#   targets: parcel service hub sockdiag proc (default: all)
#
# Environment: QMED_FUZZ_BUILD (build dir, default build/fuzz), QMED_JOBS (build
# parallelism, default 2), QMED_FUZZ_ARGS (extra libFuzzer flags), QMED_FUZZ_NICE (default 10),
# QMED_BUILD_LOCK (a file held with flock(1) while building, for build dirs others share),
# QMED_FUZZ_SANDBOX (0: no namespaces even as root).
#
# As root every target runs in private mount, pid and network namespaces with its own
# /proc: the service target's operations then reach only the fuzzer's own processes and
# sockets. Findings land in <build>/artifacts/<target>/, the output in <build>/<target>.log.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
seconds=
runs=0
until=0
parallel=1
merge=0
buildOnly=0
runOnly=0
while getopts "t:n:u:j:mbr" opt; do
    case "$opt" in
        t) seconds=$OPTARG ;;
        n) runs=$OPTARG ;;
        u) until=$(date -d "$OPTARG" +%s) ;;
        j) parallel=$OPTARG ;;
        m) merge=1 ;;
        b) buildOnly=1 ;;
        r) runOnly=1 ;;
        *) sed -n '2,23p' "$0"; exit 2 ;;
    esac
done
shift $((OPTIND - 1))
[ -z "$seconds" ] && { [ "$runs" = 0 ] && seconds=60 || seconds=0; }
targets=${*:-parcel service hub sockdiag proc}
build=${QMED_FUZZ_BUILD:-$root/build/fuzz}
jobs=${QMED_JOBS:-2}

flags="-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined"
flags="$flags -fno-omit-frame-pointer -g -O1"
lock=()
[ -n "${QMED_BUILD_LOCK:-}" ] && lock=(flock "$QMED_BUILD_LOCK")
fuzzers=()
for t in $targets; do fuzzers+=("${t}_fuzzer"); done
if [ "$runOnly" = 0 ]; then
    "${lock[@]}" cmake -S "$root" -B "$build" -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
        -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
        -DQMED_BUILD_FUZZ=ON -DQMED_BUILD_BENCH=OFF \
        -DCMAKE_C_FLAGS="$flags" -DCMAKE_CXX_FLAGS="$flags" \
        -DCMAKE_C_FLAGS_RELWITHDEBINFO= -DCMAKE_CXX_FLAGS_RELWITHDEBINFO= >/dev/null
    "${lock[@]}" cmake --build "$build" -j "$jobs" --target "${fuzzers[@]}"
fi
[ "$buildOnly" = 1 ] && exit 0

sandbox=()
if [ "${QMED_FUZZ_SANDBOX:-1}" != 0 ] && [ "$(id -u)" = 0 ] && unshare -m -p -f -n --mount-proc true 2>/dev/null; then
    sandbox=(unshare -m -p -f -n --mount-proc)
fi
commit=$(git rev-parse --short HEAD 2>/dev/null || echo unknown)
git diff --quiet HEAD -- . ':!fuzz/corpus' 2>/dev/null || commit="$commit+changes"
echo "targets: $targets; runs ${runs/#0/unlimited}, time ${seconds/#0/unlimited} s, $parallel at once; at $commit"

export ASAN_OPTIONS=${ASAN_OPTIONS:-detect_leaks=0:abort_on_error=1}
export UBSAN_OPTIONS=${UBSAN_OPTIONS:-print_stacktrace=1:halt_on_error=1}

# Runs one target; its summary line goes to <build>/<target>.result.
fuzz() {
    local t=$1 corpus=$build/corpus/$1 artifacts=$build/artifacts/$1 log=$build/$1.log
    local limit=$seconds left=$((until - $(date +%s)))
    if [ "$until" != 0 ]; then
        [ "$left" -gt 0 ] || { echo "$t: not started, past the -u time" >"$build/$t.result"; return 1; }
        [ "$limit" != 0 ] && [ "$limit" -lt "$left" ] || limit=$left
    fi
    mkdir -p "$corpus" "$artifacts"
    cp -n "$root/fuzz/corpus/$t/"* "$corpus/" 2>/dev/null || true
    local args=(-max_total_time="$limit" -runs="$runs" -max_len=16384 -timeout=10
                -print_final_stats=1 -artifact_prefix="$artifacts/")
    [ "$runs" = 0 ] && args[1]=-runs=-1
    [ -f "$root/fuzz/dict/$t.dict" ] && args+=(-dict="$root/fuzz/dict/$t.dict")
    # A temporary directory per run: libFuzzer names its own after the pid, which is 1 in
    # every pid namespace. tmpfs when there is one: the proc target writes files all the time.
    local scratch rc=0 start=$SECONDS
    scratch=$(mktemp -d /dev/shm/qmed-fuzz-"$t".XXXXXX 2>/dev/null || mktemp -d)
    # shellcheck disable=SC2086
    TMPDIR=$scratch "${sandbox[@]}" nice -n "${QMED_FUZZ_NICE:-10}" "$build/bin/${t}_fuzzer" \
        "${args[@]}" ${QMED_FUZZ_ARGS:-} "$corpus" >"$log" 2>&1 || rc=$?
    local time=$((SECONDS - start)) execs finding=none
    execs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log" | tail -n 1)
    [ -n "$execs" ] || execs=$(grep -oE '^#[0-9]+' "$log" | tail -n 1 | tr -d '#' || true)
    # A run ended early with SIGINT to the fuzzer still counts, without a finding.
    if [ "$rc" = 72 ] && grep -q '^==[0-9]*== libFuzzer: run interrupted' "$log"; then
        rc=0 finding="none (interrupted)"
    fi
    if [ "$rc" != 0 ]; then
        finding="exit $rc: $(grep -m 1 -E '^(==[0-9]+==ERROR|SUMMARY|.*runtime error)' "$log" |
                             cut -c 1-100 || true) (see $log, $artifacts/)"
    fi
    if [ "$merge" = 1 ] && [ "$rc" = 0 ]; then
        TMPDIR=$scratch "${sandbox[@]}" "$build/bin/${t}_fuzzer" -merge=1 -max_len=16384 \
            "$root/fuzz/corpus/$t" "$corpus" >/dev/null 2>&1 || true
    fi
    rm -rf "$scratch"
    printf '%-9s %12s %7s s %8s  %s\n' "$t" "${execs:-0}" "$time" \
        "$(( ${execs:-0} / (time > 0 ? time : 1) ))" "$finding" >"$build/$t.result"
    [ "$rc" = 0 ]
}

for t in $targets; do
    rm -f "$build/$t.result"
    while [ "$(jobs -rp | wc -l)" -ge "$parallel" ]; do wait -n || true; done
    echo "==== $t started"
    fuzz "$t" &
done
wait || true

status=0
printf '%-9s %12s %9s %8s  %s\n' target executions time exec/s findings
for t in $targets; do
    if [ -f "$build/$t.result" ]; then cat "$build/$t.result"; else echo "$t: no result"; fi
    grep -qE '  none( \(interrupted\))?$' "$build/$t.result" 2>/dev/null || status=1
done
exit $status
