// A fast-forward pass with a callback requested runs it without moving
// virtual time; once every request is delivered, cancelled, gone with its
// control or ended by a throw, passes jump again.
#include "platform/LoopThread.h"
#include "platform/Recorder.h"

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
        auto pass = [&](double jump) {
            eventLoopFastForwardToFirstTimer(10);
            EXPECT_NEAR(leVirtualTimeOffset(), jumped += jump, 1e-6);
        };
        callback.inside = [&] {
            if (callback.log.size() < 3) {
                control->requestCallback();
            }
        };
        control->requestCallback();
        control->requestCallback();  // coalesces with the first
        for (std::size_t runs = 1; runs <= 3; ++runs) {
            pass(0);
            EXPECT_EQ(callback.log.size(), runs);  // one delivery a pass
        }
        pass(10);
        control->requestCallback();
        control->cancelCallback();
        pass(10);
        getLeCallbackControl(&callback)->requestCallback();  // destroyed pending
        pass(10);
        callback.throws = true;
        control->requestCallback();
        EXPECT_THROW(eventLoopFastForwardToFirstTimer(10), std::runtime_error);
        pass(10);
    });
}

}  // namespace
