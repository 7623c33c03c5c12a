#include "scheduler/SchedulerFixture.h"

namespace {

using Velik::ConstStringCache;
using Velik::TaskSchedulerEventType;
using Velik::TaskSchedulerHistory;

Velik::TaskTimePoint at(std::int64_t ns) {
    return Velik::TaskTimePoint(Velik::TaskTimeDuration(ns));
}

TEST(TaskSchedulerEventType, DisplayNamesOfEveryKind) {
    std::string all;
    for (unsigned i = 0; i < 26; ++i) {
        all += std::string(Velik::eventTypeDisplay(static_cast<TaskSchedulerEventType>(i))) + ",";
    }
    EXPECT_EQ(all,
              "schedule,unschedule,run start,run end,timerStart,timerStop,suspendOn,suspendOff,"
              "scheduleSus,frcYieldOn,frcYieldOff,idle,busy,create,delete,fdReadable,fdWritable,"
              "schedulerIdle,schedulerRunnable,schedulerSuspended,schedulerUnsuspended,"
              "schedulerRunIgnoredWhileSuspended,schedulerVirtualTimeOn,schedulerVirtualTimeOff,"
              "schedulerTestYieldRatioOn,schedulerTestYieldRatioOff,");
    EXPECT_ASSERT_TEXT(Velik::eventTypeDisplay(static_cast<TaskSchedulerEventType>(26)),
                       "unexpected eventType 26");
}

TEST(TaskSchedulerHistory, RingAndCapacityKeepTheNewestAndReleaseOldNames) {
    ConstStringCache cache;
    {
        TaskSchedulerHistory history(100);
        for (int i = 0; i < 150; ++i) {
            history.insertTaskEvent(at(i), TaskSchedulerEventType::schedule,
                                    cache.intern(std::to_string(i)));
        }
        EXPECT_EQ(history.events().back().name.str(), "50");
        EXPECT_EQ(cache.size(), 100u);  // the oldest 50 names are gone
        history.capacityIs(10);
        EXPECT_EQ(
            std::tuple(history.size(), cache.size(),
                       history.events().front().name.str() + history.events().back().name.str()),
            std::tuple(10u, 10u, "149140"));
    }
    EXPECT_EQ(cache.size(), 0u);

    TaskSchedulerHistory none(0);
    none.insertSchedulerEvent(at(1), TaskSchedulerEventType::schedulerIdle, cache.intern("x"));
    EXPECT_EQ(none.size() + cache.size(), 0u);
}

TEST(TaskSchedulerHistory, WrongKindOfEventAsserts) {
    ConstStringCache cache;
    Velik::ConstStringRef name = cache.intern("s");
    TaskSchedulerHistory history(4);
    const auto bad = static_cast<TaskSchedulerEventType>(40);
    EXPECT_ASSERT_TEXT(history.insertTaskEvent(at(1), TaskSchedulerEventType::schedulerIdle, name),
                       "EventType: schedulerIdle");
    EXPECT_ASSERT_TEXT(
        history.insertSchedulerEvent(at(1), TaskSchedulerEventType::fdWritable, name),
        "EventType: fdWritable");
    EXPECT_ASSERT_TEXT(history.insertTaskEvent(at(1), bad, name), "unexpected eventType=40");
    EXPECT_EQ(history.size(), 0u);
}

TEST(TaskSchedulerHistory, TextDumpLayout) {
    ConstStringCache cache;
    TaskSchedulerHistory history(8);
    EXPECT_EQ(history.renderTextForDebugToString(),
              "Last 0 scheduler events, absolute timestamp and relative to last event\n");
    history.insertTaskEvent(at(1'000'000), TaskSchedulerEventType::runStart,
                            cache.intern("N reader"));
    history.insertSchedulerEvent(at(1'002'500),
                                 TaskSchedulerEventType::schedulerRunIgnoredWhileSuspended,
                                 cache.intern("main"));
    history.insertTaskEvent(at(123'456'789'012), TaskSchedulerEventType::idle, cache.intern("H w"));
    EXPECT_EQ(history.renderTextForDebugToString(),
              "Last 3 scheduler events, absolute timestamp and relative to last event\n"
              "          123456789012 ns since boot          0 µs idle         H w\n"
              "               1002500 ns since boot  123455786 µs "
              "schedulerRunIgnoredWhileSuspended main\n"
              "               1000000 ns since boot          2 µs run start    N reader\n");
}

}  // namespace
