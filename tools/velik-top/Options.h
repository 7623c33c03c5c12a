// The command line of velik-top.
//
//   velik-top [-i SECONDS] [--once | --json | --prometheus] [SOCKET|DIR]...
//
// Each argument is a stats socket or a directory, which stands for every
// "*.sock" in it, one thread each (a daemon serving several threads puts
// their sockets in one directory). Without one, the demo daemon's directory
// is watched: ${XDG_RUNTIME_DIR:-/tmp}/velik_demo-<uid>/.
#pragma once

#include "Columns.h"
#include "TaskTable.h"

#include <optional>
#include <string>
#include <vector>

namespace VelikTop {

enum class Mode { live, once, json, prometheus, help, version };

// A socket and the thread name it is shown under: the file name without
// ".sock".
struct Endpoint {
    std::string path;
    std::string thread;
};

struct Options {
    Mode mode = Mode::live;
    double interval = 1.0;  // seconds between snapshots
    double timeout = 1.5;   // seconds one request may take, connecting to the last byte
    std::vector<std::string> targets;

    // How the table is shown, live and with --once: --sort, --reverse,
    // --filter, --flat, --no-merge, --own, --hide-idle, --columns, --limit
    // (--once only), --no-color (live only).
    ViewOptions view;
    std::vector<Column> columns;       // empty: the default ones
    std::optional<std::size_t> limit;  // the most task lines --once prints
    bool noColour = false;

    // Recording and replay (Recording.h, Replay.h).
    std::string record;        // --record FILE: write what is fetched to FILE
    std::string replay;        // --replay FILE: show FILE instead of sockets
    std::optional<double> at;  // --at SECONDS: the moment of a replay --once prints
};

// Throws `TopError` (`exitUsage`) for an unknown option, a missing or
// invalid interval or time-out, two modes at once, or recording options
// that do not go together (--replay with a socket, --record or --json;
// --record with --json or --prometheus; --at without --once --replay).
Options parseOptions(int argc, const char* const* argv);

// The sockets `targets` name, directories expanded (sorted by name). Throws
// `TopError` (`exitUnreachable`) for a path that does not exist or a
// directory without sockets.
std::vector<Endpoint> resolveEndpoints(const std::vector<std::string>& targets);

// ${XDG_RUNTIME_DIR:-/tmp}/velik_demo-<uid>
std::string demoStatsDirectory();

// Refuses the default directory unless it is this user's own: a directory
// (not a symlink) owned by the effective uid and writable by nobody else.
// Under /tmp another user could make it first and put sockets of theirs in
// it. A missing directory passes (`resolveEndpoints` says it is missing).
// Throws `TopError` (`exitUnreachable`) naming the reason.
void checkOwnDirectory(const std::string& directory);

// The text of `velik-top --help`.
std::string usageText();

// "velik-top 0.1.0": the library's version this viewer was built with.
std::string versionText();

}  // namespace VelikTop
