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

// --- the table's options ---

// The value of an option given as "--name VALUE" or "--name=VALUE"; empty
// when `arg` is not that option.
std::optional<std::string> valueOf(const std::string& arg, const char* name, int& i, int argc,
                                   const char* const* argv) {
    const std::string with = std::string(name) + "=";
    if (arg.rfind(with, 0) == 0) {
        return arg.substr(with.size());
    }
    if (arg != name) {
        return std::nullopt;
    }
    if (++i == argc) {
        usage(arg + " needs a value");
    }
    return std::string(argv[i]);
}

SortKey sortKeyFrom(const std::string& text) {
    if (text == "time" || text == "share") {
        return SortKey::share;
    }
    if (text == "latency") {
        return SortKey::latency;
    }
    if (text == "violations") {
        return SortKey::violations;
    }
    if (text == "name") {
        return SortKey::name;
    }
    usage("--sort takes time, latency, violations or name, not \"" + text + "\"");
}

std::size_t limitFrom(const std::string& text) {
    char* end = nullptr;
    const long long n = std::strtoll(text.c_str(), &end, 10);
    if (text.empty() || *end != '\0' || n < 1) {
        usage("--limit must be a whole number of lines from 1 up, not \"" + text + "\"");
    }
    return static_cast<std::size_t>(n);
}

// Reads one of the table's options at argv[i]; false when `arg` is none.
bool tableOption(Options& o, const std::string& arg, int& i, int argc, const char* const* argv) {
    if (arg == "--reverse") {
        o.view.inverted = true;
    } else if (arg == "--flat") {
        o.view.flat = true;
    } else if (arg == "--no-merge") {
        o.view.merge = MergeMode::off;
    } else if (arg == "--own") {
        o.view.showOwn = true;
    } else if (arg == "--hide-idle") {
        o.view.hideIdle = true;
    } else if (arg == "--no-color" || arg == "--no-colour") {
        o.noColour = true;
    } else if (auto v = valueOf(arg, "--sort", i, argc, argv)) {
        o.view.sort = sortKeyFrom(*v);
    } else if (auto v = valueOf(arg, "--filter", i, argc, argv)) {
        o.view.filter = *v;
    } else if (auto v = valueOf(arg, "--limit", i, argc, argv)) {
        o.limit = limitFrom(*v);
    } else if (auto v = valueOf(arg, "--columns", i, argc, argv)) {
        try {
            o.columns = parseColumns(*v);
        } catch (const TopError& e) {
            usage(e.what());
        }
    } else {
        return false;
    }
    return true;
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
        } else if (arg == "--version") {
            o.mode = Mode::version;
            return o;
        } else if (tableOption(o, arg, i, argc, argv)) {
            continue;
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
      --version           the library version velik-top was built with

the table (live and --once):
      --sort COLUMN       time (the default), latency, violations or name
      --reverse           the sort order upside down
      --filter TEXT       only tasks whose name holds TEXT (any case), and
                          the groups above them
      --flat              one sorted list instead of the group tree
      --no-merge          a line per task: tasks of one name are otherwise
                          merged into one line with their count when there
                          are 5 or more of them in one scheduler
      --own               show the stats endpoint's own tasks too
      --hide-idle         leave out tasks without a run in the interval
      --columns LIST      the columns, by key, e.g. task,sp,runs,time,p99:
                          task sp runs time maxlat qv200 qv500 p50 p99 work
                          pend lastlat maxrun timer scheduler thread
      --limit N           --once: at most N task lines
      --no-color          no colour (NO_COLOR in the environment does the
                          same)

keys (live view): ? lists them all. The main ones:
  t l v n   sort by time share, worst latency, quantum violations, name
  r         invert the order;  T  tree or flat;  m  merging;  i  idle tasks
  /         a new filter by task name;  Ctrl-U  clear it
  enter     the task under the cursor in detail;  space  fold its group
  f         fold or unfold all groups;  o  choose the columns
  left right  scroll the figures;  up down  move the cursor
  c         show or hide completed records;  h  show or hide the history
  s         show or hide the stalls (up down: choose one; its frames below)
  + -       longer or shorter interval;  q  quit
  w         the hints: what stands out, and why
  replay:   space pause/play  , . one frame back/on  < > ten frames

A thread that stops answering, or is stuck in a task, keeps its last
figures on show marked "stale Ns"; a stuck thread is named over the table.

exit status: 0 fine, 2 bad arguments, 3 socket missing, refused or silent,
or the default directory not yours alone, 4 the daemon answered "error: ..."
or is served by another user, 5 the reply is not a JSON snapshot or is
larger than 64 MiB.
)";
}

std::string versionText() {
    return std::string("velik-top ") + VELIK_TOP_VERSION + "\n";
}

}  // namespace VelikTop
