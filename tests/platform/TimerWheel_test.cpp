#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"

#include <Velik/FastForward.h>
#include <Velik/LibeventFactory.h>
#include <Velik/Time.h>
#include <Velik/TimerWheel.h>

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Velik;
using VelikTest::assertMessageOf;
using VelikTest::onLoopThread;

constexpr double never = std::numeric_limits<double>::infinity();

// Delivery log shared by the probes of one test: ids in delivery order.
using Order = std::vector<int>;

// A timer that records when it was delivered and how far past its exact
// expiry time that was.
struct Probe : TimerWheelEvent {
    Probe(int id = 0, Order* order = nullptr) : id(id), order(order) {}

    void start(const std::shared_ptr<TimerWheel>& wheel, double seconds) {
        setTimeout(wheel, seconds);
        due = expirationTime();
    }
    void timeout() override {
        double now = Velik::time();
        lateness.push_back(now - due);
        if (order) {
            order->push_back(id);
        }
        if (onExpiry) {
            onExpiry();
        }
    }

    int id;
    Order* order;
    double due = never;
    std::vector<double> lateness;
    std::function<void()> onExpiry;
};

// Wraps a real libevent timer and logs what the wheel asks of it: the delay
// of each arming, -1 for each disarming.
struct RecordingTimer : Platform::TimerControl {
    RecordingTimer(Platform::TimeoutHandler* handler, std::vector<double>* log)
        : inner(getLeTimerControl(handler)), log(log) {}
    void setTimeout(double seconds) override {
        log->push_back(seconds);
        inner->setTimeout(seconds);
    }
    void delTimeout() override {
        log->push_back(-1);
        inner->delTimeout();
    }
    double remainingTimeout() const override { return inner->remainingTimeout(); }

    std::shared_ptr<Platform::TimerControl> inner;
    std::vector<double>* log;
};

std::shared_ptr<TimerWheel> recordedWheel(std::vector<double>* log) {
    return std::make_shared<TimerWheel>([log](Platform::TimeoutHandler* handler) {
        return std::make_shared<RecordingTimer>(handler, log);
    });
}

// Moves the thread's virtual clock so that it stands `fraction` of the way
// into a tick.
void moveIntoTick(double fraction) {
    double ticks = Velik::time() * TimerWheel::ticksPerSecond;
    double gap = fraction - (ticks - std::floor(ticks));
    if (gap < 0.05) {
        gap += 1.0;
    }
    timeval delta{0, static_cast<suseconds_t>(gap * 1e4)};
    applyFastForwardDelta(&delta);
}

// Far from the clock's origin a double is coarse (61 us at 2^38 s), so two
// starts in quick succession usually compute the very same expiry time.
void makeTimeCoarse() {
    timeval delta{time_t{1} << 38, 0};
    applyFastForwardDelta(&delta);
}

// Starts every probe for `seconds`, in order, again until all got one expiry
// time.
void startTogether(const std::shared_ptr<TimerWheel>& wheel, const std::vector<Probe*>& probes,
                   double seconds) {
    for (int attempt = 0; attempt < 1000; ++attempt) {
        // Stopped first: a restart for the instant a probe already has would
        // keep its old place.
        for (Probe* p : probes) {
            p->delTimeout(wheel);
        }
        for (Probe* p : probes) {
            p->start(wheel, seconds);
        }
        bool same = true;
        for (Probe* p : probes) {
            same = same && p->due == probes.front()->due;
        }
        if (same) {
            return;
        }
    }
    FAIL() << "could not start the probes for one instant";
}

class TimerWheelLibevent : public testing::Test {
  protected:
    void SetUp() override { setLeFastForward(true); }
    void TearDown() override { setLeFastForward(false); }
};

// ------------------------------------------------------------------ state

