// The timer wheel: exact delivery of early-released timers, parking order,
// re-entrant notifications and lifetimes.
// Driven by libevent fast-forward on a loop thread unless stated.
#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"
#include "platform/Recorder.h"

#include <Velik/KivPlatform.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Timeouts.h>
#include <Velik/TimerWheel.h>

#include <gmock/gmock.h>

#include <random>
#include <thread>

namespace {

using namespace Velik;
using testing::HasSubstr;
using VelikTest::assertMessageOf;
using VelikTest::onLoopThread;

constexpr double never = std::numeric_limits<double>::infinity();

// Ids in delivery order; each test clears it.
using Order = std::vector<int>;
Order delivered;

// A timer that records how far past its exact expiry time each delivery was.
struct Probe : TimerWheelEvent {
    explicit Probe(int id = 0) : id(id) {}

    // Starts the timer `t` seconds from now, or at the time `t` when `at`.
    void start(const std::shared_ptr<TimerWheel>& wheel, double t, bool at = false) {
        at ? setTimeoutAt(wheel, t) : setTimeout(wheel, t);
        due = expirationTime();
    }
    void timeout() override {
        lateness.push_back(Velik::time() - due);
        delivered.push_back(id);
        if (onExpiry) {
            onExpiry();
        }
    }
    // Whether it came once, no later than `slack` after its time.
    bool cameOnTime(double slack) const {
        return lateness.size() == 1 && lateness[0] >= 0.0 && lateness[0] < slack;
    }

