#include <Velik/TaskSchedulerHistory.h>

#include "foundation/ThrowingAsserts.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Velik::ConstStringCache;
using Velik::ConstStringRef;
using Velik::TaskSchedulerEventType;
using Velik::TaskSchedulerHistory;
using Velik::TaskTimeDuration;
using Velik::TaskTimePoint;

TaskTimePoint at(std::int64_t ns) {
    return TaskTimePoint(TaskTimeDuration(ns));
}

TEST(TaskSchedulerEventType, DisplayNamesOfEveryKind) {
    const std::vector<std::string> expected = {"schedule",
                                               "unschedule",
                                               "run start",
                                               "run end",
                                               "timerStart",
                                               "timerStop",
                                               "suspendOn",
                                               "suspendOff",
                                               "scheduleSus",
                                               "frcYieldOn",
                                               "frcYieldOff",
                                               "idle",
                                               "busy",
                                               "create",
                                               "delete",
                                               "fdReadable",
                                               "fdWritable",
                                               "schedulerIdle",
                                               "schedulerRunnable",
                                               "schedulerSuspended",
                                               "schedulerUnsuspended",
                                               "schedulerRunIgnoredWhileSuspended",
                                               "schedulerVirtualTimeOn",
                                               "schedulerVirtualTimeOff",
                                               "schedulerTestYieldRatioOn",
                                               "schedulerTestYieldRatioOff"};
    ASSERT_EQ(expected.size(), 26u);
    for (unsigned i = 0; i < expected.size(); ++i) {
        EXPECT_EQ(Velik::eventTypeDisplay(static_cast<TaskSchedulerEventType>(i)), expected[i]);
    }
    EXPECT_EQ(fmt::format("{}", TaskSchedulerEventType::runEnd), "run end");
    std::string message = VelikTest::assertMessageOf(
        [] { Velik::eventTypeDisplay(static_cast<TaskSchedulerEventType>(26)); });
    EXPECT_NE(message.find("TaskSchedulerCpp:"), std::string::npos) << message;
    EXPECT_NE(message.find("unexpected eventType 26"), std::string::npos) << message;
}

TEST(TaskSchedulerHistory, FullRingKeepsNewestAndReleasesOldNames) {
    ConstStringCache cache;
    {
        TaskSchedulerHistory history(100);
        for (int i = 0; i < 150; ++i) {
            history.insertTaskEvent(at(i), TaskSchedulerEventType::schedule,
                                    cache.intern("N t" + std::to_string(i)));
        }
        ASSERT_EQ(history.size(), 100u);
        EXPECT_EQ(history.events().front().name.str(), "N t149");
        EXPECT_EQ(history.events().back().name.str(), "N t50");
        EXPECT_EQ(cache.size(), 100u);  // the oldest 50 names are gone
    }
    EXPECT_EQ(cache.size(), 0u);
}

TEST(TaskSchedulerHistory, CapacityChangesKeepNewestInOrder) {
    ConstStringCache cache;
    TaskSchedulerHistory history(100);
    for (int i = 0; i < 100; ++i) {
        history.insertSchedulerEvent(at(i), TaskSchedulerEventType::schedulerIdle,
                                     cache.intern(std::to_string(i)));
    }
    history.capacityIs(100);
    EXPECT_EQ(history.size(), 100u);
    history.capacityIs(10);
    ASSERT_EQ(history.size(), 10u);
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(history.events()[i].name.str(), std::to_string(99 - i));
    }
    EXPECT_EQ(cache.size(), 10u);

    history.capacityIs(0);
    EXPECT_EQ(history.size(), 0u);
    history.insertSchedulerEvent(at(1), TaskSchedulerEventType::schedulerIdle,
                                 cache.intern("late"));
    EXPECT_EQ(history.size(), 0u);
    EXPECT_EQ(cache.size(), 0u);

    history.capacityIs(2);
    history.insertSchedulerEvent(at(2), TaskSchedulerEventType::schedulerIdle, cache.intern("x"));
    EXPECT_EQ(history.size(), 1u);
    history.clear();
    EXPECT_EQ(history.size(), 0u);
    EXPECT_EQ(cache.size(), 0u);
}

TEST(TaskSchedulerHistory, WrongKindOfEventAsserts) {
    ConstStringCache cache;
    ConstStringRef name = cache.intern("s");
    TaskSchedulerHistory history(4);
    std::string message = VelikTest::assertMessageOf(
        [&] { history.insertTaskEvent(at(1), TaskSchedulerEventType::schedulerIdle, name); });
    EXPECT_NE(message.find("EventType: schedulerIdle"), std::string::npos) << message;
    message = VelikTest::assertMessageOf(
        [&] { history.insertSchedulerEvent(at(1), TaskSchedulerEventType::fdWritable, name); });
    EXPECT_NE(message.find("EventType: fdWritable"), std::string::npos) << message;
    for (bool taskForm : {true, false}) {
        message = VelikTest::assertMessageOf([&] {
            auto bad = static_cast<TaskSchedulerEventType>(40);
            if (taskForm) {
                history.insertTaskEvent(at(1), bad, name);
            } else {
                history.insertSchedulerEvent(at(1), bad, name);
            }
        });
        EXPECT_NE(message.find("unexpected eventType=40"), std::string::npos) << message;
    }
    EXPECT_EQ(history.size(), 0u);
}

TEST(TaskSchedulerHistory, TextDumpLayout) {
    ConstStringCache cache;
    TaskSchedulerHistory history(8);
    history.insertTaskEvent(at(1'000'000), TaskSchedulerEventType::runStart,
                            cache.intern("N reader"));
    history.insertSchedulerEvent(at(1'002'500),
                                 TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended,
                                 cache.intern("main"));
    history.insertTaskEvent(at(123'456'789'012), TaskSchedulerEventType::idle, cache.intern("H w"));
    EXPECT_EQ(history.events()[2].display(), "run start    N reader");
    EXPECT_EQ(history.events()[1].display(), "schedulerRunIgnoredWhileSuspended main");
    const std::string expected =
        "Last 3 scheduler events, absolute timestamp and relative to last event\n"
        "          123456789012 ns since boot          0 µs idle         H w\n"
        "               1002500 ns since boot  123455786 µs "
        "schedulerRunIgnoredWhileSuspended main\n"
        "               1000000 ns since boot          2 µs run start    N reader\n";
    EXPECT_EQ(history.renderTextForDebugToString(), expected);

    int fds[2];
    ASSERT_EQ(pipe(fds), 0);
    history.renderTextForDebug(fds[1]);
    close(fds[1]);
    std::string piped(4096, '\0');
    ssize_t n = read(fds[0], piped.data(), piped.size());
    close(fds[0]);
    ASSERT_GT(n, 0);
    piped.resize(static_cast<size_t>(n));
    EXPECT_EQ(piped, expected);

    TaskSchedulerHistory empty(3);
    EXPECT_EQ(empty.renderTextForDebugToString(),
              "Last 0 scheduler events, absolute timestamp and relative to last event\n");
}

}  // namespace