TEST(TimerWheelState, NamesAndFlagBits) {
    EXPECT_STREQ(timerWheelStateToString(TimerWheelState::notLinked), "notLinked");
    EXPECT_STREQ(timerWheelStateToString(TimerWheelState::inTimerWheel), "inTimerWheel");
    EXPECT_STREQ(timerWheelStateToString(TimerWheelState::inTimersExpiryingSoon),
                 "inTimersExpiryingSoon");
    EXPECT_STREQ(timerWheelStateToString(static_cast<TimerWheelState>(3)), "unknownState");
    EXPECT_EQ(fmt::format("{}", TimerWheelState::inTimerWheel), "inTimerWheel");

    Probe ev;
    EXPECT_EQ(ev.linkFlags(), TIMEOUT_ABS | 0x04);
    EXPECT_EQ(ev.state(), TimerWheelState::notLinked);
    EXPECT_EQ(ev.remainingTimeout(), never);
    ev.stateIs(TimerWheelState::inTimersExpiryingSoon);
    EXPECT_EQ(ev.linkFlags(), TIMEOUT_ABS | 0x10);
    ev.stateIs(TimerWheelState::notLinked);
    ev.stateIs(TimerWheelState::inTimerWheel);
    EXPECT_EQ(ev.linkFlags(), TIMEOUT_ABS | 0x08);
    ev.stateIs(TimerWheelState::notLinked);
}

TEST(TimerWheelState, ChangesBetweenWheelAndParkingGoViaNotLinked) {
    Probe ev;
    ev.stateIs(TimerWheelState::inTimerWheel);
    EXPECT_NE(assertMessageOf([&] { ev.stateIs(TimerWheelState::inTimersExpiryingSoon); })
                  .find("TimerWheelEvent::stateIs() State change inTimerWheel -> "
                        "inTimersExpiryingSoon must go via notLinked"),
              std::string::npos);
    EXPECT_EQ(ev.state(), TimerWheelState::inTimerWheel);
    ev.stateIs(TimerWheelState::notLinked);
    EXPECT_NE(assertMessageOf([&] {
                  ev.stateIs(static_cast<TimerWheelState>(3));
              }).find("invalid state 3"),
              std::string::npos);
    EXPECT_EQ(ev.state(), TimerWheelState::notLinked);
}

TEST(TimerWheelState, DestroyingAStartedEventAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            auto ev = std::make_unique<Probe>();
            ev->stateIs(TimerWheelState::inTimerWheel);
            ev.reset();
        },
        "TimerWheelEvent 0x[0-9a-f]+ destroyed while inTimerWheel");
}

TEST(TimerWheelTicks, CurrentTickRoundsUpExpiryTickRoundsDown) {
    EXPECT_EQ(Impl::timerWheelCurrentTick(12.341), 1235u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(12.349), 1234u);
    EXPECT_EQ(Impl::timerWheelCurrentTick(12.5), 1250u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(12.5), 1250u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(-3.0), 0u);
    EXPECT_EQ(Impl::timerWheelExpiryTick(never), TIMEOUT_NEVER);
}

TEST(TimersAtTimeout, ArrivalOrderAndMembershipChecks) {
    Probe a(1), b(2), c(3);
    TimersAtTimeout first, second;
    first.pushBack(&a);
    first.pushBack(&b);
    first.pushBack(&c);
    first.remove(&b);
    EXPECT_NE(assertMessageOf([&] { second.pushBack(&a); }).find("pending set to 0x"),
              std::string::npos);
    EXPECT_NE(assertMessageOf([&] { second.remove(&c); }).find("linked to 0x"), std::string::npos);
    EXPECT_EQ(first.size(), 2u);
    EXPECT_EQ(first.popFront(), &a);
    EXPECT_EQ(first.popFront(), &c);
    EXPECT_EQ(first.popFront(), nullptr);
    second.pushBack(&b);  // free again after its removal
    EXPECT_EQ(second.popFront(), &b);
}

// ------------------------------------------------------------------ libevent platform

