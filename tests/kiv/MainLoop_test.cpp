#include "Kiv/MainLoop.h"

#include <stdexcept>
#include <string>
#include <thread>

#include "Kiv/Exception.h"
#include "kiv/KivLoop.h"

namespace {

using namespace KivTest;
using MainLoopTest = LoopTest;

TEST_F(MainLoopTest, ExecutionTimeBoundsEachRunFromItsOwnStart) {
    const double start = now();
    Timer periodic;
    periodic.action = [&] {
        EXPECT_EQ(periodic.timeMin(), kNever);  // disarmed before the call
        periodic.timeMinIs(start + 1.0 + periodic.deliveries);
    };
    periodic.timeMinIs(start + 1.0);
    config()->executionTimeIs(10);
    Kiv::System::doRun();
    EXPECT_EQ(periodic.deliveries, 10);
    EXPECT_LT(now(), start + 10.5);
    EXPECT_EQ(periodic.timeMin(), start + 11.0);
    Kiv::System::doRun();  // the limit is kept for later runs
    EXPECT_EQ(periodic.deliveries, 20);

    // Zero (or less) is a single pass, and one pass delivers only what was
    // armed before its delivery began.
    Timer deferred;
    deferred.action = [&] { deferred.timeMinIs(deferred.deliveries < 5 ? 0.0 : kNever); };
    deferred.timeMinIs(0.0);
    periodic.timeMinIs(kNever);
    config()->executionTimeIs(0);
    Kiv::System::doRun();
    Kiv::System::doRun();
    EXPECT_EQ(deferred.deliveries, 2);
}

// Real waits are in whole milliseconds; neither a delivery nor the end of the
// run may come before its time.
TEST_F(MainLoopTest, RealTimeRunNeitherDeliversNorEndsEarly) {
    config()->virtualTimeIs(false);
    const double start = now();
    double seen = 0;
    Timer far, soon([&] { seen = now(); });
    far.timeMinIs(start + 3600);
    soon.timeMinIs(start + 0.0015);
    const double due = soon.timeMin();
    config()->executionTimeIs(0.0035);
    Kiv::System::doRun();
    EXPECT_EQ(soon.deliveries, 1);
    EXPECT_GE(seen, due);
    EXPECT_GE(now(), start + 0.0035);
    EXPECT_EQ(far.deliveries, 0);
}

TEST_F(MainLoopTest, ExceptionLeavesDoRunAndTheLoopStaysUsable) {
    Timer other, later;
    Timer thrower([&] {
        other.timeMinIs(0.0);  // armed during the failing delivery
        throw std::runtime_error("boom");
    });
    thrower.timeMinIs(now() + 1);
    later.timeMinIs(now() + 2);
    EXPECT_THROW(Kiv::System::doRun(), std::runtime_error);
    EXPECT_EQ(Kiv::activityManager()->clock()->armedCount(), 2u);
    Kiv::System::doRun();
    EXPECT_EQ(thrower.deliveries, 1);
    EXPECT_EQ(other.deliveries, 1);
    EXPECT_EQ(later.deliveries, 1);
}

// A notification may run the loop again on the loop's thread; no other thread
// may enter it until the outermost run has returned.
TEST_F(MainLoopTest, OnlyTheLoopsThreadMayEnterItWhileItRuns) {
    std::string error;
    Timer inner, outer([&] {
        Kiv::System::doRun();
        std::thread([&] {
            try {
                Kiv::System::doRun();
            } catch (const Kiv::Exception& e) {
                error = e.what();
            }
        }).join();
    });
    outer.timeMinIs(now() + 1);
    inner.timeMinIs(now() + 5);
    Kiv::System::doRun();
    EXPECT_EQ(inner.deliveries, 1);
    EXPECT_EQ(error, "MainLoop::run: the main loop is already running on another thread");

    inner.timeMinIs(0.0);
    std::thread([] { Kiv::System::doRun(); }).join();
    EXPECT_EQ(inner.deliveries, 2);
}

}  // namespace