    int id;
    double due = never;
    std::vector<double> lateness;
    std::function<void()> onExpiry;
};

// Moves the thread's virtual clock `fraction` of the way into a tick.
void moveIntoTick(double fraction) {
    double ticks = Velik::time() * TimerWheel::ticksPerSecond;
    double gap = fraction - (ticks - std::floor(ticks));
    timeval delta{0, static_cast<suseconds_t>((gap < 0.05 ? gap + 1.0 : gap) * 1e4)};
    applyFastForwardDelta(&delta);
}

using TimerWheelLibevent = VelikTest::LeFastForwardTest;

TEST(TimerWheelEvent, StateChangesGoViaNotLinked) {
    Probe ev;
    ev.stateIs(TimerWheelState::inTimerWheel);
    EXPECT_THAT(assertMessageOf([&] { ev.stateIs(TimerWheelState::inTimersExpiryingSoon); }),
                HasSubstr("TimerWheelEvent::stateIs() State change inTimerWheel -> "
                          "inTimersExpiryingSoon must go via notLinked"));
    EXPECT_EQ(ev.state(), TimerWheelState::inTimerWheel);
    ev.stateIs(TimerWheelState::notLinked);
    EXPECT_THAT(assertMessageOf([&] { ev.stateIs(static_cast<TimerWheelState>(3)); }),
                HasSubstr("invalid state 3"));
}

TEST(TimerWheelEventDeathTest, DestroyingAStartedEventAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(Probe().stateIs(TimerWheelState::inTimerWheel),
                 "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
}

// Now rounds up and expiries round down, so the wheel never releases late.
TEST(TimerWheelTicks, CurrentTickRoundsUpExpiryTickRoundsDown) {
    EXPECT_EQ(Impl::timerWheelCurrentTick(12.341), 1235u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(12.349), 1234u);
    EXPECT_EQ(Impl::timerWheelCurrentTick(12.5), 1250u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(12.5), 1250u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(-3.0), 0u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(never), TIMEOUT_NEVER);
}

// Early in a tick, a timer due early in the next falls in the tick the wheel
// already counts as current: released at once, it is parked, and still comes
// at its exact time, after one started then for an earlier time. A wheel
// destroyed with timers parked and in it leaves them stopped.
TEST_F(TimerWheelLibevent, EarlyReleasedTimersAreParkedAndDeliveredOnTime) {
    onLoopThread([] {
        delivered.clear();
        // Made first: the wheel leaves them stopped should a check fail.
        Probe p(1), sooner(2), parked(3), later(4);
        auto wheel = std::make_shared<TimerWheel>();
        moveIntoTick(0.1);
        p.start(wheel, 0.0095);
        VelikTest::loopPass();
        ASSERT_EQ(p.state(), TimerWheelState::inTimersExpiryingSoon);
        sooner.start(wheel, 0.001);
        doLeEventLoop(1.0);
        EXPECT_EQ(delivered, (Order{2, 1}));
        EXPECT_TRUE(sooner.cameOnTime(0.005) && p.cameOnTime(0.005));
        EXPECT_EQ(wheel->timersExpiryingSoonCount(), 0u);

        moveIntoTick(0.1);
        parked.start(wheel, 0.0095);
        later.start(wheel, 0.5);
        VelikTest::loopPass();
        ASSERT_EQ(parked.state(), TimerWheelState::inTimersExpiryingSoon);
        wheel.reset();
        for (Probe* probe : {&parked, &later}) {
            EXPECT_EQ(probe->expirationTime(), never) << probe->id;
        }
    });
}

// Many timers, restarted at random before any is due: each comes once,
// never before its exact time, and all in time order.
TEST_F(TimerWheelLibevent, RestartedTimersComeOnceInTimeOrderAndNeverEarly) {
    onLoopThread([] {
        delivered.clear();
        std::vector<Probe> probes(20'000);
        for (std::size_t i = 0; i < probes.size(); ++i) {
            probes[i].id = static_cast<int>(i);
        }
        auto wheel = std::make_shared<TimerWheel>();
        std::mt19937_64 random(5);
        std::uniform_real_distribution<double> delay(0.0, 60.0);
        for (std::size_t i = 0; i < 2 * probes.size(); ++i) {
            probes[i < probes.size() ? i : random() % probes.size()].start(wheel, delay(random));
        }
        doLeEventLoop(61.0);
        ASSERT_EQ(delivered.size(), probes.size());
        for (std::size_t i = 0; i < delivered.size(); ++i) {
            const Probe& p = probes[delivered[i]];
            ASSERT_GE(p.lateness.at(0), 0.0) << p.id;
            ASSERT_TRUE(i == 0 || probes[delivered[i - 1]].due <= p.due) << p.id;
        }
    });
}

// Timers of one instant come in the order they were started, also one moved
// there from later; restarting one for the instant it has keeps its place.
// The first may stop one parked behind it and
// start another for now. A time already past is due at
// once.
TEST_F(TimerWheelLibevent, SameInstantInStartOrder) {
    onLoopThread([] {
        delivered.clear();
        Probe a(1), victim(2), c(3), moved(4), spawned(5), past(6);
        auto wheel = std::make_shared<TimerWheel>();
        const double at = Velik::time() + 0.3;
        moved.start(wheel, at + 0.5, true);
        for (Probe* p : {&a, &victim, &c, &moved}) {
            p->start(wheel, at, true);
        }
        a.start(wheel, at, true);
        past.start(wheel, Velik::time() - 1.0, true);
        a.onExpiry = [&] {
            EXPECT_EQ(victim.state(), TimerWheelState::inTimersExpiryingSoon);
            victim.delTimeout(wheel);
            spawned.start(wheel, 0.0);
        };
        doLeEventLoop(1.0);
        EXPECT_EQ(delivered, (Order{6, 1, 3, 4, 5}));
        for (Probe* p : {&a, &c, &moved, &spawned, &past}) {
            EXPECT_GE(p->lateness.at(0), 0.0) << p->id;
        }
    });
}

// A control's expiry goes through its handler's hook; one that is not taken
// leaves the loop with the next timer still armed. The control holds its
// wheel, and destroying it armed stops its timer.
TEST_F(TimerWheelLibevent, TimerControlHookAndLifetime) {
    onLoopThread([] {
        auto wheel = std::make_shared<TimerWheel>();
        VelikTest::Recorder handler;
        handler.throws = true;
        auto control = Platform::getTimerControl(&handler, wheel);
        Probe next;
        control->setTimeout(0.5);
        next.start(wheel, 0.7);
        EXPECT_THROW(doLeEventLoop(1.0), std::runtime_error);
        EXPECT_EQ(handler.hooks, 1);
        EXPECT_TRUE(next.lateness.empty() && next.expirationTime() == next.due);

        control->setTimeout(0.5);
        std::weak_ptr<TimerWheel> weak = wheel;
        wheel.reset();
        control.reset();
        EXPECT_TRUE(weak.expired());
    });
}

// Without thread-local singletons the one process wheel runs on the
// framework clock; with them each thread has a wheel of its own.
TEST(TimerWheelSingleton, ProcessWheelOnTheFrameworkThreadWheelsApart) {
    std::shared_ptr<TimerWheel> processWheel = getTimerWheel();
    EXPECT_EQ(getTimerWheel(), processWheel);
    ASSERT_TRUE(dynamic_cast<KivVelik::ClockTimer*>(processWheel->masterTimer().get()));
    std::thread([&] {
        useThreadLocalSingletons();
        // The thread's base must outlive its wheel, which goes at thread
        // exit: a thread-local made first is destroyed last.
        struct FreeBaseLast {
            ~FreeBaseLast() { leFree(); }
        };
        thread_local FreeBaseLast freeBaseLast;
        auto wheel = getTimerWheel();
        EXPECT_EQ(getTimerWheel(), wheel);
        EXPECT_NE(wheel, processWheel);
    }).join();
}

}  // namespace
