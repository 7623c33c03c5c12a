#!/usr/bin/env bash
# velik-top records 5 s of the demo, then plays the file back: scripted
# (--once --at) and in a real terminal (tmux), stepping through frames.
# usage: velik_top_replay.sh VELIK_DEMO VELIK_TOP
set -euo pipefail

. "$(dirname "$0")/velik_top_lib.sh"
rec=$work/demo.vtr

start_demo --seconds 30

# The task names of the table (first on each line, after any fold mark),
# sorted and unique.
names() { sed -n '/^TASK/,/^RECENT EVENTS/p' | grep -v '^TASK\|^RECENT' |
          sed -E 's/^ *(\[[-+]\] +)?([^ ]+).*/\2/' | sort -u; }

keep_tmux_server
# Record 5 s of the live view.
open_view live 160 50 "$top -i 0.5 --record $rec $stats"
expect_screen 'connection:read' "the live view while recording"
sleep 5
live_names=$(screen | names)
keys q
wait_for 30 gone || fail "q did not quit"
[[ $(gzip -dc "$rec" | head -c 40) == '{"format":"velik-top recording"'* ]] ||
    fail "the recording does not start with its header"

# Scripted: the table at a moment of the recording.
once=$("$top" --once --replay "$rec" --at 2)
grep -qE '^ +connection:read x[0-9]+ +n +[0-9.k]+ +[0-9.]+ .* connections +main$' <<<"$once" ||
    fail "--once --replay --at 2 shows no connection task: $once"
# ... shaped by the table options as a live --once is.
table=$("$top" --once --replay "$rec" --at 2 --flat --sort name --no-merge \
        --columns task,runs,thread --limit 3)
grep -qE '^TASK +RUN/s +THREAD$' <<<"$table" || fail "--columns in a replay: $table"
rows=$(sed -n '/^TASK/,$p' <<<"$table" | tail -n +2)
[[ $(wc -l <<<"$rows") -eq 3 ]] || fail "--limit 3 in a replay: $table"
[[ $(awk '{print $1}' <<<"$rows") == $(awk '{print $1}' <<<"$rows" | LC_ALL=C sort) ]] ||
    fail "--sort name in a replay: $table"
grep -q '^ ' <<<"$rows" && fail "--flat in a replay indents: $table"
set +e
"$top" --replay "$rec" "$stats" 2>/dev/null; rc=$?
set -e
[[ $rc -eq 2 ]] || fail "--replay with a socket exits $rc"

# The replay in a terminal: pause, step, jump, and the same tasks.
open_view replay 160 50 "$top --replay $rec"
expect_screen '^replay [0-9-]+ [0-9:]+ \+[0-9.]+ s  frame [0-9]+/[0-9]+' "the replay clock"
keys '<'
expect_screen 'frame 1/[0-9]+  paused' "jumping back to the first frame"
keys . .
expect_screen 'frame 3/[0-9]+  paused' "stepping two frames on"
expect_screen 'connection:read' "the replayed tasks"
replay_names=$(screen | names)
for name in connection:read listener:read; do
    grep -qx "$name" <<<"$live_names" || continue
    grep -qx "$name" <<<"$replay_names" || fail "$name was live but is not in the replay"
done
# Space pauses and plays here (it folds in the live view).
keys Space
expect_screen 'frame [0-9]+/[0-9]+  playing' "space playing on"
keys Space
expect_screen 'frame [0-9]+/[0-9]+  paused' "space pausing"
keys w
expect_screen '^HINTS \(w: back to the table\)' "the hints list"
keys w
expect_screen '^TASK' "the table after the hints"
keys '?'
expect_screen 'pause or play the recording' "the replay keys in the help"
keys q

# At 80 x 24 the clock, any hint and the replay keys fit their lines.
open_view small 80 24 "$top --replay $rec"
expect_screen '^replay [0-9-]+ [0-9:]+ \+[0-9.]+ s  frame [0-9]+/[0-9]+  (playing|paused|end) *$' \
    "the whole clock line at 80 columns"
expect_screen '^space (play|pause)  , \. < > step  \? help ' "the replay keys at 80 columns"
expect_screen '^TASK +SP' "the table at 80 columns"
if shows '^hint: '; then
    expect_screen '^hint: .*(\(w: why\)|w lists them\)) *$' "the whole hint line at 80 columns"
fi
keys '?'
expect_screen '^  q +quit' "the whole replay help at 80 x 24"
keys q
echo "velik-top replay: all checks passed"
