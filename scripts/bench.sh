#!/usr/bin/env bash
# Builds the optimised tree (build/release) and runs every benchmark, then prints one
# table: figure, value (the median over the runs), target, and whether it is met.
# Figures that show how a cost grows with the load have no target. Needs root.
#
#   scripts/bench.sh            one run of each benchmark, short limiter part (a few minutes)
#   scripts/bench.sh -r 3       the median of three runs
#   scripts/bench.sh -l         the limiter's full accuracy and overhead runs too (+12 min)
#   scripts/bench.sh -k DIR     keep every benchmark's output in DIR
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)
runs=1 long=0 keep=
while getopts "r:lk:" opt; do
    case "$opt" in
        r) runs=$OPTARG ;;
        l) long=1 ;;
        k) keep=$OPTARG ;;
        *) sed -n '2,9p' "$0" >&2; exit 2 ;;
    esac
done
[ "$(id -u)" = 0 ] || { echo "bench.sh: run as root (freezer, signals, namespaces)" >&2; exit 1; }

b=build/release
lock() { if command -v flock >/dev/null; then flock /tmp/qmed-build.lock "$@"; else "$@"; fi; }
lock cmake -S "$root" -B $b -G Ninja -DCMAKE_BUILD_TYPE=Release -DQMED_BUILD_BENCH=ON >/dev/null
lock cmake --build $b --target ykqmed qmedctl service kmodsim kmodshim bench_freezer \
    bench_binder bench_msghub bench_proc_scan bench_sock_destroy bench_limiter \
    bench_daemon_idle >/dev/null

out=${keep:-$(mktemp -d /tmp/qmed-bench.XXXXXX)}
mkdir -p "$out"
ns=$b/bin/qmed-ns
bench() {  # NAME RUN COMMAND...: output in $out/NAME.RUN, a failure noted and skipped
    local name=$1 run=$2
    shift 2
    printf '  %-12s run %d ... ' "$name" "$run" >&2
    local t0=$SECONDS
    if "$@" >"$out/$name.$run" 2>"$out/$name.$run.err"; then
        echo "$((SECONDS - t0)) s" >&2
    else
        echo "failed (see $out/$name.$run.err)" >&2
    fi
}
for ((r = 1; r <= runs; r++)); do
    bench freezer $r $ns -- $b/bin/bench_freezer -r 5
    bench binder $r $ns -- $b/bin/bench_binder
    bench msghub $r $ns -- $b/bin/bench_msghub
    bench proc $r $ns -- $b/bin/bench_proc_scan
    bench sockdiag $r $ns --net -- $b/bin/bench_sock_destroy -r 3
    if [ $long = 1 ]; then
        bench limiter $r $b/bin/bench_limiter
    else
        bench limiter $r $b/bin/bench_limiter 11 latency
    fi
    bench daemon $r $ns -- $b/bin/bench_daemon_idle
done

# Each pattern names a figure; NUM and the named groups are read from the benchmark's lines.
python3 - "$out" "$runs" <<'EOF'
import re, statistics, sys