TEST_F(TimerWheelLibevent, EarlyReleasedTimerIsParkedAndDeliveredOnTime) {
    onLoopThread([] {
        Probe p;  // made first: the wheel leaves it stopped should a check fail
        auto wheel = std::make_shared<TimerWheel>();
        // Halfway into a tick, a 4 ms timer falls in the tick that the wheel
        // already counts as current: the wheel releases it at once.
        moveIntoTick(0.5);
        p.start(wheel, 0.004);
        EXPECT_EQ(p.state(), TimerWheelState::inTimerWheel);
        VelikTest::loopPass();
        ASSERT_TRUE(p.lateness.empty());
        EXPECT_EQ(p.state(), TimerWheelState::inTimersExpiryingSoon);
        ASSERT_NE(wheel->timersExpiryingAt(p.due), nullptr);
        EXPECT_EQ(wheel->timersExpiryingAt(p.due)->size(), 1u);
        EXPECT_EQ(wheel->masterTimerExpiry(), p.due);  // armed for the exact time

        doLeEventLoop(1.0);
        ASSERT_EQ(p.lateness.size(), 1u);
        EXPECT_GE(p.lateness[0], 0.0);
        EXPECT_LT(p.lateness[0], 0.005);
        EXPECT_EQ(p.state(), TimerWheelState::notLinked);
        EXPECT_EQ(p.expirationTime(), never);
        EXPECT_EQ(wheel->timersExpiryingSoonCount(), 0u);
        EXPECT_EQ(wheel->masterTimerExpiry(), never);
    });
}

TEST_F(TimerWheelLibevent, ManyRandomTimersAreNeverEarlyAndComeInTimeOrder) {
    onLoopThread([] {
        std::mt19937 random(7);
        std::uniform_real_distribution<double> delay(0.0, 2.0);
        Order order;
        std::vector<std::unique_ptr<Probe>> probes;
        auto wheel = std::make_shared<TimerWheel>();
        for (int i = 0; i < 2000; ++i) {
            probes.push_back(std::make_unique<Probe>(i, &order));
            // Short ones stay near the current tick, long ones cascade.
            probes.back()->start(wheel, i % 4 == 0 ? delay(random) / 100 : delay(random) * 30);
        }
        doLeEventLoop(61.0);
        ASSERT_EQ(order.size(), probes.size());
        for (size_t i = 1; i < order.size(); ++i) {
            ASSERT_LE(probes[order[i - 1]]->due, probes[order[i]]->due) << i;
        }
        int prompt = 0;
        for (auto& p : probes) {
            ASSERT_EQ(p->lateness.size(), 1u);
            ASSERT_GE(p->lateness[0], 0.0) << p->id;
            EXPECT_LT(p->lateness[0], 0.05) << p->id;
            prompt += p->lateness[0] < 0.002;
        }
        // Virtual time makes delivery exact up to the loop's own run time.
        EXPECT_GT(prompt, 1900);
    });
}

TEST_F(TimerWheelLibevent, SameInstantInParkingOrderAndRestartToItIsANoOp) {
    onLoopThread([] {
        makeTimeCoarse();
        auto wheel = std::make_shared<TimerWheel>();
        Order order;
        std::vector<std::unique_ptr<Probe>> probes;
        std::string trace;
        // Restarting the first for the instant it already has must keep its
        // place before the others and write no start trace. Each attempt
        // needs the clock not to move between two readings, so attempts that
        // miss are stopped and tried again with fresh probes.
        for (int attempt = 0; attempt < 100; ++attempt) {
            for (auto& p : probes) {
                p->delTimeout(wheel);
            }
            probes.clear();
            for (int id = 1; id <= 3; ++id) {
                probes.push_back(std::make_unique<Probe>(id, &order));
            }
            startTogether(wheel, {probes[0].get(), probes[1].get(), probes[2].get()}, 0.3);
            Probe& a = *probes[0];
            Platform::setupVelikDebug("Velik/9");
            testing::internal::CaptureStderr();
            a.setTimeout(wheel, a.due - Velik::time());
            trace = testing::internal::GetCapturedStderr();
            Platform::clearVelikDebug("Velik");
            if (a.expirationTime() == a.due) {
                break;
            }
        }
        ASSERT_EQ(probes[0]->expirationTime(), probes[0]->due);
        EXPECT_EQ(trace.find("set timeout"), std::string::npos) << trace;
        EXPECT_EQ(trace.find("del timeout"), std::string::npos) << trace;
        EXPECT_EQ(probes[0]->state(), TimerWheelState::inTimerWheel);

        doLeEventLoop(1.0);
        EXPECT_EQ(order, (Order{1, 2, 3}));
    });
}

