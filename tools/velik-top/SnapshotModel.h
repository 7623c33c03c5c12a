// One thread's JSON snapshot read into flat rows.
//
// The snapshot nests task groups: a group's task sits in its scheduler's
// list and names its own scheduler under "subSchedulers". The model keeps
// that tree as scopes: the top-level scheduler's scope is its name, a group's
// scheduler's scope is the enclosing scope, "/" and the group's
// sub-scheduler key. A group row's `childScope` is the scope of its tasks:
//
//   VelikTop::ThreadSnapshot snap = VelikTop::parseSnapshot("main", json);
//   for (const VelikTop::TaskRow& row : snap.tasks) { ... row.scope ... }
//
// Reading is lenient: a missing member or one of the wrong type reads as
// zero, false or empty, so a daemon of another version still shows what it
// has. Only text that is not JSON, or JSON without a "schedulers" object, is
// refused.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

struct TaskRow {
    std::string scope;      // where the task lives (see above)
    std::string scheduler;  // the name of the scheduler it runs on
    int depth = 0;          // 0 on a top-level scheduler, 1 in a group, ...
    std::string name;
    std::string address;  // empty for completed records
    std::string priority;
    bool completed = false;  // a record summing finished tasks of this name
    bool isGroup = false;
    bool standIn = false;    // a group row made up for a group whose task was left out
    std::string childScope;  // groups only
    bool onRunQueue = false, currentlyRunning = false, suspended = false;
    bool hasTimer = false, timerRunning = false;
    std::uint64_t runCount = 0;
    double totalRunTime = 0;  // seconds, like the latencies
    double lastLatency = 0;
    double maxLatency = 0;
    std::uint64_t qv200 = 0, qv500 = 0;
    std::uint64_t maxMs = 0;
    std::uint64_t completedCount = 0;
    std::optional<std::uint64_t> workTotal;    // absent: never reported work
    std::optional<std::uint64_t> workPending;  // absent: never reported pending work

    // Two characters as the text report shows them: "*" running, "S"
    // suspended, "T"/"t" armed/idle timer or a blank; then the priority
    // letter, lower case when not on a run queue.
    std::string statusLetters() const;
    // Identifies the task across snapshots of one thread.
    std::string identity() const;
};

struct PriorityCounts {
    std::uint64_t runnable = 0, idle = 0, completed = 0, runs = 0;
};

struct SchedulerRow {
    std::string scope;
    std::string name;
    int depth = 0;
    bool isRoot = false;
    double maxSlip = 0;  // seconds
    std::uint64_t skipped = 0;
    std::map<std::string, PriorityCounts> priorities;  // by priority name, as sent
};

struct HistoryEvent {
    std::int64_t nsSinceBoot = 0;
    std::string scheduler;  // the scheduler whose history holds it
    std::string type;
    std::string id;
};

struct ThreadSnapshot {
    std::string thread;  // the name the viewer gives the socket
    std::vector<SchedulerRow> schedulers;
    std::vector<TaskRow> tasks;         // live and completed, each scheduler after its group's row
    std::vector<HistoryEvent> history;  // newest first
};

// Reads `json` as the snapshot of `thread`. Throws `TopError`
// (`exitMalformed`) for text that is not JSON or has no "schedulers" object.
ThreadSnapshot parseSnapshot(const std::string& thread, std::string_view json);

// The last component of a scope: a scheduler name or group key.
std::string_view lastScopeComponent(std::string_view scope);

}  // namespace VelikTop