out, runs = sys.argv[1], int(sys.argv[2])
# (bench, line pattern, figure label, unit, op, target); {n} in the label is group "n" of the
# pattern, or of the last block header of that bench (a line "... N processes/sockets ...").
rows = [
    ("freezer", r"ratio binder / bare writes, (?P<n>\d+) processes\s+(?P<v>[\d.]+)",
     "freeze+thaw {n} processes through binder / bare cgroup writes", "x", "<=", {"200": 1.2}),
    ("freezer", r"ratio binder / naive, (?P<n>\d+) processes\s+(?P<v>[\d.]+)",
     "same / a naive freezer that makes a directory per freeze, {n} processes", "x", "<=",
     {"200": 0.7}),
    ("freezer", r"per process, through binder\s+(?P<v>[\d.]+) us",
     "freeze+thaw through binder per process, {n} processes", "us", None, {}),
    ("binder", r"median: binder .*ratio (?P<v>[\d.]+)",
     "null binder round trip / raw AF_UNIX ping-pong, median", "x", "<=", {"": 1.3}),
    ("binder", r"(?P<n>\d+) threads?: binder .*ratio (?P<v>[\d.]+)",
     "binder throughput / raw, {n} client threads", "x", ">=", {"2": 0.8, "4": 0.8}),
    ("msghub", r"latency ratio \(median / null round trip\): (?P<v>[\d.]+)",
     "kernel event to listener callback / null round trip, median", "x", "<=", {"": 1.3}),
    ("msghub", r"rate ratio .*: (?P<v>[\d.]+)",
     "sustained events x 3 listeners / null round trips per second", "x", ">=", {"": 0.8}),
    ("proc", r"ratio ps/getProcCpuTime: (?P<v>[\d.]+)x",
     "full CPU-time scan, {n} processes, speed-up over ps", "x", ">=", {"1000": 5.0}),
    ("sockdiag", r"ratio ss/destroySocketsUid, (?P<n>\d+) sockets: (?P<v>[\d.]+)x",
     "socket destruction, {n} sockets, speed-up over ss -K", "x", None, {}),
    ("limiter", r"command wait, (?P<n>\d+) groups, (?P<k>\w+)\s+median\s+[\d.]+ ms\s+max\s+(?P<v>[\d.]+) ms",
     "limiter command wait (max), {n} groups at 50 %, {k}", "ms", None, {}),
    ("limiter", r"(?P<n>\d+)\s+MAE ratio limiter/cpulimit (?P<v>[\d.]+)",
     "limiter accuracy, mean error / cpulimit's, target {n} %", "x", None, {}),
    ("daemon", r"private memory: (?P<v>\d+) kB", "daemon idle private memory", "kB", None, {}),
    ("daemon", r"wake-ups: (?P<v>[\d.]+) /s", "daemon idle wake-ups", "/s", None, {}),
]
header = re.compile(r"(\d+) (?:\w+ )?(?:live children|processes|established sockets)")

values = {}  # (row index, n, k) -> [value per run]
seen = set()
for run in range(1, runs + 1):
    for i, (name, pattern, label, *_rest) in enumerate(rows):
        try:
            lines = open(f"{out}/{name}.{run}").read().splitlines()
        except OSError:
            continue
        block = ""
        for line in lines:
            m = re.search(pattern, line)
            h = header.search(line)
            if h and not m:
                block = h.group(1)
            if not m:
                continue
            g = m.groupdict()
            n = (g.get("n") or block) if "{n}" in label else ""
            values.setdefault((i, n, g.get("k") or ""), []).append(float(g["v"]))
            seen.add(name)

print()
print(f"median of {runs} run(s); outputs in {out}")
print(f"{'figure':<74} {'value':>10}  {'target':<7} met")
print("-" * 98)
met_all = True
for key in sorted(values, key=lambda k: (k[0], int(k[1]) if k[1].isdigit() else 0, k[2])):
    i, n, k = key
    _, _, label, unit, op, targets = rows[i]
    v = statistics.median(values[key])
    shown = f"{v:.2f}x" if unit == "x" else f"{v:.1f} {unit}"
    target = targets.get(n, targets.get(""))
    if op is None or target is None:
        t, met = "none", ""  # a growth figure: how the cost changes with the load
    else:
        ok = v <= target if op == "<=" else v >= target
        met_all = met_all and ok
        t, met = f"{op} {target:g}", "yes" if ok else "NO"
    print(f"{label.format(n=n, k=k):<74} {shown:>10}  {t:<7} {met}")
missing = [name for name in dict.fromkeys(r[0] for r in rows) if name not in seen]
if missing:
    print("no figures from: " + ", ".join(missing))
print("every target met" if met_all and not missing else "not every target met")
EOF
