// One realistic scheduler for the report tests: plain tasks, a timer task, a
// descriptor task, a task group with two tasks, a completed task and one that
// never ran, with run times the test clock makes exact.
#pragma once

#include <Velik/TaskGroup.h>

#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

namespace VelikTest {

class ReportTest : public SchedulerTest {
  protected:
    static constexpr std::int64_t ms = 1'000'000;

    void SetUp() override {
        SchedulerTest::SetUp();
        using P = Velik::TaskPriority;

        worker = task(P::normal, "worker");
        worker->body = [](ProbeTask& self) {
            advanceNs(3 * ms);
            self.taskWorkCountInc(5);
            self.taskWorkPendingIs(2);
        };
        for (int i = 0; i < 2; ++i) {
            worker->scheduleTask();
            advanceNs(1 * ms);  // waits 1 ms on the queue
            runOnce();
        }

        timer = std::make_shared<ProbeTimer>(root.get(), P::low, "timer");
        timer->body = [](ProbeTimer&) { advanceNs(45 * ms); };  // more than twice the quantum
        timer->scheduleTask();
        runOnce();
        timer->scheduleTaskDelay(100.0);

        conn = std::make_shared<ProbeFd>(root, "conn");
        conn->taskWatchFdIs(sockets.fds[0]);
        conn->onRead = [](ProbeFd& self) {
            advanceNs(ms / 2);
            self.taskWorkCountInc(10);
        };
        conn->scheduleTaskReadable();
        runOnce();

        pool = Velik::TaskGroupIs("pool", P::normal, false, root);
        for (auto [name, ns] : {std::pair{"a", 2 * ms}, std::pair{"b", 3 * ms / 2}}) {
            auto job = std::make_shared<ProbeTask>(pool.get(), P::normal, name);
            job->body = [ns = ns](ProbeTask&) { advanceNs(ns); };
            job->scheduleTask();
            jobs.push_back(job);
        }
        runUntilIdle();

        auto brief = task(P::high, "short");
        brief->body = [](ProbeTask&) { advanceNs(ms / 4); };
        brief->scheduleTask();
        runOnce();
        brief.reset();

        root->clearHistory();
        idle = task(P::scavenge, "idle");
    }
    Pipe sockets{true};
    std::shared_ptr<ProbeTask> worker, idle;
    std::shared_ptr<ProbeTimer> timer;
    std::shared_ptr<ProbeFd> conn;
    std::shared_ptr<Velik::TaskGroup> pool;
    std::vector<std::shared_ptr<ProbeTask>> jobs;
};

}  // namespace VelikTest
