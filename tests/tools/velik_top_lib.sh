# Shared set-up of the velik-top scripts that drive the demo through tmux.
# Sourced, never run: it takes the caller's arguments VELIK_DEMO VELIK_TOP,
# skips (exit 77) without tmux, makes a scratch directory that goes with the
# script, and offers the helpers below. Processes started on the side go in
# side_pids, so that a failing check leaves none behind.

demo=$1
top=$2

# Skips the test when TOOL is missing.
need() {
    command -v "$1" >/dev/null || { echo "$1 is not installed: skipped"; exit 77; }
}
need tmux

work=$(mktemp -d)
stats=$work/stats
script=$(basename "$0" .sh)
tmux_server=velik-top-${script#velik_top_}-$$
demo_pid=
side_pids=()
cleanup() {
    local rc=$?
    for pid in "${side_pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
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
expect_in() {  # TEXT PATTERN WHAT
    grep -qE -- "$2" <<<"$1" || { printf '%s\n' "$1" >&2; fail "$3: no /$2/"; }
}

# Up to TRIES tenths of a second for CONDITION to hold.
wait_for() {
    local tries=$1
    shift
    for ((i = 0; i < tries; ++i)); do
        "$@" && return 0
        sleep 0.1
    done
    return 1
}

# Starts the demo with ARGS in the background, serving its stats in $stats,
# and waits until both of its threads' sockets are there.
start_demo() {
    "$demo" "$@" --stats-dir "$stats" >"$work/demo.out" 2>&1 &
    demo_pid=$!
    wait_for 100 test -S "$stats/main.sock" -a -S "$stats/background.sock" ||
        fail "the demo serves no stats sockets in $stats: $(cat "$work/demo.out")"
}

# One session that outlives the others keeps the server up: when the last
# session ends, the server exits, and a session made at that moment fails.
keep_tmux_server() {
    tmux -L "$tmux_server" new-session -d -s keeper "sleep 600"
}

# The helpers below act on the tmux session named by $session; open_view
# sets it. expect_screen waits $screen_tenths unless told otherwise.
session=
screen_tenths=50
open_view() {  # SESSION COLUMNS ROWS COMMAND
    session=$1
    tmux -L "$tmux_server" new-session -d -s "$1" -x "$2" -y "$3" "$4"
}
screen() { tmux -L "$tmux_server" capture-pane -p -t "$session"; }
keys() { tmux -L "$tmux_server" send-keys -t "$session" "$@"; }
shows() { screen | grep -qE -- "$1"; }
lacks() { ! grep -q -- "$1" <<<"$(screen)"; }
gone() { ! tmux -L "$tmux_server" has-session -t "$session" 2>/dev/null; }
expect_screen() {  # PATTERN WHAT [TENTHS]
    wait_for "${3:-$screen_tenths}" shows "$1" || { screen >&2; fail "$2: no /$1/ on the screen"; }
}
