// velik_redis: a Redis-protocol key-value server on the runtime, and the load
// that `make demo` runs against it.
//
//   build/examples/velik_redis [--seconds N] [--workers N] [--clients N]
//                              [--connections N] [--pipeline N] [--stats-dir DIR]
//                              [--metrics ADDRESS]
//   build/examples/velik_redis --serve [--port N] [--workers N] [--stats-dir DIR]
//                              [--idle SECONDS] [--max-bulk BYTES] [--max-args N]
//                              [--metrics ADDRESS] [--coroutines]
//
// Without --serve it runs its own load for --seconds (30) and prints what
// happened: requests, client round trips (p50, p99) and each thread's text
// report. With --serve it answers until SIGINT or SIGTERM, on --port (6380
// by default; 0 takes any free port). Either way SIGINT or SIGTERM stops it
// cleanly: no new connections, open ones closed, stats sockets removed,
// exit status 0. --coroutines (either way) serves each connection with a
// coroutine task (CoroutineConnection.h) instead of a descriptor task.
//
// Threads: the main thread (the host framework's loop) runs the listener,
// the signal task and its stats endpoint; each worker (libevent) serves the
// connections handed to it. Each thread's root serves its statistics on a
// socket of --stats-dir (main.sock, worker0.sock, ...) for `velik-top`.
// With --metrics 127.0.0.1:9464 every thread is also served to Prometheus on
// `/metrics` by the main thread ("main", "worker0", ... as thread labels).
#include <Velik/Velik.h>

#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Load.h"
#include "Server.h"

namespace {

using namespace VelikRedis;
using Velik::TaskPriority;

struct Options {
    bool serve = false;
    ServerOptions server;
    LoadOptions load;
    std::string metricsAddress;  // empty: no /metrics
};

[[noreturn]] void usage(int status) {
    std::fprintf(status ? stderr : stdout,
                 "usage: velik_redis [--seconds N] [--workers N] [--clients N] [--connections N]\n"
                 "                   [--pipeline N] [--stats-dir DIR] [--idle SECONDS]\n"
                 "                   [--metrics ADDRESS]\n"
                 "       velik_redis --serve [--port N] [--workers N] [--stats-dir DIR]\n"
                 "                   [--idle SECONDS] [--max-bulk BYTES] [--max-args N]\n"
                 "                   [--metrics ADDRESS] [--coroutines]\n"
                 "--stats-dir '' serves no statistics; --idle 0 never closes idle clients;\n"
                 "--coroutines serves each connection with a coroutine task\n");
    std::exit(status);
}

std::string defaultStatsDir() {
    const char* runtime = std::getenv("XDG_RUNTIME_DIR");
    return std::string(runtime && *runtime ? runtime : "/tmp") + "/velik_redis-" +
           std::to_string(getuid());
}

Options parseOptions(int argc, char** argv) {
    Options o;
    o.server.statsDir = defaultStatsDir();
    bool portGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string_view arg = argv[i];
        const auto value = [&]() -> const char* {
            if (i + 1 >= argc) {
                usage(2);
            }
            return argv[++i];
        };
        const auto number = [&](long long low) {
            char* end = nullptr;
            const char* text = value();
            const long long n = std::strtoll(text, &end, 10);
            if (*text == 0 || *end != 0 || n < low) {
                usage(2);
            }
            return n;
        };
        if (arg == "--serve") {
            o.serve = true;
        } else if (arg == "--port") {
            o.server.port = static_cast<std::uint16_t>(number(0));
            portGiven = true;
        } else if (arg == "--workers") {
            o.server.workers = static_cast<int>(number(1));
        } else if (arg == "--stats-dir") {
            o.server.statsDir = value();
        } else if (arg == "--idle") {
            o.server.idleSeconds = std::atof(value());
        } else if (arg == "--coroutines") {
            o.server.coroutines = true;
        } else if (arg == "--max-bulk") {
            o.server.limits.maxBulkLength = static_cast<std::size_t>(number(0));
        } else if (arg == "--max-args") {
            o.server.limits.maxArgs = static_cast<std::size_t>(number(1));
        } else if (arg == "--metrics") {
            o.metricsAddress = value();
        } else if (arg == "--seconds") {
            o.load.seconds = std::atof(value());
        } else if (arg == "--clients") {
            o.load.threads = static_cast<int>(number(1));
        } else if (arg == "--connections") {
            o.load.connections = static_cast<int>(number(1));
        } else if (arg == "--pipeline") {
            o.load.pipeline = static_cast<int>(number(1));
        } else if (arg == "--help" || arg == "-h") {
            usage(0);
        } else {
            usage(2);
        }
    }
    if (o.serve && !portGiven) {
        o.server.port = 6380;  // beside a real server's 6379
    }
    return o;
}

// Makes the stats directory, readable by its owner only; false (having said
// why) when it cannot be used.
bool prepareStatsDir(const std::string& dir) {
    struct stat st;
    if (Velik::Util::mkpath(dir, 0700) != 0 || lstat(dir.c_str(), &st) != 0 ||
        !S_ISDIR(st.st_mode) || st.st_uid != geteuid()) {
        std::fprintf(stderr, "velik_redis: not serving statistics in %s\n", dir.c_str());
        return false;
    }
    chmod(dir.c_str(), 0700);
    return true;
}