TEST_F(TimerWheelLibevent, NotificationsStartAndStopTimersThemselvesIncluded) {
    onLoopThread([] {
        makeTimeCoarse();
        auto wheel = std::make_shared<TimerWheel>();
        Order order;
        Probe first(1, &order), victim(2, &order), repeater(3, &order), quitter(4, &order),
            spawned(5, &order);
        startTogether(wheel, {&first, &victim}, 0.2);
        ASSERT_EQ(first.due, victim.due);
        // `first` stops `victim` (parked right behind it, same instant) and
        // starts `spawned` at once.
        first.onExpiry = [&] {
            EXPECT_EQ(victim.state(), TimerWheelState::inTimersExpiryingSoon);
            victim.delTimeout(wheel);
            spawned.start(wheel, 0.0);
        };
        // `repeater` re-arms itself twice; `quitter` stops itself (already
        // not linked) and then restarts and stops itself.
        repeater.onExpiry = [&] {
            if (repeater.lateness.size() < 3) {
                repeater.start(wheel, 0.07);
            }
        };
        quitter.onExpiry = [&] {
            quitter.delTimeout(wheel);
            quitter.start(wheel, 0.01);
            quitter.delTimeout(wheel);
        };
        repeater.start(wheel, 0.1);
        quitter.start(wheel, 0.13);

        doLeEventLoop(1.0);
        EXPECT_TRUE(victim.lateness.empty());
        EXPECT_EQ(repeater.lateness.size(), 3u);
        EXPECT_EQ(quitter.lateness.size(), 1u);
        ASSERT_EQ(spawned.lateness.size(), 1u);
        EXPECT_EQ(order, (Order{3, 4, 3, 1, 5, 3}));
        for (Probe* p : {&first, &repeater, &quitter, &spawned}) {
            for (double late : p->lateness) {
                EXPECT_GE(late, 0.0) << p->id;
            }
        }
        EXPECT_EQ(wheel->masterTimerExpiry(), never);
    });
}

TEST_F(TimerWheelLibevent, StoppingAParkedTimerMovesOnToTheNext) {
    onLoopThread([] {
        std::vector<double> master;
        auto wheel = recordedWheel(&master);
        Probe parked(1), later(2);
        moveIntoTick(0.5);
        parked.start(wheel, 0.004);
        later.start(wheel, 0.5);
        VelikTest::loopPass();  // parks the first
        ASSERT_EQ(parked.state(), TimerWheelState::inTimersExpiryingSoon);
        EXPECT_EQ(later.state(), TimerWheelState::inTimerWheel);

        master.clear();
        parked.delTimeout(wheel);
        EXPECT_EQ(parked.state(), TimerWheelState::notLinked);
        EXPECT_EQ(wheel->timersExpiryingAt(parked.due), nullptr);
        EXPECT_TRUE(master.empty());  // stopping never touches the master timer
        EXPECT_EQ(parked.remainingTimeout(), never);

        wheel->setMasterTimer();
        ASSERT_EQ(master.size(), 1u);
        // On to the wheel: armed, and no later than the remaining timer.
        EXPECT_GT(master[0], 0.0);
        EXPECT_LE(wheel->masterTimerExpiry(), later.due);

        later.delTimeout(wheel);
        wheel->setMasterTimer();
        EXPECT_EQ(master.back(), -1);
        EXPECT_EQ(wheel->masterTimerExpiry(), never);
        doLeEventLoop(1.0);
        EXPECT_TRUE(parked.lateness.empty());
        EXPECT_TRUE(later.lateness.empty());
    });
}

