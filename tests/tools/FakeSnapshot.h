// Small hand-made snapshots with chosen figures, for the rates, the table
// and the Prometheus output.
#pragma once

#include "SnapshotModel.h"
#include "TopError.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

namespace VelikTopTest {

struct FakeTask {
    std::string name;
    std::string address = "0x1";
    std::uint64_t runs = 0;
    double time = 0;  // seconds
    double maxLatency = 0;
    std::uint64_t qv200 = 0, qv500 = 0;
    std::optional<std::uint64_t> work = std::nullopt;
    std::vector<FakeTask> children = {};  // non-empty: a task group
    std::uint64_t maxMs = 0;              // longest run
};

inline std::string tasksJson(const std::vector<FakeTask>& tasks, std::string& subs) {
    std::string out;
    for (const FakeTask& t : tasks) {
        out += out.empty() ? "" : ",";
        out += fmt::format(
            R"({{"name":"{}","address":"{}","priority":"normal","runCount":{},)"
            R"("totalRunTime":{},"schedulingLatencyHighWaterMark":{},"qv200":{},"qv500":{},)"
            R"("maxMs":{})",
            t.name, t.address, t.runs, t.time, t.maxLatency, t.qv200, t.qv500, t.maxMs);
        if (t.work) {
            out += fmt::format(R"(,"workCount":{{"total":{},"decayingAvg":1,"highwater":1}})",
                               *t.work);
        }
        if (!t.children.empty()) {
            std::string inner;
            const std::string list = tasksJson(t.children, inner);
            subs += fmt::format(
                R"({}"{}-{}":{{"schedulerName":"{}","tasks":{{"tasks":[{}]}},"subSchedulers":{{{}}}}})",
                subs.empty() ? "" : ",", t.name, t.address, t.name, list, inner);
            out += fmt::format(R"(,"subScheduler":"{}-{}")", t.name, t.address);
        }
        out += "}";
    }
    return out;
}

// A snapshot whose root scheduler "main" holds `tasks`.
inline std::string snapshotJson(const std::vector<FakeTask>& tasks) {
    std::string subs;
    const std::string list = tasksJson(tasks, subs);
    return fmt::format(
        R"({{"schedulers":{{"main":{{"schedulerName":"main","isRootScheduler":true,)"
        R"("maxSchedulerSlip":0.001,"tasks":{{"tasks":[{}],"skipped":0}},"subSchedulers":{{{}}}}}}}}})",
        list, subs);
}

// The status `f` fails with, and its message.
template <typename F>
VelikTop::ExitStatus failureOf(F&& f, std::string* message = nullptr) {
    try {
        f();
    } catch (const VelikTop::TopError& e) {
        if (message) {
            *message = e.what();
        }
        return e.status();
    }
    return VelikTop::exitOk;
}

inline VelikTop::ThreadSnapshot fakeSnapshot(const std::vector<FakeTask>& tasks,
                                             const std::string& thread = "main") {
    return VelikTop::parseSnapshot(thread, snapshotJson(tasks));
}

}  // namespace VelikTopTest
