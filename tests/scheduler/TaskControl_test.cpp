// Task-backed controls: the control contract through tasks of the thread's
// root, on both platforms under virtual time; what differs from the platform
// controls (handlers run as tasks, `clearEvents` forgets the descriptor).
#include <Velik/PlatformSelection.h>
#include <Velik/TaskControl.h>
#include <Velik/Thread.h>

#include "platform/Families.h"
#include "platform/Pipe.h"
#include "scheduler/SchedulerFixture.h"

#include <unistd.h>

namespace {

using namespace Velik;
using Platform::doEventLoop;

// A few loop passes: the notification, then the task run it queued.
void passes() {
    for (int i = 0; i < 3; ++i) {
        hasThreadLocalSingletons() ? VelikTest::loopPass() : doEventLoop(0.0);
    }
}

// Logs each notification with the task it ran in; throws when asked, and
// every hook answers `swallow`.
struct Recorder : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
    std::shared_ptr<TaskSchedulerRoot> root = schedulerRootVelik();
    std::vector<std::string> log;
    bool throws = false, swallow = false;
    int hooks = 0;

    void note(const std::string& what) {
        const TaskImpl* running = root->currentlyRunningTask();
        log.push_back(what + "@" + (running ? running->taskName().str() : "loop"));
        if (throws) {
            throw std::runtime_error(what);
        }
    }
    void readFdEvent(int fd) override {
        char c;
        (void)!read(fd, &c, 1);
        note("r");
    }
    void writeFdEvent(int) override { note("w"); }
    void timeout() override { note("t"); }
    void callback() override { note("c"); }
    bool handleFdException(int) override { return ++hooks, swallow; }
    bool handleTimeoutException() override { return ++hooks, swallow; }
    bool handleCallbackException() override { return ++hooks, swallow; }
};

using TaskControl = VelikTest::FamilyTest;

// Each control's handler runs in a task named after the control, and what
// it throws goes to its hook or out of the loop; the rest of the contract is
// the task's own.
TEST_P(TaskControl, HandlersRunAsTasksNamedAfterTheirControls) {
    run([] {
        Recorder handler;
        auto timer = Platform::getTimerControl(&handler, handler.root, TaskPriority::low, "retry");
        timer->setTimeout(2.0);
        doEventLoop(5.0);
        // An expiry whose run is still queued is taken back by delTimeout.
        timer->setTimeout(1.0);
        doEventLoop(0.0);
        timer->delTimeout();
        doEventLoop(3.0);

        auto callback =
            Platform::getCallbackControl(&handler, handler.root, TaskPriority::high, "cb");
        callback->requestCallback();
        doEventLoop();
        callback->requestCallback();
        callback->cancelCallback();
        doEventLoop();

        VelikTest::Pipe pipe;
        auto fd = Platform::getFdControl(&handler, handler.root, TaskPriority::normal, "pipe");
        fd->setReads(true);
        fd->setFd(pipe.fds[0]);
        pipe.put();
        passes();
        EXPECT_EQ(handler.log, (std::vector<std::string>{"t@retry", "c@cb", "r@pipe:read"}));
        fd->clearEvents();  // forgets the descriptor, unlike the platform's controls
        EXPECT_EQ(fd->getFd(), -1);

        // The exception contract holds through the task run.
        handler.throws = handler.swallow = true;
        timer->setTimeout(1.0);
        callback->requestCallback();
        doEventLoop(2.0);
        EXPECT_EQ(handler.hooks, 2);
        handler.swallow = false;
        callback->requestCallback();
        EXPECT_THROW(doEventLoop(2.0), std::runtime_error);
        EXPECT_EQ(handler.hooks, 3);
    });
}

INSTANTIATE_TEST_SUITE_P(BothPlatforms, TaskControl,
                         testing::Values(VelikTest::Family::framework, VelikTest::Family::libevent),
                         VelikTest::familyName);

}  // namespace
