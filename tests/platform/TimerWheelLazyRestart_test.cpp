// Restarts that read no clock: their expiry comes from a reading taken after
// the call, never from an earlier one, and before fast-forward jumps.
#include "platform/LoopThread.h"

#include <Velik/LibeventFactory.h>
#include <Velik/Time.h>
#include <Velik/TimerWheel.h>

#include <gtest/gtest.h>

#include <memory>
#include <vector>

namespace {

using namespace Velik;

struct Stamp : TimerWheelEvent {
    std::vector<double> at;
    void timeout() override { at.push_back(Velik::time()); }
};

struct Call : Platform::TimeoutHandler {
    std::function<void()> body;
    void timeout() override { body(); }
};

class TimerWheelLazyRestart : public VelikTest::LeFastForwardTest {};

// Five seconds after the wheel last read the clock, timers filed for 9 s
// are pushed back to 10 s: delivered 10 s after the call, not after the
// wheel's older reading and not after a jump. One then brought forward to
// 1 s is moved; one stopped and destroyed leaves nothing behind.
TEST_F(TimerWheelLazyRestart, ExpiryCountsFromTheCall) {
    VelikTest::onLoopThread([] {
        auto wheel = std::make_shared<TimerWheel>();
        Stamp later, forward;
        auto gone = std::make_unique<Stamp>();
        for (Stamp* s : {&later, &forward, gone.get()}) {
            s->setTimeout(wheel, 9.0);
        }
        double called = 0.0;
        Call call;
        call.body = [&] {
            called = Velik::time();
            for (Stamp* s : {&later, &forward, gone.get()}) {
                s->setTimeout(wheel, 10.0);
                EXPECT_TRUE(s->awaitingReading());
            }
            EXPECT_EQ(wheel->restartsAwaitingReading(), 3u);
            forward.setTimeout(wheel, 1.0);
            EXPECT_GE(gone->expirationTime(), called + 10.0);  // settles itself, stays listed
            gone->delTimeout(wheel);
            gone.reset();
            EXPECT_EQ(wheel->restartsAwaitingReading(), 0u);
            later.setTimeout(wheel, 10.0);
        };
        auto trigger = getLeTimerControl(&call);
        trigger->setTimeout(5.0);
        doLeEventLoop(30.0);
        ASSERT_GE(called, 5.0);
        ASSERT_EQ(later.at.size(), 1u);
        EXPECT_GE(later.at[0], called + 10.0);
        EXPECT_LT(later.at[0], called + 10.05);
        ASSERT_EQ(forward.at.size(), 1u);
        EXPECT_GE(forward.at[0], called + 1.0);
        EXPECT_LT(forward.at[0], called + 1.05);
    });
}

}  // namespace
