// velik-top: a live view of a running daemon's tasks, from its stats sockets.
#include "Fetcher.h"
#include "HistoryText.h"
#include "JsonText.h"
#include "Options.h"
#include "Prometheus.h"
#include "Recording.h"
#include "Replay.h"
#include "Sampler.h"
#include "Screen.h"
#include "StallText.h"
#include "StatsClient.h"
#include "TableText.h"
#include "TopError.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <fmt/format.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <iostream>
#include <memory>
#include <thread>

namespace VelikTop {
namespace {

std::string jsonString(const std::string& s) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(s.c_str(), static_cast<rapidjson::SizeType>(s.size()));
    return buffer.GetString();
}

// The snapshot of one socket, or with several sockets, for a thread that
// stopped answering, {"stale":true,"reason":"..."} in its place.
std::string snapshotJson(const Endpoint& e, double timeout, bool several) {
    std::string reply;
    try {
        reply = exchange(e.path, "snapshot", {timeout});
        const std::string reason = errorReason(reply);
        if (const auto busy = parseBusy(reason); busy && several) {
            return fmt::format("{{\"stale\":true,\"reason\":{}}}",
                               jsonString(printable(e.path + ": " + reason)));
        }
        if (!reason.empty()) {
            throw TopError(exitRefused, e.path + ": the daemon refused: " + reason);
        }
        if (reply.empty()) {
            throw TopError(exitMalformed, e.path + ": empty reply");
        }
    } catch (const TopError& error) {
        if (!several || error.status() != exitUnreachable) {
            throw;
        }
        return fmt::format("{{\"stale\":true,\"reason\":{}}}", jsonString(printable(error.what())));
    }
    parseSnapshot(e.thread, reply);  // refuse what is not a snapshot
    return terminalSafeJson(e.thread, reply);
}

// One socket: its snapshot as sent. Several: {"<thread>": <snapshot>, ...}.
int printJson(const std::vector<Endpoint>& endpoints, double timeout) {
    std::string out;
    for (const Endpoint& e : endpoints) {
        const std::string json = snapshotJson(e, timeout, endpoints.size() > 1);
        if (endpoints.size() == 1) {
            out = json;
        } else {
            out += (out.empty() ? "{" : ",") + jsonString(printable(e.thread)) + ":" + json;
        }
    }
    std::cout << out << (endpoints.size() == 1 ? "\n" : "}\n");
    return exitOk;
}

int printPrometheus(const std::vector<Endpoint>& endpoints, double timeout) {
    std::vector<ThreadSnapshot> threads;
    for (const Endpoint& e : endpoints) {
        threads.push_back(parseSnapshot(e.thread, fetch(e.path, "snapshot", timeout)));
    }
    std::cout << prometheusText(threads);
    return exitOk;
}

// The columns asked for, or the default ones.
std::vector<Column> tableColumns(const Options& options, std::size_t threads) {
    return options.columns.empty() ? defaultColumns(threads > 1) : options.columns;
}

// Fails unless every thread has figures, or those without stopped
// answering while others answered.
void checkFigures(const Sampler& sampler) {
    const auto& threads = sampler.threads();
    const bool any = std::any_of(threads.begin(), threads.end(),
                                 [](const Sampler::Thread& t) { return t.current.has_value(); });
    for (const Sampler::Thread& t : threads) {
        if (t.current) {
            continue;
        }
        if (t.busy && !any) {
            throw TopError(exitRefused, t.problem());
        }
        if (t.error && (!any || t.error->status() != exitUnreachable)) {
            throw *t.error;
        }
    }
}

// The summary, the failures, the banners and the table, as `--once` prints
// them, shaped by the table options; stale figures aged against `now`.
void printTable(const Sampler& sampler, const Options& options, double interval,
                Sampler::Clock::time_point now) {
    const ViewOptions& view = options.view;
    const auto views = sampler.views(now);
    auto lines = buildTable(views, view);
    if (options.limit && lines.size() > *options.limit) {
        lines.resize(*options.limit);
    }
    for (const std::string& s : formatSummary(views, view, lines.size(), interval)) {
        std::cout << printable(s) << '\n';
    }
    for (const Sampler::Thread& t : sampler.threads()) {
        if (!t.problem().empty()) {
            std::cout << printable(t.problem()) << '\n';
        }
    }
    for (const std::string& s : stallBanner(sampler.stalledRoots(), sampler.stallRoots())) {
        std::cout << printable(s) << '\n';
    }
    const TableLayout layout(lines, tableColumns(options, sampler.threads().size()));
    std::cout << '\n' << layout.heading() << '\n';
    for (const TableLine& line : lines) {
        std::cout << layout.line(line) << '\n';
    }
}

// A recorder when --record asks for one.
std::unique_ptr<Recorder> recorderFor(const Options& options,
                                      const std::vector<Endpoint>& endpoints) {
    if (options.record.empty()) {
        return nullptr;
    }
    return std::make_unique<Recorder>(options.record, endpoints, options.interval);
}

int printOnce(const std::vector<Endpoint>& endpoints, const Options& options) {
    Fetcher fetcher(endpoints, options.timeout);
    Sampler sampler(endpoints);
    const auto recorder = recorderFor(options, endpoints);
    for (int i = 0; i < 2; ++i) {
        if (i) {
            std::this_thread::sleep_for(std::chrono::duration<double>(options.interval));
        }
        refreshAndRecord(fetcher, sampler, recorder.get());
    }
    checkFigures(sampler);
    printTable(sampler, options, options.interval, Sampler::Clock::now());
    return exitOk;
}

void needTerminal() {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        throw TopError(exitUsage,
                       "the live view needs a terminal; use --once, --json or --prometheus");
    }
}

