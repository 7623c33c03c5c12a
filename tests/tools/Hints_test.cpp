// Hints from two snapshots of a thread: each finding on a pair that shows
// it, none on a healthy pair.
#include "Hints.h"
#include "KeyHelp.h"
#include "TableText.h"

#include <gtest/gtest.h>

#include <algorithm>

namespace {

using VelikTop::HintKind;
using VelikTop::TaskRow;
using VelikTop::ThreadSnapshot;

TaskRow task(const std::string& name, std::uint64_t runs, std::string scope = "main") {
    TaskRow row;
    row.scope = std::move(scope);
    row.scheduler = "main";
    row.name = name;
    row.address = "0x" + name;
    row.priority = "normal";
    row.runCount = runs;
    return row;
}

ThreadSnapshot snapshot(std::vector<TaskRow> tasks, std::uint64_t skipped = 0) {
    ThreadSnapshot s;
    s.thread = "main";
    VelikTop::SchedulerRow root;
    root.scope = root.name = "main";
    root.skipped = skipped;
    s.schedulers = {root};
    s.tasks = std::move(tasks);
    return s;
}

struct Pair {
    ThreadSnapshot before, after;
};

// A group "g" of two tasks and a timer task "t", all running without fault.
Pair healthy() {
    TaskRow group = task("TaskGroup;g", 10);
    group.isGroup = true;
    group.childScope = "main/g";
    TaskRow timer = task("t", 5);
    timer.hasTimer = true;
    timer.lastLatency = 0.001;
    TaskRow pending = task("p", 5);
    pending.workPending = 3;
    Pair p{snapshot({group, task("m1", 4, "main/g"), task("m2", 6, "main/g"), timer, pending}), {}};
    p.after = p.before;
    for (TaskRow& row : p.after.tasks) {
        row.runCount += 10;
    }
    p.after.tasks[4].workPending = 2;
    return p;
}

std::vector<HintKind> kinds(const Pair& p, const VelikTop::PendingStreaks& streaks = {}) {
    std::vector<HintKind> out;
    for (const auto& h : VelikTop::findHints(&p.before, p.after, streaks)) {
        out.push_back(h.kind);
        EXPECT_EQ(h.title.rfind("main: ", 0), 0u) << h.title;
        EXPECT_FALSE(h.explanation.empty());
    }
    return out;
}

std::vector<std::string> titles(const std::vector<VelikTop::Hint>& hints) {
    std::vector<std::string> out;
    for (const auto& h : hints) {
        out.push_back(h.title);
    }
    return out;
}

TEST(Hints, NoneOnAHealthyPairOrWithoutAnEarlierSnapshot) {
    const Pair p = healthy();
    EXPECT_EQ(kinds(p), std::vector<HintKind>{});
    EXPECT_TRUE(VelikTop::findHints(nullptr, p.after, {}).empty());
    EXPECT_EQ(VelikTop::hintLine({}), "");
}

TEST(Hints, GroupOverItsQuantumOnlyWhileItsTasksAreNot) {
    Pair p = healthy();
    p.after.tasks[0].qv200 += 3;
    const auto hints = VelikTop::findHints(&p.before, p.after, {});
    ASSERT_EQ(hints.size(), 1u);
    EXPECT_EQ(hints[0].title,
              "main: group \"TaskGroup;g\" went over its quantum 3 times, its tasks never: its "
              "quantum is shorter than theirs");
    // A task of the group over its own quantum explains the group's.
    p.after.tasks[2].qv500 += 1;
    EXPECT_EQ(kinds(p), std::vector<HintKind>{HintKind::violations});
}

TEST(Hints, LateTimerViolationsAndNeverRunInTheirOrder) {
    Pair p = healthy();
    p.before.tasks.push_back(task("idle", 0));
    p.after.tasks.push_back(task("idle", 0));
    p.after.tasks[3].lastLatency = 0.0453;
    p.after.tasks[1].qv200 += 1;
    p.before.schedulers[0].skipped = p.after.schedulers[0].skipped = 2;
    const auto hints = VelikTop::findHints(&p.before, p.after, {});
    EXPECT_EQ(titles(hints),
              (std::vector<std::string>{
                  "main: timer task \"t\" ran 45.30ms late",
                  "main: \"m1\" went over its quantum 1 time since the last refresh",
                  "main: \"idle\" never ran", "main: 2 tasks of scheduler \"main\" never ran"}));
    EXPECT_EQ(VelikTop::hintLine(hints),
              "hint: main: timer task \"t\" ran 45.30ms late  (and 3 more; w lists them)");
    // A late latency of a timer that did not run since is old news; a
    // counter that went down (a reset) is no violation.
    p.after.tasks[3].runCount = p.before.tasks[3].runCount;
    p.before.tasks[1].qv200 = 10;
    p.after.tasks.pop_back();
    p.after.schedulers[0].skipped = 0;
    EXPECT_EQ(kinds(p), std::vector<HintKind>{});
}

TEST(Hints, TasksOfOneNameAreOneFinding) {
    Pair p = healthy();
    p.after.tasks[1].name = p.before.tasks[1].name = "m";
    p.after.tasks[2].name = p.before.tasks[2].name = "m";
    p.after.tasks[1].qv200 += 1;
    p.after.tasks[2].qv500 += 2;
    const auto hints = VelikTop::findHints(&p.before, p.after, {});
    ASSERT_EQ(hints.size(), 1u);
    EXPECT_EQ(hints[0].title,
              "main: 2 tasks \"m\" went over their quantum 3 times since the last refresh");
}

TEST(Hints, PendingWorkNamedAfterGrowingEveryRefreshInARow) {
    Pair p = healthy();
    VelikTop::PendingStreaks streaks;
    ThreadSnapshot last = p.before;
    const auto refresh = [&](std::uint64_t pending) {
        ThreadSnapshot next = last;
        next.tasks[4].workPending = pending;
        streaks = VelikTop::pendingStreaks(streaks, &last, next);
        const auto hints = VelikTop::findHints(&last, next, streaks);
        last = next;
        return !hints.empty() && hints.back().kind == HintKind::pendingGrows;
    };
    // A pause at 5 starts the count again: the fifth growth after it names it.
    for (const std::uint64_t n : {4, 5, 5, 6, 7, 8, 9}) {
        EXPECT_FALSE(refresh(n)) << n;
    }
    EXPECT_TRUE(refresh(10));
    EXPECT_EQ(VelikTop::findHints(&p.before, last, streaks).back().title,
              "main: pending work of \"p\" grew 5 refreshes running (now 10)");
}

TEST(Hints, ListWrapsEachExplanationUnderItsTitle) {
    Pair p = healthy();
    p.after.tasks[1].qv500 += 2;
    const auto lines = VelikTop::hintList(VelikTop::findHints(&p.before, p.after, {}), 40);
    ASSERT_GT(lines.size(), 3u);
    EXPECT_EQ(lines[0], "main: \"m1\" went over its quantum 2 times since the last refresh");
    for (std::size_t i = 1; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i].rfind("    ", 0), 0u) << lines[i];
        EXPECT_LE(lines[i].size(), 40u) << lines[i];
    }
}

