#!/usr/bin/env bash
# check-daemon.sh DAEMON OUT
#
# The small daemon stops on SIGTERM as a daemon should: status 0, its final
# report printed, its stats socket gone; and its timer, workers and feeder
# all ran before that.
set -uo pipefail
daemon=$1 out=$2
"$daemon" >"$out" 2>&1 &
pid=$!
sleep 1
kill -TERM "$pid"
wait "$pid"
status=$?
fail() {
    echo "daemon.stop: $*" >&2
    cat "$out" >&2
    exit 1
}
[[ $status == 0 ]] || fail "exited $status"
for task in 'TaskGroup;workers' worker feed tick quit; do
    grep -q "^$task " "$out" || fail "no $task in the report"
done
[[ ! -e /tmp/velik_daemon.sock ]] || fail "socket left"
echo "daemon.stop: stopped cleanly"
