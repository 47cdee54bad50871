#!/usr/bin/env bash
# Line and branch coverage per source folder from a chosen set of test binaries
# (what those tests alone cover), or from the whole suite without arguments.
# Uses build/coverage; concurrent callers queue.
#
#   scripts/coverage-of.sh freezer_test freezer_integration_test ...
#   scripts/coverage-of.sh                  every test (the coverage stage)
#   QMED_COV_NOBUILD=1   measure the binaries as they are, without rebuilding
set -euo pipefail
root=$(cd "$(dirname "$0")/.." && pwd)
dir=$root/build/coverage
exec 9>/tmp/qmed-coverage.lock
flock 9
if [ ! -f "$dir/build.ninja" ]; then
    cmake -S "$root" -B "$dir" -G Ninja -DCMAKE_BUILD_TYPE=Coverage -DQMED_BUILD_BENCH=OFF >/dev/null
fi
if [ -n "${QMED_COV_NOBUILD:-}" ]; then :
elif [ $# -eq 0 ]; then cmake --build "$dir" -j "$(nproc)"
else cmake --build "$dir" --target "$@" ykqmed qmedctl service kmodsim kmodshim >/dev/null
fi
# Notes of objects the build no longer has (a deleted test, say) would stop gcovr.
ninja -C "$dir" -t cleandead >/dev/null
find "$dir" -name '*.gcno' | while read -r n; do [ -f "${n%.gcno}.o" ] || rm -f "$n"; done
find "$dir" -name '*.gcda' -delete
# The CTest entries whose command runs one of the chosen binaries.
regex=.
[ $# -eq 0 ] || regex=$(cd "$dir" && ctest --show-only=json-v1 | python3 -c '
import json, sys, re
want = set(sys.argv[1:])
names = []
for t in json.load(sys.stdin)["tests"]:
    cmd = t.get("command") or []
    if any(c.rsplit("/", 1)[-1] in want for c in cmd):
        names.append("^" + re.escape(t["name"]) + "$")
print("|".join(names))' "$@")
[ -n "$regex" ] || { echo "no tests run these binaries: $*" >&2; exit 2; }
rc=0
(cd "$dir" && ctest -j "$(nproc)" --timeout 600 -R "$regex" >/tmp/qmed-coverage-of.log 2>&1) || rc=$?
if [ $rc -ne 0 ]; then cat /tmp/qmed-coverage-of.log; else tail -3 /tmp/qmed-coverage-of.log; fi
# Branches the compiler adds for exceptions say nothing about our tests.
gcovr -r "$root" --object-directory "$dir" --exclude-throw-branches --gcov-ignore-parse-errors \
    -e 'tests/' -e 'bench/' -e 'fuzz/' -e 'build/' --json-summary "$dir/summary-of.json" -s >/dev/null
python3 "$root/scripts/coverage-report.py" "$dir/summary-of.json"
exit $rc
