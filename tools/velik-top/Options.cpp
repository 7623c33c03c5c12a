#include "Options.h"

#include "TopError.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string_view>

namespace VelikTop {
namespace {

namespace fs = std::filesystem;

constexpr double minInterval = 0.1;
constexpr double maxInterval = 3600;

[[noreturn]] void usage(const std::string& message) {
    throw TopError(exitUsage, message + " (velik-top --help tells more)");
}

double secondsFrom(const std::string& text, const char* what) {
    char* end = nullptr;
    const double v = std::strtod(text.c_str(), &end);
    if (text.empty() || *end != '\0' || !std::isfinite(v) || v < minInterval || v > maxInterval) {
        usage(std::string(what) + " must be a number of seconds from 0.1 to 3600, not \"" + text +
              "\"");
    }
    return v;
}

double intervalFrom(const std::string& text) {
    return secondsFrom(text, "interval");
}

void setMode(Options& o, Mode mode, std::string_view flag) {
    if (o.mode != Mode::live && o.mode != mode) {
        usage(std::string(flag) +
              " cannot be combined with another of --once, --json, --prometheus");
    }
    o.mode = mode;
}

// Recording and replay: which options go together.
void checkRecordingOptions(const Options& o) {
    const bool printing = o.mode == Mode::json || o.mode == Mode::prometheus;
    if (!o.replay.empty() && (!o.targets.empty() || !o.record.empty() || printing)) {
        usage("--replay shows a recording: it takes no socket, --record, --json or --prometheus");
    }
    if (!o.record.empty() && printing) {
        usage("--record records the live view or --once, not --json or --prometheus");
    }
    if (o.at && (o.replay.empty() || o.mode != Mode::once)) {
        usage("--at goes with --once --replay FILE");
    }
}

std::string threadName(const fs::path& path) {
    return path.extension() == ".sock" ? path.stem().string() : path.filename().string();
}

}  // namespace

Options parseOptions(int argc, const char* const* argv) {
    Options o;
    bool endOfOptions = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (endOfOptions || arg.empty() || arg[0] != '-' || arg == "-") {
            o.targets.push_back(arg);
        } else if (arg == "--") {
            endOfOptions = true;
        } else if (arg == "-h" || arg == "--help") {
            o.mode = Mode::help;
            return o;
        } else if (arg == "--once") {
            setMode(o, Mode::once, arg);
        } else if (arg == "--json") {
            setMode(o, Mode::json, arg);
        } else if (arg == "--prometheus") {
            setMode(o, Mode::prometheus, arg);
        } else if (arg == "-i" || arg == "--interval") {
            if (++i == argc) {
                usage(arg + " needs a number of seconds");
            }
            o.interval = intervalFrom(argv[i]);
        } else if (arg == "-t" || arg == "--timeout") {
            if (++i == argc) {
                usage(arg + " needs a number of seconds");
            }
            o.timeout = secondsFrom(argv[i], "time-out");
        } else if (arg.rfind("--timeout=", 0) == 0) {
            o.timeout = secondsFrom(arg.substr(std::strlen("--timeout=")), "time-out");
        } else if (arg.rfind("--interval=", 0) == 0) {
            o.interval = intervalFrom(arg.substr(std::strlen("--interval=")));
        } else if (arg == "--record" || arg == "--replay" || arg == "--at") {
            if (++i == argc || !*argv[i]) {
                usage(arg + (arg == "--at" ? " needs a number of seconds" : " needs a file"));
            }
            if (arg == "--record") {
                o.record = argv[i];
            } else if (arg == "--replay") {
                o.replay = argv[i];
            } else {
                char* end = nullptr;
                o.at = std::strtod(argv[i], &end);
                if (*end != '\0' || !std::isfinite(*o.at) || *o.at < 0) {
                    usage(
                        std::string("--at needs seconds from the start of the recording, not \"") +
                        argv[i] + "\"");
                }
            }
        } else if (arg.rfind("-i", 0) == 0) {
            o.interval = intervalFrom(arg.substr(2));
        } else {
            usage("unknown option " + arg);
        }
    }
    checkRecordingOptions(o);
    return o;
}

std::string demoStatsDirectory() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    const std::string base = runtime && *runtime ? runtime : "/tmp";
    return base + "/velik_demo-" + std::to_string(::getuid());
}