TEST_F(TimerWheelLibevent, MasterTimerIsReArmedOnlyForAnEarlierExpiry) {
    onLoopThread([] {
        std::vector<double> master;
        auto wheel = recordedWheel(&master);
        EXPECT_EQ(wheel->masterTimerExpiry(), never);
        EXPECT_TRUE(master.empty());

        Probe first(1), later(2), earlier(3), far(4);
        first.start(wheel, 10.0);
        ASSERT_EQ(master.size(), 1u);
        EXPECT_GT(master[0], 0.0);
        double armed = wheel->masterTimerExpiry();
        EXPECT_LE(armed, first.due);

        // The wheel's estimate for a far timer can be well before it, so the
        // next delays are taken from the master timer's armed expiry.
        later.start(wheel, armed - Velik::time() + 0.5);
        EXPECT_EQ(master.size(), 1u);
        EXPECT_EQ(wheel->masterTimerExpiry(), armed);
        earlier.start(wheel, (armed - Velik::time()) / 2);
        ASSERT_EQ(master.size(), 2u);
        EXPECT_LT(wheel->masterTimerExpiry(), armed);
        EXPECT_LE(wheel->masterTimerExpiry(), earlier.due);
        far.start(wheel, 3600.0);  // reached through several master expiries
        EXPECT_EQ(master.size(), 2u);

        doLeEventLoop(4000.0);
        for (Probe* p : {&first, &later, &earlier, &far}) {
            ASSERT_EQ(p->lateness.size(), 1u) << p->id;
            EXPECT_GE(p->lateness[0], 0.0) << p->id;
            EXPECT_LT(p->lateness[0], 0.01) << p->id;
        }
        EXPECT_EQ(master.back(), -1);
        EXPECT_EQ(wheel->masterTimerExpiry(), never);
    });
}

TEST_F(TimerWheelLibevent, TimerReleasedBeforeTheFirstParkedOneIsNotHeldBack) {
    onLoopThread([] {
        auto wheel = std::make_shared<TimerWheel>();
        Order order;
        Probe parked(1, &order), sooner(2, &order);
        moveIntoTick(0.1);
        parked.start(wheel, 0.0095);  // in the current tick: parked by the next pass
        VelikTest::loopPass();
        ASSERT_EQ(parked.state(), TimerWheelState::inTimersExpiryingSoon);
        sooner.start(wheel, 0.001);
        doLeEventLoop(1.0);
        EXPECT_EQ(order, (Order{2, 1}));
        ASSERT_EQ(sooner.lateness.size(), 1u);
        EXPECT_GE(sooner.lateness[0], 0.0);
        EXPECT_LT(sooner.lateness[0], 0.005);
    });
}

TEST_F(TimerWheelLibevent, NotificationExceptionLeavesTheLoopAndTheRestStayArmed) {
    onLoopThread([] {
        auto wheel = std::make_shared<TimerWheel>();
        Order order;
        Probe thrower(1, &order), next(2, &order);
        thrower.onExpiry = [] { throw std::runtime_error("from a timer"); };
        thrower.start(wheel, 0.1);
        next.start(wheel, 0.2);
        EXPECT_THROW(doLeEventLoop(1.0), std::runtime_error);
        EXPECT_EQ(order, (Order{1}));
        EXPECT_LT(wheel->masterTimerExpiry(), never);
        doLeEventLoop(1.0);
        EXPECT_EQ(order, (Order{1, 2}));
    });
}

