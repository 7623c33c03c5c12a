// How the framework loop is limited, and the framework's virtual-time switch.
#include "foundation/ThrowingAsserts.h"
#include "kiv/KivLoop.h"
#include "platform/LoopThread.h"
#include "platform/Recorder.h"

#include <Velik/PlatformSelection.h>

#include <gmock/gmock.h>

namespace {

using namespace Velik;
using KivTest::config;
using testing::MatchesRegex;

// A timed framework loop sets the execution time, which then also limits
// later untimed runs until it is changed.
TEST(FrameworkLoop, TimedLoopSetsTheExecutionTime) {
    Platform::setFastForward(true);
    VelikTest::Recorder handler;
    auto timer = Platform::getTimerControl(&handler);
    timer->setTimeout(100.0);
    const double start = Velik::time();
    Platform::doEventLoop(2.5);
    EXPECT_EQ(config()->executionTime(), 2.5);
    EXPECT_NEAR(Velik::time() - start, 2.5, 0.05);
    Platform::doEventLoop();
    EXPECT_NEAR(Velik::time() - start, 5.0, 0.1);
    EXPECT_TRUE(handler.log.empty());
    config()->executionTimeIs(KivTest::kNever);
    Platform::setFastForward(false);
}

TEST(PlatformFastForward, AssertsOnThreadLocalSingletons) {
    VelikTest::onLoopThread([] {
        EXPECT_THAT(VelikTest::assertMessageOf([] { Platform::setFastForward(true); }),
                    MatchesRegex("Platform:setFastForward:[0-9]+: ThreadLocal fastForward "
                                 "invoked from non-main thread"));
    });
    EXPECT_FALSE(config()->virtualTime());
}

}  // namespace
