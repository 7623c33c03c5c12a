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
echo "demo.load: all runs ended cleanly"
