#!/usr/bin/env bash
# velik-top against the running demo daemon: the scripted forms, its errors,
# and the live view driven through a real terminal (tmux).
# usage: velik_top_integration.sh VELIK_DEMO VELIK_TOP
set -euo pipefail

. "$(dirname "$0")/velik_top_lib.sh"

start_demo --seconds 30

# --once: two snapshots, so the rates are real.
once=$("$top" --once -i 0.5 "$stats")
expect_in "$once" '^velik-top .* threads: 2 ' "--once summary"
expect_in "$once" '^thread main: busy [0-9.]+%' "--once busy share"
expect_in "$once" '^TASK +SP +RUN/s +TIME% +MAX-LAT +QV200 +QV500 +LAT-P50 +LAT-P99 .* SCHEDULER +THREAD$' \
    "--once heading"
expect_in "$once" '^\[-\] TaskGroup;connections +n +[0-9.k]+ +[0-9.]+ .* main +main$' "--once group row"
expect_in "$once" '^ +connection:read x[0-9]+ +n +[0-9.k]+ +[0-9.]+ .* connections +main$' \
    "--once merged task row"
expect_in "$once" ' background$' "--once second thread"
if grep -q 'StatsEndpoint' <<<"$once"; then fail "--once shows the endpoint's own tasks"; fi

# --once for scripts: sorted, filtered, limited, flat, chosen columns.
once=$("$top" --once -i 0.2 --flat --sort name --limit 3 --columns task,runs,thread "$stats")
table=$(sed -n '/^TASK/,$p' <<<"$once")
[[ $(wc -l <<<"$table") -eq 4 ]] || fail "--limit 3 printed: $table"
expect_in "$table" '^TASK +RUN/s +THREAD$' "--columns heading"
expect_in "$(sed -n 2p <<<"$table")" '^TaskGroup;compaction +[0-9.-]+ +background$' "--sort name, --flat"
once=$("$top" --once -i 0.2 --flat --no-merge --filter CONNECTION:R "$stats")
[[ $(grep -c "^connection:read " <<<"$once") -ge 100 ]] || fail "--filter --no-merge --flat: $once"
once=$("$top" --once -i 0.2 --own --filter statsendpoint:listen --columns task "$stats")
expect_in "$once" '^ +StatsEndpoint:listen:read$' "--own"
"$top" --version | grep -qE '^velik-top [0-9]+\.[0-9]+\.[0-9]+$' || fail "--version"
set +e
"$top" --once --sort size "$stats" 2>/dev/null; rc=$?
set -e
[[ $rc -eq 2 ]] || fail "--sort size exits $rc"

# --json: one socket gives its snapshot, a directory one object per thread.
"$top" --json "$stats/main.sock" |
    jq -e '.schedulers.main.subSchedulers | to_entries[0].value.tasks.tasks
           | map(select(.name == "connection:read")) | length > 0' >/dev/null ||
    fail "--json of main.sock has no connection tasks"
"$top" --json "$stats" | jq -e 'keys == ["background", "main"]' >/dev/null ||
    fail "--json of the directory is not keyed by thread"

# --prometheus
prom=$("$top" --prometheus "$stats")
expect_in "$prom" '^# TYPE velik_task_runs_total counter$' "--prometheus type line"
expect_in "$prom" '^velik_task_runs_total\{thread="main",scheduler="connections",task="connection:read"\} [0-9]+$' \
    "--prometheus task sample"
expect_in "$prom" '^velik_scheduler_max_slip_seconds\{thread="background",' "--prometheus slip"

# Without an argument the default directory is read only when it is the
# user's alone: another user could have made it first under /tmp.
default=$work/xdg/velik_demo-$(id -u)
mkdir -p "$default"
ln -s "$stats/main.sock" "$default/main.sock"
chmod 0777 "$default"
set +e
msg=$(XDG_RUNTIME_DIR=$work/xdg "$top" --json 2>&1); rc=$?
set -e
[[ $rc -eq 3 ]] || fail "a default directory writable by others exits $rc"
expect_in "$msg" 'not used: writable by others \(mode 0777\)' "default directory message"
chmod 0700 "$default"
XDG_RUNTIME_DIR=$work/xdg "$top" --json >/dev/null || fail "the user's own default directory refused"

# Errors: each its own exit status and a clear message.
set +e
msg=$("$top" --once "$work/none.sock" 2>&1); rc=$?
set -e
[[ $rc -eq 3 ]] || fail "a missing socket exits $rc"
expect_in "$msg" "none.sock: no such socket" "missing socket message"
set +e
"$top" --bogus 2>/dev/null; rc=$?
set -e
[[ $rc -eq 2 ]] || fail "a bad option exits $rc"

keep_tmux_server
# The live view in a 160x50 terminal.
open_view top 160 50 "$top -i 0.5 $stats"
# The table alone, without the history pane below it.
table_lacks() { ! screen | sed -n '/^TASK/,/^RECENT EVENTS/p' | grep -q -- "$1"; }

