// The shape of most daemons, whole: a periodic timer feeding a group of
// workers, work handed over from another thread, a stats endpoint, and a
// clean stop on SIGINT or SIGTERM with a final report.
//
//   build/examples/velik_daemon &
//   velik-top /tmp/velik_daemon.sock      # watch it
//   kill -TERM %1                         # report, then exit 0
#include <Velik/Velik.h>

#include <unistd.h>

#include <chrono>
#include <csignal>
#include <deque>
#include <thread>

using namespace std::chrono_literals;
using Velik::TaskPriority;

int main() {
    Velik::blockSignals({SIGINT, SIGTERM});  // before any thread starts, so all inherit it
    auto root = Velik::schedulerRootVelik();
    auto stats = Velik::serveStats(*root, "/tmp/velik_daemon.sock");

    std::deque<int> jobs;  // touched on this thread only
    auto workers = Velik::TaskGroupIs("workers", TaskPriority::normal, false, root);
    auto worker = Velik::makeTask(workers, TaskPriority::normal, "worker", [&](Velik::Task& self) {
        for (; !jobs.empty() && !self.taskShouldYield(); jobs.pop_front()) {
            std::this_thread::sleep_for(1ms);  // the work
        }
        if (!jobs.empty()) {
            self.scheduleTask();  // more left: yield, then carry on
        }
    });
    auto enqueue = [&](int job) {
        jobs.push_back(job);
        worker->scheduleTask();
    };
    auto tick = Velik::makePeriodicTimerTask(root, TaskPriority::high, "tick",
                                             Velik::PeriodicTimerMode::fixedRate, 100ms,
                                             [&](Velik::PeriodicTimerTask&) { enqueue(0); });
    auto quit = std::make_shared<Velik::SignalTask>(
        root, TaskPriority::high, "quit", std::vector<int>{SIGINT, SIGTERM},
        [](std::uint64_t, int) { Velik::Platform::stopEventLoop(); });

    std::jthread feeder([inbox = Velik::inbox(), &enqueue](std::stop_token stop) {
        for (int job = 1; !stop.stop_requested(); ++job, std::this_thread::sleep_for(30ms)) {
            Velik::post(inbox, TaskPriority::normal, "feed", [&enqueue, job] { enqueue(job); });
        }
    });
    Velik::Platform::doEventLoop();  // until SIGINT or SIGTERM
    root->statsRenderTextForDebug(STDOUT_FILENO, false, true, false, false);
}