// Every thread on one port, read by the main thread; null (having said why)
// when the address cannot be had.
std::unique_ptr<Velik::MetricsEndpoint> serveMetricsOrSay(const Server& server,
                                                          const Options& options) {
    if (options.metricsAddress.empty()) {
        return nullptr;
    }
    std::vector<Velik::MetricsThread> threads{{nullptr, "main"}};
    for (const auto& worker : server.workers()) {
        threads.push_back({worker->inbox(), "worker" + std::to_string(worker->index())});
    }
    try {
        auto metrics = Velik::serveMetrics(std::move(threads), options.metricsAddress);
        std::printf("velik_redis: metrics on http://%s/metrics\n", options.metricsAddress.c_str());
        return metrics;
    } catch (const Velik::Exception& e) {
        std::fprintf(stderr, "velik_redis: not serving metrics: %s\n", e.message().c_str());
        return nullptr;
    }
}

void printReports(const Server& server, Velik::TaskSchedulerRoot& root) {
    for (const auto& worker : server.workers()) {
        std::printf("\n--- worker%d: %llu requests on %llu connections\n", worker->index(),
                    static_cast<unsigned long long>(worker->requests()),
                    static_cast<unsigned long long>(worker->accepted()));
        std::fputs(worker->report().c_str(), stdout);
    }
    std::printf("\n--- main (listener, signals)\n");
    std::fflush(stdout);
    root.statsRenderTextForDebug(STDOUT_FILENO, false, true, false, false);
}

int run(Options options) {
    auto root = Velik::schedulerRootVelik();
    if (!options.server.statsDir.empty() && !prepareStatsDir(options.server.statsDir)) {
        options.server.statsDir.clear();
    }
    std::unique_ptr<Velik::StatsEndpoint> stats;
    if (!options.server.statsDir.empty()) {
        stats = Velik::serveStats(*root, options.server.statsDir + "/main.sock");
    }
    Server server(options.server);
    const unsigned port = server.port();
    std::printf("velik_redis: serving RESP on 127.0.0.1:%u with %d worker%s\n", port,
                options.server.workers, options.server.workers == 1 ? "" : "s");
    if (stats) {
        std::printf("velik_redis: watch it live with: velik-top %s\n",
                    options.server.statsDir.c_str());
    }
    std::printf("velik_redis: poke it with:       redis-cli -p %u\n", port);
    std::unique_ptr<Velik::MetricsEndpoint> metrics = serveMetricsOrSay(server, options);
    std::fflush(stdout);

    std::atomic<bool> stopping{false};
    auto quit = std::make_shared<Velik::SignalTask>(
        root, TaskPriority::high, "quit", std::vector<int>{SIGINT, SIGTERM},
        [&stopping](std::uint64_t, int signal) {
            std::printf("velik_redis: %s, stopping\n", sigabbrev_np(signal));
            std::fflush(stdout);
            stopping = true;
            Velik::Platform::stopEventLoop();
        });

    LoadFigures figures;
    std::jthread load;
    if (!options.serve) {
        std::printf(
            "velik_redis: load of %d client threads x %d connections, %d requests pipelined on "
            "each, for %.1f s\n",
            options.load.threads, options.load.connections, options.load.pipeline,
            options.load.seconds);
        std::fflush(stdout);
        load = std::jthread([&, inbox = Velik::inbox()] {
            figures = runLoad(server.port(), options.load, stopping);
            Velik::stopEventLoop(inbox);
        });
    }
    const auto started = std::chrono::steady_clock::now();
    Velik::Platform::doEventLoop();  // until the load ends, or a signal
    if (load.joinable()) {
        load.join();
    }
    const double ran =
        std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    metrics.reset();  // before the workers' inboxes close
    server.stop();
    if (!options.serve) {
        std::printf(
            "\nload: %llu requests in %.1f s (%.0f per second), %llu error replies, %llu "
            "connections lost\n"
            "      round trip of %d pipelined requests: p50 %.0f us, p99 %.0f us\n",
            static_cast<unsigned long long>(figures.requests), ran,
            static_cast<double>(figures.requests) / ran,
            static_cast<unsigned long long>(figures.errors),
            static_cast<unsigned long long>(figures.disconnected), options.load.pipeline,
            figures.latencyUs.percentile(0.5), figures.latencyUs.percentile(0.99));
    }
    printReports(server, *root);
    return figures.errors == 0 ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
    const Options options = parseOptions(argc, argv);
    // Before any thread starts, so that every thread inherits the mask and
    // the signals reach only the signal task.
    Velik::blockSignals({SIGINT, SIGTERM});
    std::signal(SIGPIPE, SIG_IGN);
    try {
        return run(options);
    } catch (const Velik::Exception& e) {
        std::fprintf(stderr, "velik_redis: %s\n", e.message().c_str());
        return 1;
    } catch (const std::exception& e) {
        std::fprintf(stderr, "velik_redis: %s\n", e.what());
        return 1;
    }
}