expect_screen 'connection:read' "live view of the demo's tasks"
expect_screen '^RECENT EVENTS' "history pane"
expect_screen 'sort: time share' "default sort"
first_row() { screen | grep -A1 '^TASK' | tail -1; }
first_row_is() { first_row | grep -qE -- "$1"; }
# The busiest task leads by default, the first name in order by name.
wait_for 50 first_row_is '^\[-\] TaskGroup;connections ' || fail "time share order: $(first_row)"
keys n
expect_screen 'sort: name' "sorting by name"
wait_for 20 first_row_is '^\[-\] TaskGroup;compaction ' || fail "name order: $(first_row)"
keys l
expect_screen 'sort: latency' "sorting by latency"

keys / l i s t e n Enter
expect_screen 'filter: "listen"' "the filter"
expect_screen 'listener:read' "the filtered task"
wait_for 20 table_lacks connection:read || fail "filtering left other tasks in the table"

keys / c o n Enter  # a new filter, not "listencon"
expect_screen 'filter: "con"' "a fresh filter"
keys C-u
expect_screen 'connection:read' "clearing the filter"
wait_for 20 lacks 'filter: ' ||
    fail "Ctrl-U left the filter"
keys t f  # the busiest first, so the group is in sight
wait_for 20 table_lacks connection:read || fail "folding all groups still shows their tasks"
expect_screen '\[\+\] TaskGroup;connections' "a folded group"

keys s
expect_screen '^ROOT +TASK +START +DURATION +STATE' "the stalls pane"
expect_screen 'no stall recorded' "the stalls pane of a daemon without stalls"
keys s
expect_screen '^TASK' "the table again"

keys q
wait_for 30 gone || fail "q did not quit"

# At 80 x 24 the names come first and stay readable; the keys at work.
open_view small 80 24 "$top -i 0.5 $stats"
expect_screen '^\[-\] TaskGroup;connections ' "a group's name at 80 columns"
expect_screen '^ +connection:read x[0-9]+ ' "merged names at 80 columns"
expect_screen '^TASK +SP +RUN/s' "the heading at 80 columns"
table_lacks StatsEndpoint || fail "the endpoint's own tasks in the table"
keys '?'
expect_screen '^KEYS' "the help"
expect_screen 'invert the sort order' "the help's keys"
expect_screen '^  w +the hints' "the hints' key in the help"
expect_screen '^  q +quit' "the whole help at 80 x 24"
keys x
expect_screen '^TASK' "the table after the help"
keys m m  # merging off
wait_for 50 bash -c "[[ \$(tmux -L $tmux_server capture-pane -p -t small | grep -c ' connection:read ') -ge 5 ]]" ||
    fail "merging off still merges"
keys m  # back to merging crowds
expect_screen 'connection:read x[0-9]+' "merging again"
keys T
expect_screen 'view: flat' "the flat view"
expect_screen '^connection:read x[0-9]+ ' "flat rows without indent"
keys T r
expect_screen 'inverted' "inverting the order"
keys r t Home j Enter
expect_screen '^TASK connection:read x[0-9]+  thread main  scheduler connections' "the detail view"
expect_screen '^(HISTOGRAMS|RECENT EVENTS)' "the detail's sections"
keys Escape
expect_screen '^TASK +SP' "the table after the detail"
keys q

# Colour: on a 200 x 50 terminal every column is in sight; NO_COLOR leaves
# only attributes, never a colour.
open_view wide 200 50 "NO_COLOR=1 $top -i 0.3 $stats"
expect_screen '^TASK .* SCHEDULER +THREAD$' "every column at 200"
expect_screen 'connection:read x[0-9]+' "the tasks at 200"
sleep 1.5  # a few refreshes, so violations can rise
if tmux -L "$tmux_server" capture-pane -e -p -t wide | grep -qE $'\e\\[([0-9;]*;)?(3[0-8]|4[0-8]|9[0-7]|10[0-7])(;[0-9;]*)?m'; then
    fail "colour with NO_COLOR set"
fi
keys q

# A socket that accepts and never answers holds back only itself.
if command -v python3 >/dev/null; then
    mkdir -m 0700 "$work/silent"
    python3 -c '
import socket, sys, time
s = socket.socket(socket.AF_UNIX)
s.bind(sys.argv[1]); s.listen(16)
held = []
while True:
    held.append(s.accept()[0])
' "$work/silent/silent.sock" &
    side_pids+=($!)
    wait_for 50 test -S "$work/silent/silent.sock" || fail "no silent socket"
    once=$("$top" --once -i 0.2 -t 0.5 "$stats" "$work/silent/silent.sock")
    expect_in "$once" '^thread main: busy' "--once beside a silent socket"
    expect_in "$once" 'silent.sock: timed out' "--once naming the silent socket"
    "$top" --json -t 0.5 "$stats" "$work/silent" |
        jq -e '.silent.stale == true and (.main.schedulers | length > 0)' >/dev/null ||
        fail "--json does not mark the silent socket"
    open_view silent 160 50 "$top -i 0.5 -t 0.5 $stats $work/silent/silent.sock"
    expect_screen 'silent.sock: timed out' "the live view naming the silent socket"
    expect_screen 'connection:read' "the live view beside a silent socket"
    keys n
    expect_screen 'sort: name' "keys beside a silent socket"
    keys q
fi
echo "velik-top integration: all checks passed"