TEST_F(TimerWheelLibevent, DestroyedWheelLeavesItsTimersStopped) {
    onLoopThread([] {
        Probe inWheel, parked;
        {
            auto wheel = std::make_shared<TimerWheel>();
            moveIntoTick(0.5);
            parked.start(wheel, 0.004);
            VelikTest::loopPass();
            inWheel.start(wheel, 100.0);
            ASSERT_EQ(parked.state(), TimerWheelState::inTimersExpiryingSoon);
        }
        for (Probe* p : {&inWheel, &parked}) {
            EXPECT_EQ(p->state(), TimerWheelState::notLinked);
            EXPECT_EQ(p->expirationTime(), never);
        }
    });
}

// ------------------------------------------------------------------ control

struct Handler : Platform::TimeoutHandler {
    int expiries = 0;
    bool throws = false;
    bool swallow = false;
    void timeout() override {
        ++expiries;
        if (throws) {
            throw std::runtime_error("handler");
        }
    }
    bool handleTimeoutException() override { return swallow; }
};

TEST_F(TimerWheelLibevent, TimerControlOnAWheel) {
    onLoopThread([] {
        auto wheel = getTimerWheelForTaskScheduler(Platform::eventPriorityStrictHigh);
        auto* master = dynamic_cast<LibeventTimerControl*>(wheel->masterTimer().get());
        ASSERT_NE(master, nullptr);
        EXPECT_EQ(master->priority(), Platform::eventPriorityStrictHigh);
        Handler handler;
        auto control = Platform::getTimerControl(&handler, wheel);
        auto* wheelControl = dynamic_cast<TimerWheelTimerControl*>(control.get());
        ASSERT_NE(wheelControl, nullptr);
        EXPECT_EQ(wheelControl->handler(), &handler);
        EXPECT_EQ(wheelControl->timerWheel(), wheel);
        EXPECT_EQ(control->remainingTimeout(), never);

        control->setTimeout(2.0);
        EXPECT_GT(control->remainingTimeout(), 1.9);
        EXPECT_LE(control->remainingTimeout(), 2.0);
        control->delTimeout();
        control->delTimeout();
        EXPECT_EQ(control->remainingTimeout(), never);

        control->setTimeout(0.5);
        handler.throws = true;
        handler.swallow = true;
        doLeEventLoop(1.0);  // swallowed by the handler's hook
        EXPECT_EQ(handler.expiries, 1);
        handler.swallow = false;
        control->setTimeout(0.5);
        EXPECT_THROW(doLeEventLoop(1.0), std::runtime_error);
        EXPECT_EQ(handler.expiries, 2);

        // Destroying an armed control stops its timer; the control kept the
        // wheel alive until then.
        control->setTimeout(0.5);
        std::weak_ptr<TimerWheel> weak = wheel;
        wheel.reset();
        control.reset();
        EXPECT_TRUE(weak.expired());
    });
}

TEST(TimerWheelSingleton, OnePerThreadWithThreadLocalSingletonsElseOnePerProcess) {
    std::shared_ptr<TimerWheel> processWheel = getTimerWheel();
    EXPECT_EQ(getTimerWheel(), processWheel);

    std::vector<TimerWheel*> threadWheels;
    for (int i = 0; i < 2; ++i) {
        std::thread thread([&] {
            useThreadLocalSingletons();
            // The thread's base must outlive its wheel, which goes at thread
            // exit: a thread-local made first is destroyed last.
            struct FreeBaseLast {
                ~FreeBaseLast() { leFree(); }
            };
            thread_local FreeBaseLast freeBaseLast;
            auto wheel = getTimerWheel();
            EXPECT_EQ(getTimerWheel(), wheel);
            EXPECT_NE(getTimerWheelForTaskScheduler(Platform::eventPriorityDefault), wheel);
            threadWheels.push_back(wheel.get());
        });
        thread.join();
    }
    ASSERT_EQ(threadWheels.size(), 2u);
    EXPECT_NE(threadWheels[0], processWheel.get());
    EXPECT_NE(threadWheels[1], processWheel.get());
}

}  // namespace