TEST(Hints, LineKeepsItsKeyInSightAtAnyWidth) {
    // A task name the daemon chose: long, with UTF-8 and a control byte.
    const std::string name = "main: \"" + std::string(70, 'x') + "\xc3\xa9\x1b\" never ran";
    const VelikTop::Hint one{HintKind::neverRun, "main", "t", name, "why"};
    EXPECT_EQ(VelikTop::hintLine({one}), "hint: " + VelikTop::printable(name) + "  (w: why)");
    for (const std::size_t width : {40u, 81u}) {
        const std::string line = VelikTop::hintLine({one, one}, width);
        EXPECT_EQ(VelikTop::displayWidth(line), width) << line;
        EXPECT_TRUE(line.ends_with("~  (and 1 more; w lists them)")) << line;
        EXPECT_EQ(line.find('\x1b'), std::string::npos) << line;
    }
}

// Hints about the stats endpoint's own tasks go with those tasks: hidden
// from the table, they are not hinted at either.
TEST(Hints, OwnTasksHintedOnlyWhenShown) {
    const VelikTop::Hint own{HintKind::neverRun, "main", "StatsEndpoint:deadline", "a", "why"};
    const VelikTop::Hint task{HintKind::neverRun, "main", "t", "b", "why"};
    EXPECT_EQ(titles(VelikTop::shownHints({own, task, own}, false)), std::vector<std::string>{"b"});
    EXPECT_EQ(titles(VelikTop::shownHints({own, task}, true)),
              (std::vector<std::string>{"a", "b"}));
}

// The help lists the hints' key in both views; a replay's list offers its
// own keys and no longer Space for folding.
TEST(Hints, HelpNamesTheHintsKeyAndTheReplayKeys) {
    const auto has = [](const auto& list, const std::string& keys, const std::string& what) {
        return std::any_of(list.begin(), list.end(), [&](const auto& k) {
            return k.first == keys && k.second.find(what) != std::string::npos;
        });
    };
    const auto live = VelikTop::keyHelp(false), replay = VelikTop::keyHelp(true);
    EXPECT_TRUE(has(replay, "w", "hints") && has(replay, "e", "own tasks"));
    EXPECT_TRUE(has(live, "Space", "fold"));
    EXPECT_TRUE(has(replay, ", . < >", "one frame or ten"));
    EXPECT_FALSE(has(replay, "Space", "fold"));
}

}  // namespace
