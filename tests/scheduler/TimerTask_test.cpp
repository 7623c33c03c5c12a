// Timer tasks: the three states and their transitions, jitter draws, the
// assertion texts.
#include <Velik/PlatformSelection.h>

#include "platform/Families.h"
#include "scheduler/SchedulerFixture.h"

#include <limits>

namespace {

using namespace std::chrono_literals;
using Velik::TaskPriority;
using Velik::TimerTask;
using VelikTest::ProbeTimer;

constexpr double never = std::numeric_limits<double>::infinity();

// "idle", "timing" or "due", after checking the three are exclusive.
std::string stateOf(const TimerTask& t) {
    const bool queued = t.taskStatus().taskOnRunQueue();
    EXPECT_FALSE(queued && t.timerRunning());
    EXPECT_EQ(t.taskScheduled(), queued || t.timerRunning());
    return queued ? "due" : t.timerRunning() ? "timing" : "idle";
}

// The root is driven by hand; its timer wheel runs on the framework clock
// under virtual time.
class TimerTaskTest : public VelikTest::SchedulerTest {
  protected:
    void SetUp() override {
        SchedulerTest::SetUp();
        VelikTest::virtualTimeIs(VelikTest::Family::framework, true);
        t = std::make_shared<ProbeTimer>(root.get(), TaskPriority::normal, "tt");
    }
    void TearDown() override {
        t.reset();
        VelikTest::virtualTimeIs(VelikTest::Family::framework, false);
        SchedulerTest::TearDown();
    }
    // Lets `seconds` of virtual time pass on the platform loop.
    static void elapse(double seconds) { Velik::Platform::doEventLoop(seconds); }

