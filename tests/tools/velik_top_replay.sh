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
# The task names of the table, sorted and unique.
names() { sed -n '/^THREAD/,/^RECENT EVENTS/p' | grep -v '^THREAD\|^RECENT' |
          sed -E 's/.* ([^ ]+)$/\1/' | sort -u; }

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
grep -qE '^main +connections +n +[0-9.k]+ +[0-9.]+ .* connection:read$' <<<"$once" ||
    fail "--once --replay --at 2 shows no connection task: $once"
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
tmux -L "$tmux_server" send-keys -t replay h
expect_screen replay '^HINTS' "the hints list"
tmux -L "$tmux_server" send-keys -t replay q
echo "velik-top replay: all checks passed"
