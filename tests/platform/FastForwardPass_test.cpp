// Fast-forward passes with callbacks requested: such a pass runs them without
// moving virtual time, and once every request is delivered, cancelled or
// gone with its control, passes jump again.
#include "platform/LoopThread.h"
#include "platform/Recorder.h"

#include <gtest/gtest.h>

#include <stdexcept>

namespace {

using namespace Velik;
using FastForwardPass = VelikTest::LeFastForwardTest;

TEST_F(FastForwardPass, RunsRequestedCallbacksInPlaceAndJumpsOnceNoneIsLeft) {
    VelikTest::onLoopThread([] {
        VelikTest::Recorder hour, callback;
        auto timer = getLeTimerControl(&hour);
        timer->setTimeout(3600);
        auto control = getLeCallbackControl(&callback);
        double jumped = 0;
        auto passJumps = [&](bool expected) {
            eventLoopFastForwardToFirstTimer(10);
            jumped += expected ? 10 : 0;
            EXPECT_NEAR(leVirtualTimeOffset(), jumped, 1e-6);
        };

        callback.inside = [&] {
            if (callback.log.size() < 3) {
                control->requestCallback();
            }
        };
        control->requestCallback();
        control->requestCallback();  // coalesces with the first
        for (std::size_t pass = 1; pass <= 3; ++pass) {
            passJumps(false);
            EXPECT_EQ(callback.log.size(), pass);  // one delivery a pass
        }
        passJumps(true);

        control->requestCallback();
        control->cancelCallback();
        passJumps(true);

        getLeCallbackControl(&callback)->requestCallback();  // destroyed pending
        passJumps(true);

        callback.throws = true;
        control->requestCallback();
        EXPECT_THROW(eventLoopFastForwardToFirstTimer(10), std::runtime_error);
        passJumps(true);
        EXPECT_TRUE(hour.firedAt.empty());
    });
}

}  // namespace
