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
bad() { echo "$sig: $*"; fail=1; }
for sig in TERM INT HUP KILL; do
    rm -f "$tmp/pids"
    "$ns" -- bash "$tmp/hold" "$tmp/pids" & w=$!
    bounded test -s "$tmp/pids" || { bad "command never started"; kill -9 $w; continue; }
    read -r h f s < "$tmp/pids"
    bounded test "$(state $f)$(state $s)" = DT || bad "not frozen and stopped"
    kill -$sig $w
    bounded gone $w || { bad "qmed-ns still there"; kill -9 $w; }
    wait $w 2>/dev/null
    for d in /sys/fs/cgroup/{freezer,pids}/qmed-ns-$w; do bounded test ! -e $d || bad "$d left"; done
    bounded gone $h $f $s && continue
    bad "left $h $f $s: $(state $h) $(state $f) $(state $s)"
    # Clean up after a broken qmed-ns: thaw, continue, kill.
    find /sys/fs/cgroup/freezer/qmed-ns-$w -name freezer.state -exec sh -c 'echo THAWED >$0' {} \;
    kill -CONT $h $f $s; kill -9 $h $f $s
done
exit $fail
