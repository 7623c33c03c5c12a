#!/usr/bin/env bash
# velik-top watching a daemon whose main thread gets stuck: the demo with a
# checksum task that spins for 6 s, 3 s after the start, in stuckInChecksum().
# While it spins, velik-top must name the stall live, keep the other thread
# and its own keys going, and after it show the stall as ended.
# usage: velik_top_stall.sh VELIK_DEMO VELIK_TOP
set -euo pipefail

. "$(dirname "$0")/velik_top_lib.sh"
need jq

# A light load, so that the stall is the only thing that holds the thread.
start_demo --seconds 13 --stall 6,100 --clients 1 --connections 20 --json "$work/demo.json"

screen_tenths=30
open_view top 200 50 "$top -i 0.5 $stats"

expect_screen '^thread main: busy' "main's figures before the stall" 50
banner='^STALLED  root main .* task ".*checksum"  for [0-9.]+ s$'
expect_screen "$banner" "the stall banner" 80

# The scripted forms, asked while the thread is stuck, in the background
# so that they do not eat into the stall.
"$top" --once -i 0.5 "$stats" >"$work/once.out" 2>&1 &
side_pids+=($!)
"$top" --json "$stats" >"$work/json.out" 2>"$work/json.err" &
side_pids+=($!)

stalled_for() { screen | sed -nE 's/^STALLED .*  for ([0-9.]+) s$/\1/p' | head -1; }
first=$(stalled_for)
sleep 1.2
second=$(stalled_for)
awk -v a="$first" -v b="$second" 'BEGIN { exit !(b > a + 0.4) }' ||
    fail "the stall's time does not grow: $first s, then $second s"

expect_screen '^    at stuckInChecksum' "the stuck function in the banner's frames"
# The stuck thread's last figures stay, marked stale, with the reason; the
# other thread goes on refreshing.
expect_screen '^thread main: .*  stale [0-9]+s$' "main's summary marked stale"
expect_screen 'main.sock: thread busy for [0-9.]+ s in task ".*checksum"' "the busy reason"
shows '^thread background: .*stale' && fail "the background thread is marked stale"
background_rows() { screen | grep -E 'TaskGroup;compaction|compactor[0-9]' || true; }
rows=$(background_rows)
[[ -n $rows ]] || { screen >&2; fail "no background rows"; }
changed() { [[ $(background_rows) != "$rows" ]]; }
wait_for 30 changed || fail "the background rows stopped changing during the stall"

keys n
expect_screen 'sort: name' "a key during the stall" 20

keys s
expect_screen '^ROOT +TASK +START +DURATION +STATE' "the stalls pane"
expect_screen '^main +.*checksum +[0-9.]+ +[0-9.]+ s  ongoing$' "the ongoing stall" 20
# The run ends 3 + 6 s after the start, well before the demo does.
expect_screen '^main +.*checksum +[0-9.]+ +[0-9.]+ s  ended$' "the stall once it ended" 80
wait_for 20 lacks '^STALLED' ||
    fail "the banner stays after the stall ended"

for pid in "${side_pids[@]}"; do
    wait "$pid" || true
done
side_pids=()
once=$(cat "$work/once.out")
expect_in "$once" "$banner" "--once during the stall"
jq -e '.main.stale == true and (.main.reason | test("thread busy for [0-9.]+ s in task"))
       and (.background.schedulers | length > 0)' "$work/json.out" >/dev/null || {
    cat "$work/json.out" "$work/json.err" >&2
    fail "--json during the stall does not mark main stale"
}

keys q
echo "velik-top stall: all checks passed"
