#!/usr/bin/env bash
# velik-top records 5 s of the demo, then plays the file back: scripted
# (--once --at) and in a real terminal (tmux), stepping through frames.
# usage: velik_top_replay.sh VELIK_DEMO VELIK_TOP
set -euo pipefail

demo=$1
top=$2
command -v tmux >/dev/null || { echo "tmux is not installed: skipped"; exit 77; }

work=$(mktemp -d)
stats=$work/stats
rec=$work/demo.vtr
tmux_server=velik-top-replay-$$
demo_pid=
cleanup() {
    local rc=$?
    tmux -L "$tmux_server" kill-server 2>/dev/null || true
    if [[ -n $demo_pid ]]; then
        kill "$demo_pid" 2>/dev/null || true
        wait "$demo_pid" 2>/dev/null || true
    fi
    rm -rf "$work"
    exit "$rc"
}
trap cleanup EXIT

fail() {
    echo "FAIL: $*" >&2
    exit 1
}
wait_for() {  # TRIES (tenths of a second) CONDITION...
    local tries=$1
    shift
    for ((i = 0; i < tries; ++i)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

"$demo" --seconds 30 --stats-dir "$stats" >"$work/demo.out" 2>&1 &
demo_pid=$!
wait_for 100 test -S "$stats/main.sock" -a -S "$stats/background.sock" ||
    fail "the demo serves no stats sockets in $stats: $(cat "$work/demo.out")"

screen() { tmux -L "$tmux_server" capture-pane -p -t "$1"; }
shows() { screen "$1" | grep -qE -- "$2"; }
expect_screen() {  # SESSION PATTERN WHAT
    wait_for 50 shows "$1" "$2" || { screen "$1" >&2; fail "$3: no /$2/ on the screen"; }
}
# The task names of the table (first on each line, after any fold mark),
# sorted and unique.
names() { sed -n '/^TASK/,/^RECENT EVENTS/p' | grep -v '^TASK\|^RECENT' |
          sed -E 's/^ *(\[[-+]\] +)?([^ ]+).*/\2/' | sort -u; }

# One session that outlives the others keeps the server up: when the last
# session ends, the server exits, and a session made at that moment fails.
tmux -L "$tmux_server" new-session -d -s keeper "sleep 600"
# Record 5 s of the live view.
tmux -L "$tmux_server" new-session -d -s live -x 160 -y 50 "$top -i 0.5 --record $rec $stats"
expect_screen live 'connection:read' "the live view while recording"
sleep 5
live_names=$(screen live | names)
tmux -L "$tmux_server" send-keys -t live q
wait_for 30 bash -c "! tmux -L $tmux_server has-session -t live 2>/dev/null" || fail "q did not quit"
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
tmux -L "$tmux_server" new-session -d -s replay -x 160 -y 50 "$top --replay $rec"
expect_screen replay '^replay [0-9-]+ [0-9:]+ \+[0-9.]+ s  frame [0-9]+/[0-9]+' "the replay clock"
tmux -L "$tmux_server" send-keys -t replay '<'
expect_screen replay 'frame 1/[0-9]+  paused' "jumping back to the first frame"
tmux -L "$tmux_server" send-keys -t replay . .
expect_screen replay 'frame 3/[0-9]+  paused' "stepping two frames on"
expect_screen replay 'connection:read' "the replayed tasks"
replay_names=$(screen replay | names)
for name in connection:read listener:read; do
    grep -qx "$name" <<<"$live_names" || continue
    grep -qx "$name" <<<"$replay_names" || fail "$name was live but is not in the replay"
done
# Space pauses and plays here (it folds in the live view).
tmux -L "$tmux_server" send-keys -t replay Space
expect_screen replay 'frame [0-9]+/[0-9]+  playing' "space playing on"
tmux -L "$tmux_server" send-keys -t replay Space
expect_screen replay 'frame [0-9]+/[0-9]+  paused' "space pausing"
tmux -L "$tmux_server" send-keys -t replay w
expect_screen replay '^HINTS \(w: back to the table\)' "the hints list"
tmux -L "$tmux_server" send-keys -t replay w
expect_screen replay '^TASK' "the table after the hints"
tmux -L "$tmux_server" send-keys -t replay '?'
expect_screen replay 'pause or play the recording' "the replay keys in the help"
tmux -L "$tmux_server" send-keys -t replay q

# At 80 x 24 the clock, any hint and the replay keys fit their lines.
tmux -L "$tmux_server" new-session -d -s small -x 80 -y 24 "$top --replay $rec"
expect_screen small '^replay [0-9-]+ [0-9:]+ \+[0-9.]+ s  frame [0-9]+/[0-9]+  (playing|paused|end) *$' \
    "the whole clock line at 80 columns"
expect_screen small '^space (play|pause)  , \. < > step  \? help ' "the replay keys at 80 columns"
expect_screen small '^TASK +SP' "the table at 80 columns"
if shows small '^hint: '; then
    expect_screen small '^hint: .*(\(w: why\)|w lists them\)) *$' "the whole hint line at 80 columns"
fi
tmux -L "$tmux_server" send-keys -t small '?'
expect_screen small '^  q +quit' "the whole replay help at 80 x 24"
tmux -L "$tmux_server" send-keys -t small q
echo "velik-top replay: all checks passed"