int runLive(const std::vector<Endpoint>& endpoints, const Options& options) {
    needTerminal();
    Fetcher fetcher(endpoints, options.timeout);
    Sampler sampler(endpoints);
    const auto recorder = recorderFor(options, endpoints);
    refreshAndRecord(fetcher, sampler, recorder.get());
    // Nothing to show and no stuck thread to name: say why at once.
    if (sampler.snapshots().empty() && sampler.stalledRoots().empty()) {
        checkFigures(sampler);
    }
    Screen screen(fetcher, sampler, options.interval);
    screen.viewIs(options.view, tableColumns(options, endpoints.size()), options.noColour);
    screen.record(recorder.get());
    screen.run();
    return exitOk;
}

// --replay: the recording's frames in place of the sockets' answers; with
// --once, the table of the frame at --at (the last frame without it).
int runReplay(const Options& options) {
    const Recording recording = loadRecording(options.replay);
    Sampler sampler(recording.endpoints);
    Player player(recording, sampler);
    if (player.frames() == 0) {
        throw TopError(exitMalformed, options.replay + ": a recording without a snapshot");
    }
    if (options.mode == Mode::once) {
        player.seek(options.at ? player.frameAt(*options.at) : player.frames() - 1);
        printTable(sampler, options, recording.interval, player.now());
        return exitOk;
    }
    needTerminal();
    Fetcher idle({}, options.timeout);
    Screen screen(idle, sampler, recording.interval);
    screen.viewIs(options.view, tableColumns(options, recording.endpoints.size()),
                  options.noColour);
    screen.replay(&player);
    screen.run();
    return exitOk;
}

int run(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    if (options.mode == Mode::help) {
        std::cout << usageText();
        return exitOk;
    }
    if (options.mode == Mode::version) {
        std::cout << versionText();
        return exitOk;
    }
    if (!options.replay.empty()) {
        return runReplay(options);
    }
    std::vector<std::string> targets = options.targets;
    if (targets.empty()) {
        targets.push_back(demoStatsDirectory());
        checkOwnDirectory(targets.back());
    }
    const std::vector<Endpoint> endpoints = resolveEndpoints(targets);
    switch (options.mode) {
        case Mode::json:
            return printJson(endpoints, options.timeout);
        case Mode::prometheus:
            return printPrometheus(endpoints, options.timeout);
        case Mode::once:
            return printOnce(endpoints, options);
        default:
            return runLive(endpoints, options);
    }
}

}  // namespace
}  // namespace VelikTop

int main(int argc, char** argv) {
    try {
        return VelikTop::run(argc, argv);
    } catch (const VelikTop::TopError& e) {
        std::cerr << "velik-top: " << VelikTop::printable(e.what()) << '\n';
        return e.status();
    } catch (const std::exception& e) {
        std::cerr << "velik-top: " << VelikTop::printable(e.what()) << '\n';
        return 1;
    }
}
