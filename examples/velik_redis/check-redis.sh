#!/usr/bin/env bash
# check-redis.sh SERVER SCRATCH [SERVER OPTIONS...]
#
# The server as redis-cli sees it: replies to the everyday commands, the
# error text of an unknown command, QUIT, a protocol error that closes only
# its own connection, and a clean stop on SIGTERM with
# clients still connected (status 0, the stats sockets gone).
set -uo pipefail
server=$1 scratch=$2
shift 2  # the rest goes to the server (--coroutines: the other connection handler)
command -v redis-cli >/dev/null || { echo "redis.cli: redis-cli not installed; skipped"; exit 0; }
rm -rf "$scratch"
mkdir -p "$scratch"
stats=$scratch/stats
"$server" --serve --port 0 --workers 2 --stats-dir "$stats" "$@" >"$scratch/out" 2>"$scratch/err" &
pid=$!
fail() {
    echo "redis.cli: $*" >&2
    kill "$pid" 2>/dev/null
    exit 1
}
for _ in $(seq 100); do
    port=$(sed -n 's/.*serving RESP on 127.0.0.1:\([0-9]*\).*/\1/p' "$scratch/out")
    [[ -n $port ]] && break
    sleep 0.1
done
[[ -n $port ]] || fail "no port announced: $(cat "$scratch/err")"
cli() { redis-cli -p "$port" "$@" 2>&1; }
expect() {
    local want=$1
    shift
    local got
    got=$(cli "$@")
    [[ $got == "$want" ]] || fail "$*: got '$got', want '$want'"
}

expect OK SET greeting hello
expect hello GET greeting
expect 1 EXPIRE greeting 100
ttl=$(cli TTL greeting)
[[ $ttl == 100 || $ttl == 99 ]] || fail "TTL after EXPIRE 100: $ttl"
expect 1 INCR visits
expect 2 INCR visits
expect "ERR unknown command 'FLY', with args beginning with: 'away' " FLY away
expect OK QUIT

# Garbage gets one protocol error and the connection closed; the data and
# the other clients are untouched.
exec 5<>/dev/tcp/127.0.0.1/"$port" || fail "cannot connect"
printf '*1\r\n$x\r\n' >&5
IFS= read -r -t 5 refusal <&5
[[ $refusal == $'-ERR Protocol error: invalid bulk length\r' ]] || fail "garbage: got '$refusal'"
IFS= read -r -t 5 more <&5
[[ $? == 1 ]] || fail "connection not closed after a protocol error: '$more'"  # 1: end of file
exec 5<&-
expect 3 INCR visits

# Connections are handed to both workers; a key set through one is seen
# through the other.
expect OK SET shared yes
expect yes GET shared

# Clients connected at the stop: each sees its connection closed.
for fd in 3 4; do
    eval "exec $fd<>/dev/tcp/127.0.0.1/$port" || fail "cannot connect"
done
printf 'PING\r\n' >&3
IFS= read -r -t 5 pong <&3
[[ $pong == $'+PONG\r' ]] || fail "PING on a raw connection: $pong"
kill -TERM "$pid"
wait "$pid"
status=$?
[[ $status == 0 ]] || fail "SIGTERM: exited $status: $(tail -3 "$scratch/err")"
exec 3<&- 4<&-
grep -q "TERM, stopping" "$scratch/out" || fail "stop not said"
left=$(find "$stats" -name '*.sock' 2>/dev/null)
[[ -z $left ]] || fail "left $left"
echo "redis.cli: all replies as expected; stopped cleanly"
