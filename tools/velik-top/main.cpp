// velik-top: a live view of a running daemon's tasks, from its stats sockets.
#include "HistoryText.h"
#include "JsonText.h"
#include "Options.h"
#include "Prometheus.h"
#include "Sampler.h"
#include "Screen.h"
#include "StatsClient.h"
#include "TableText.h"
#include "TopError.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <iostream>
#include <thread>

namespace VelikTop {
namespace {

// Generous: a daemon under load answers within its own scheduling, and a
// snapshot of many thousand tasks takes a while to write.
constexpr double fetchTimeoutSeconds = 10.0;

std::string jsonString(const std::string& s) {
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    writer.String(s.c_str(), static_cast<rapidjson::SizeType>(s.size()));
    return buffer.GetString();
}

// One socket: its snapshot as sent. Several: {"<thread>": <snapshot>, ...}.
int printJson(const std::vector<Endpoint>& endpoints) {
    std::string out;
    for (const Endpoint& e : endpoints) {
        const std::string reply = fetch(e.path, "snapshot", fetchTimeoutSeconds);
        parseSnapshot(e.thread, reply);  // refuse what is not a snapshot
        const std::string json = terminalSafeJson(e.thread, reply);
        if (endpoints.size() == 1) {
            out = json;
        } else {
            out += (out.empty() ? "{" : ",") + jsonString(printable(e.thread)) + ":" + json;
        }
    }
    std::cout << out << (endpoints.size() == 1 ? "\n" : "}\n");
    return exitOk;
}

int printPrometheus(const std::vector<Endpoint>& endpoints) {
    std::vector<ThreadSnapshot> threads;
    for (const Endpoint& e : endpoints) {
        threads.push_back(parseSnapshot(e.thread, fetch(e.path, "snapshot", fetchTimeoutSeconds)));
    }
    std::cout << prometheusText(threads);
    return exitOk;
}

int printOnce(const std::vector<Endpoint>& endpoints, double interval) {
    Sampler sampler(endpoints, fetchTimeoutSeconds);
    for (int i = 0; i < 2; ++i) {
        if (i) {
            std::this_thread::sleep_for(std::chrono::duration<double>(interval));
        }
        sampler.refresh();
        if (const TopError* error = sampler.firstError()) {
            throw *error;
        }
    }
    const ViewOptions view;
    const auto views = sampler.views();
    const auto lines = buildTable(views, view);
    for (const std::string& s : formatSummary(views, view, lines.size(), interval)) {
        std::cout << printable(s) << '\n';
    }
    const TableLayout layout(lines, endpoints.size() > 1);
    std::cout << '\n' << layout.heading() << '\n';
    for (const TableLine& line : lines) {
        std::cout << layout.line(line) << '\n';
    }
    return exitOk;
}

int runLive(const std::vector<Endpoint>& endpoints, double interval) {
    if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)) {
        throw TopError(exitUsage,
                       "the live view needs a terminal; use --once, --json or --prometheus");
    }
    Sampler sampler(endpoints, fetchTimeoutSeconds);
    sampler.refresh();
    if (sampler.snapshots().empty()) {
        throw *sampler.firstError();  // nothing to show: say why at once
    }
    Screen(sampler, interval).run();
    return exitOk;
}

int run(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    if (options.mode == Mode::help) {
        std::cout << usageText();
        return exitOk;
    }
    std::vector<std::string> targets = options.targets;
    if (targets.empty()) {
        targets.push_back(demoStatsDirectory());
        checkOwnDirectory(targets.back());
    }
    const std::vector<Endpoint> endpoints = resolveEndpoints(targets);
    switch (options.mode) {
        case Mode::json:
            return printJson(endpoints);
        case Mode::prometheus:
            return printPrometheus(endpoints);
        case Mode::once:
            return printOnce(endpoints, options.interval);
        default:
            return runLive(endpoints, options.interval);
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
