#!/usr/bin/env bash
# check-demo.sh DEMO SCRATCH
#
# Runs the demo under its own load options, as a new user would: it must
# finish with status 0 however its connections are closed under it, write its
# JSON anywhere it is told, and leave no socket behind.
set -uo pipefail
demo=$1 scratch=$2
rm -rf "$scratch"
mkdir -p "$scratch"
stats=$scratch/stats
fail() {
    echo "demo.load: $*" >&2
    exit 1
}
run() {
    local expected=$1
    shift
    "$demo" --stats-dir "$stats" "$@" >"$scratch/out" 2>"$scratch/err"
    local status=$?
    [[ $status == "$expected" ]] || fail "$* exited $status, not $expected: $(tail -3 "$scratch/err")"
    local left
    left=$(find "$stats" -name '*.sock' 2>/dev/null)
    [[ -z $left ]] || fail "$* left $left"
}

# Connections the server closes while the clients still open others.
run 0 --seconds 1 --clients 2 --connections 300 --idle 0.01 --json "$scratch/demo.json"
grep -Eq 'connections closed by the server and reopened' "$scratch/out" ||
    fail "no count of closed connections: $(grep clients: "$scratch/out")"
grep -q '"schedulers"' "$scratch/demo.json" || fail "no JSON written"

# A descriptor no event loop can watch.
run 0 --idle 0.05 --seconds 0.2 --clients 1 --connections 2 --json /dev/null

# A file that cannot be opened: said, and the sockets still go.
run 1 --idle 0.05 --seconds 0.2 --clients 1 --connections 2 --json "$scratch"
grep -q "velik_demo: $scratch: Is a directory" "$scratch/err" || fail "no error: $(cat "$scratch/err")"
# A signal ends a long run early and just as cleanly: status 0, the report
# and the JSON written, the sockets gone.
for signal in TERM INT; do
    "$demo" --stats-dir "$stats" --seconds 120 --json "$scratch/signal.json" >"$scratch/out" 2>"$scratch/err" &
    pid=$!
    for _ in $(seq 100); do
        [[ -S $stats/main.sock ]] && break
        sleep 0.1
    done
    sleep 0.5
    kill -"$signal" "$pid"
    wait "$pid"
    status=$?
    [[ $status == 0 ]] || fail "SIG$signal: exited $status: $(tail -3 "$scratch/err")"
    grep -q "velik_demo: $signal, stopping" "$scratch/out" || fail "SIG$signal: not said"
    grep -q "^server: " "$scratch/out" || fail "SIG$signal: no figures"
    grep -q '"schedulers"' "$scratch/signal.json" || fail "SIG$signal: no JSON written"
    left=$(find "$stats" -name '*.sock' 2>/dev/null)
    [[ -z $left ]] || fail "SIG$signal: left $left"
done
echo "demo.load: all runs ended cleanly"