void checkOwnDirectory(const std::string& directory) {
    struct stat st;
    if (::lstat(directory.c_str(), &st) != 0) {
        return;
    }
    const auto refuse = [&](const std::string& why) {
        throw TopError(exitUnreachable, directory + ": not used: " + why +
                                            " (name a socket or directory to use it anyway)");
    };
    if (!S_ISDIR(st.st_mode)) {
        refuse("not a directory");
    }
    if (st.st_uid != ::geteuid()) {
        refuse("owned by uid " + std::to_string(st.st_uid) + ", not by you (uid " +
               std::to_string(::geteuid()) + ")");
    }
    if ((st.st_mode & (S_IWGRP | S_IWOTH)) != 0) {
        char mode[8];
        std::snprintf(mode, sizeof mode, "%04o", static_cast<unsigned>(st.st_mode & 07777));
        refuse(std::string("writable by others (mode ") + mode + ")");
    }
}

std::vector<Endpoint> resolveEndpoints(const std::vector<std::string>& targets) {
    std::vector<Endpoint> out;
    for (const std::string& target : targets) {
        std::error_code error;
        const fs::file_status status = fs::status(target, error);
        if (error || !fs::exists(status)) {
            throw TopError(exitUnreachable,
                           target + ": no such socket or directory (is the daemon running?)");
        }
        if (!fs::is_directory(status)) {
            out.push_back({target, threadName(target)});
            continue;
        }
        std::vector<fs::path> sockets;
        for (const fs::directory_entry& e : fs::directory_iterator(target, error)) {
            if (e.path().extension() == ".sock") {
                sockets.push_back(e.path());
            }
        }
        if (error) {
            throw TopError(exitUnreachable, target + ": " + error.message());
        }
        if (sockets.empty()) {
            throw TopError(exitUnreachable,
                           target + ": no *.sock in this directory (is the daemon running?)");
        }
        std::sort(sockets.begin(), sockets.end());
        for (const fs::path& p : sockets) {
            out.push_back({p.string(), threadName(p)});
        }
    }
    // The same socket named twice is watched once; two sockets of one name
    // in different directories are told apart.
    std::vector<Endpoint> unique;
    for (Endpoint& e : out) {
        const auto same = [&e](const Endpoint& u) {
            std::error_code error;
            return u.path == e.path || fs::equivalent(u.path, e.path, error);
        };
        if (std::any_of(unique.begin(), unique.end(), same)) {
            continue;
        }
        const std::string base = e.thread;
        for (int n = 2; std::any_of(unique.begin(), unique.end(),
                                    [&e](const Endpoint& u) { return u.thread == e.thread; });
             ++n) {
            e.thread = base + "#" + std::to_string(n);
        }
        unique.push_back(std::move(e));
    }
    return unique;
}

std::string usageText() {
    return R"(usage: velik-top [options] [SOCKET|DIRECTORY]...

Shows the tasks of a running daemon, live, from its stats sockets. A
directory stands for every *.sock in it, one thread each. Without an
argument: the demo daemon's ${XDG_RUNTIME_DIR:-/tmp}/velik_demo-<uid>/,
if it is yours and writable by you alone. Only sockets served by you or
root are read, and a reply of more than 64 MiB is refused.

options:
  -i, --interval SECONDS  time between snapshots (default 1; 0.1 to 3600)
  -t, --timeout SECONDS   time one request may take, from connecting to
                          the last byte (default 1.5; 0.1 to 3600)
      --once              print the table once and exit; it takes two
                          snapshots an interval apart, so rates are real
      --json              print the JSON snapshot, checked and written out
                          again, and exit; with several sockets, one object
                          keyed by thread name
      --prometheus        print the figures in the Prometheus text format
      --record FILE       also write what is fetched to FILE (gzip), for
                          --replay here or elsewhere
      --replay FILE       show a recording instead of sockets, with the
                          same keys; --once --replay FILE --at SECONDS
                          prints the table as it was SECONDS in
  -h, --help              this text

keys (live view):
  t l v n   sort by time share, worst latency, quantum violations, name
  /         filter by task name (any case; empty to clear)
  f         fold or unfold all groups;  space/enter: the group under the cursor
  up down   move the cursor;  PgUp PgDn Home End as usual
  c         show or hide completed records
  s         show or hide the stalls (up down: choose one; its frames below)
  + -       longer or shorter interval;  q  quit
  h         the hints: what stands out, and why;  e  show or hide the history
  replay:   space pause/play  , . one frame back/on  < > ten frames

A thread that stops answering, or is stuck in a task, keeps its last
figures on show marked "stale Ns"; a stuck thread is named over the table.

exit status: 0 fine, 2 bad arguments, 3 socket missing, refused or silent,
or the default directory not yours alone, 4 the daemon answered "error: ..."
or is served by another user, 5 the reply is not a JSON snapshot or is
larger than 64 MiB.
)";
}

}  // namespace VelikTop
