#!/usr/bin/env bash
# qmed-ns, signalled or killed, leaves nothing of its command frozen, stopped or running.
# Usage: qmed-ns-test.sh PATH-TO-QMED-NS
set -um  # job control: our background jobs keep SIGINT
ns=$1 tmp=$(mktemp -d) fail=0
trap 'rm -rf "$tmp"' EXIT
cat > "$tmp/hold" <<'HOLD'
sleep 1000 & f=$!
mkdir /dev/frz/g && echo $f > /dev/frz/g/cgroup.procs && echo FROZEN > /dev/frz/g/freezer.state
sleep 1000 & s=$!
kill -STOP $s
echo $$ $f $s > "$1.new" && mv "$1.new" "$1"
wait
HOLD
state() { local s; s=$(cut -d' ' -f3 "/proc/$1/stat" 2>/dev/null); echo "${s:-gone}"; }
gone() { local p; for p; do case $(state $p) in gone | Z) ;; *) return 1 ;; esac; done; }
bounded() { local i; for i in $(seq 100); do "$@" && return 0; sleep 0.05; done; return 1; }
for sig in TERM INT HUP KILL; do
    rm -f "$tmp/pids"
    "$ns" -- bash "$tmp/hold" "$tmp/pids" &
    w=$!
    bounded test -s "$tmp/pids" || { echo "$sig: command never started"; fail=1; kill -9 $w; continue; }
    read -r h f s < "$tmp/pids"
    bounded test "$(state $f)$(state $s)" = DT || { echo "$sig: not frozen and stopped"; fail=1; }
    kill -$sig $w
    bounded gone $w || { echo "$sig: qmed-ns still there"; fail=1; kill -9 $w; }
    wait $w 2>/dev/null
    bounded gone $h $f $s || { echo "$sig: left $h $f $s: $(state $h) $(state $f) $(state $s)"; fail=1; }
    for d in /sys/fs/cgroup/freezer /sys/fs/cgroup/pids; do
        bounded test ! -e "$d/qmed-ns-$w" || { echo "$sig: $d/qmed-ns-$w left"; fail=1; }
    done
    # Whatever a broken qmed-ns left: thaw, continue, kill.
    for g in /sys/fs/cgroup/freezer/qmed-ns-$w/g /sys/fs/cgroup/freezer/qmed-ns-$w; do
        [ -d $g ] && echo THAWED > $g/freezer.state || continue
        while read -r t; do echo $t > /sys/fs/cgroup/freezer/tasks; done < $g/tasks
        for p in $h $f $s; do kill -CONT $p; kill -9 $p; done
        bounded rmdir $g
    done 2>/dev/null
done
exit $fail
