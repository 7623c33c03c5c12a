#include "Kiv/MainLoop.h"

#include <thread>

#include "Kiv/Exception.h"
#include "kiv/KivLoop.h"

namespace {

using namespace KivTest;
using MainLoopTest = LoopTest;

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