    std::shared_ptr<ProbeTimer> t;
};

TEST_F(TimerTaskTest, StateTable) {
    EXPECT_EQ(t->currentExpirationTime(), never);

    t->scheduleTaskDelay(5.0);  // idle -> timing
    EXPECT_EQ(stateOf(*t), "timing");
    EXPECT_NEAR(t->currentExpirationTime(), Velik::time() + 5.0, 1e-3);
    EXPECT_TRUE(t->taskBusy());

    t->scheduleTaskLowestDelay(10.0);  // a later run is never taken
    EXPECT_NEAR(t->timerRemaining(), 5.0, 1e-3);
    t->scheduleTaskLowestDelay(2s);  // an earlier one is
    EXPECT_NEAR(t->timerRemaining(), 2.0, 1e-3);

    t->scheduleTask();  // timing -> due, the timer stopped
    EXPECT_EQ(stateOf(*t), "due");
    EXPECT_EQ(t->timerRemaining(), never);
    EXPECT_NEAR(t->currentExpirationTime(), Velik::time(), 1e-3);

    t->scheduleTaskJitterUp(3s, 0);  // due -> timing, off the run queue
    EXPECT_EQ(stateOf(*t), "timing");
    EXPECT_EQ(root->runnableTaskCount(), 0u);

    t->scheduleTaskDelay(0.0);  // zero: due now, the timer cancelled
    EXPECT_EQ(stateOf(*t), "due");
    t->scheduleTaskDelay(4.0);
    t->scheduleTaskDelay(Velik::TaskTimeDuration::max());  // never: idle
    EXPECT_FALSE(t->taskBusy());
    t->scheduleTaskJitterDown(never, 50);
    EXPECT_EQ(stateOf(*t), "idle");

    // Four starts were recorded (5 s, 2 s, 3 s, 4 s), and a stop only for
    // the never delay that found a running timer.
    EXPECT_EQ(historyCount("timerStart N tt"), 4);
    EXPECT_EQ(historyCount("timerStop N tt"), 1);
}

TEST_F(TimerTaskTest, ExpiryQueuesTheTaskNeverEarlyAndNeverOnceDestroyed) {
    t->scheduleTaskDelay(1.5);
    const double due = t->currentExpirationTime();
    std::make_shared<ProbeTimer>(root.get(), TaskPriority::normal, "gone")->scheduleTaskDelay(1.0);
    elapse(1.0);
    EXPECT_EQ(stateOf(*t), "timing");
    EXPECT_EQ(root->runnableTaskCount(), 0u);
    elapse(1.0);
    EXPECT_EQ(stateOf(*t), "due");
    runOnce();
    EXPECT_THAT(t->runsAt, testing::ElementsAre(testing::Ge(due)));

    // Suspended: the expiry is dropped and the task ends idle, not timing.
    t->scheduleTaskDelay(1.0);
    t->taskSuspendedIs(true);
    elapse(2.0);
    EXPECT_EQ(stateOf(*t), "idle");
}

// An offset is the root's next random percent of the allowed share, in
// both forms. It is exact for every delay: no product overflows, no sum
// leaves the nanosecond range, and rounding never takes an offset past its
// delay.
TEST_F(TimerTaskTest, JitterOffsetsDrawTheRootsRandomPercentExactly) {
    const Velik::TaskTimeDuration twoWeeks = std::chrono::hours(24 * 14);
    unsigned seed = 0;  // a new root's
    auto nextPercent = [&seed] { return static_cast<unsigned>(rand_r(&seed)) / 21474836u; };
    for (int i = 0; i < 50; ++i) {
        EXPECT_DOUBLE_EQ(t->jitterOffset(2.0, 50), nextPercent() * (50 * 2.0) / 10000.0);
        EXPECT_EQ(t->jitterOffset(1'000'000ns, 100), 10'000ns * nextPercent());
        EXPECT_EQ(t->jitterOffset(twoWeeks, 100), twoWeeks / 100 * nextPercent());
    }
    EXPECT_EQ(t->jitterOffset(99ns, 1), 0ns);  // truncated
    EXPECT_EQ(t->jitterOffset(7.5, 0), 0.0);
    constexpr unsigned seedOfAHundred = 57966750;  // its first draw is 100
    root->randomSeedForTestIs(seedOfAHundred);
    t->scheduleTaskJitterDown(781418.8730041712, 100);  // exactly zero: due now
    EXPECT_EQ(stateOf(*t), "due");
    root->randomSeedForTestIs(seedOfAHundred);
    t->scheduleTaskJitterUp(TimerTask::neverDelay - 1ns, 100);
    EXPECT_GT(t->timerRemaining(), 1.8e10);
    root->randomSeedForTestIs(seedOfAHundred);
    EXPECT_DOUBLE_EQ(t->jitterOffset(1e308, 50), 5e307);
}

// Not a number is due at once, as for scheduleTaskDelay: it arms an idle
// timer and brings a running one forward.
TEST_F(TimerTaskTest, LowestDelayOfNotANumberIsDueAtOnce) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    t->scheduleTaskLowestDelay(nan);
    t->scheduleTaskDelay(5.0);
    t->scheduleTaskLowestDelay(nan);
    EXPECT_EQ(t->timerRemaining(), 0.0);
    elapse(0.05);
    EXPECT_EQ(stateOf(*t), "due");
}

TEST_F(TimerTaskTest, AssertionTextsAndNothingHalfDone) {
    t->scheduleTaskDelay(5.0);
    const double expiry = t->currentExpirationTime();
    // The percentage is written as one raw character: 101 is 'e'.
    EXPECT_ASSERT_TEXT(t->scheduleTaskJitterUp(1.0, 101), "maxJitterPercentage: e > 100");
    // A negative delay fails whatever the draw (the offset is random).
    EXPECT_ASSERT_TEXT(t->scheduleTaskJitterDown(-1.0, 50), " ) > delayIntoFuture( -1 )");
    EXPECT_ASSERT_TEXT(t->scheduleTaskJitterUp(-100ns, 50), " ) > delayIntoFuture( -100 )");
    EXPECT_ASSERT_TEXT(t->scheduleTaskLowestDelay(never), "delayIntoFuture: inf");
    EXPECT_ASSERT_TEXT(t->scheduleTaskLowestDelay(TimerTask::neverDelay),
                       "delayIntoFuture: 9223372036854775807");
    EXPECT_EQ(t->currentExpirationTime(), expiry);
    ProbeTimer gone(root.get(), TaskPriority::normal, "gone");
    gone.handleDestroy();
    EXPECT_ASSERT_TEXT(gone.scheduleTaskDelay(1.0), "Task: N gone scheduled after handleDestroy");
    EXPECT_EQ(stateOf(gone), "idle");
}

}  // namespace
