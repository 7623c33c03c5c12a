// What the framework-backed controls do beyond the shared contract: their
// trace lines, their default interest, and the lifetimes of handlers that
// drop their control from inside a notification.
#include <Velik/Debug.h>
#include <Velik/KivPlatform.h>
#include <Velik/PlatformSelection.h>

#include <Kiv/ActivityManager.h>

#include "platform/Pipe.h"

#include <gtest/gtest.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace {

using namespace Velik;

// A pipe with a byte waiting.
struct Pipe : VelikTest::Pipe {
    Pipe() { put(); }
};

// Throws from every notification; every hook swallows.
struct Thrower : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
    int hooks = 0;
    void readFdEvent(int) override { throw std::runtime_error("read"); }
    void writeFdEvent(int) override { throw std::runtime_error("write"); }
    void timeout() override { throw std::runtime_error("timeout"); }
    void callback() override { throw std::runtime_error("callback"); }
    bool handleFdException(int) override { return ++hooks > 0; }
    bool handleTimeoutException() override { return ++hooks > 0; }
    bool handleCallbackException() override { return ++hooks > 0; }
};

// One pass of the framework loop.
void pass() {
    Platform::doEventLoop(0.0);
}

class KivPlatformTest : public testing::Test {
  protected:
    void SetUp() override { Platform::setTraceFormat("%f/%l %F:%n: %m"); }
    void TearDown() override {
        Platform::clearTraceFormat();
        Kiv::activityManager()->config()->executionTimeIs(std::numeric_limits<double>::infinity());
    }

    // Runs `body` with "KivVelik" at `levels`; the lines of `expected` that
    // the trace lacks.
    template <typename Body>
    static std::string missing(const char* levels, Body&& body,
                               const std::vector<std::string>& expected) {
        Platform::setupVelikDebug(levels);
        testing::internal::CaptureStderr();
        body();
        std::string out = testing::internal::GetCapturedStderr();
        Platform::clearVelikDebug("KivVelik");
        std::string lacking;
        for (const std::string& line : expected) {
            if (out.find(line + "\n") == std::string::npos) {
                lacking += line + "\n";
            }
        }
        return lacking.empty() ? lacking : lacking + "in:\n" + out;
    }
};

TEST_F(KivPlatformTest, DescriptorLinesAndHandledExceptions) {
    Pipe p;
    Thrower handler;
    auto control = Platform::getFdControl(&handler);
    std::string r = std::to_string(p.fds[0]), w = std::to_string(p.fds[1]);
    EXPECT_EQ(missing("KivVelik/5",
                      [&] {
                          control->setReads(true);
                          control->setFd(p.fds[0]);
                          pass();
                          control->setReads(false);
                          control->setFd(p.fds[1]);
                          control->setWrites(true);
                          pass();
                          control->clearEvents();
                          control->delFd();
                      },
                      {"KivVelik/5 Platform:setReads: FileDescriptor::setReads() true",
                       "KivVelik/5 Platform:setFd: FileDescriptor::setFd() registering fd:" + r,
                       "FileDescriptor::Notifiee::onReadableCount() fd:" + r + " readableCount:1",
                       "KivVelik/5 Platform:onReadableCount: FileDescriptor::onReadableCount: Fd "
                       "notification exception was handled",
                       "FileDescriptor::Notifiee::onWritableCount() fd:" + w + " writableCount:1",
                       "KivVelik/5 Platform:onWritableCount: FileDescriptor::onWritableCount: Fd "
                       "notification exception was handled",
                       "FileDescriptor::clearEvents() fd:" + w,
                       "FileDescriptor::delFd() deleting fd:" + w}),
              "");
    EXPECT_EQ(handler.hooks, 2);
}

// The handled-exception lines of timers and callbacks are fine detail, at
// level 9 only.
TEST_F(KivPlatformTest, TimerAndCallbackHandledLinesAreFineDetail) {
    Thrower handler;
    auto timer = Platform::getTimerControl(&handler);
    auto callback = Platform::getCallbackControl(&handler);
    auto deliverBoth = [&] {
        timer->setTimeout(0.0);
        callback->requestCallback();
        pass();
    };
    const std::string timerLine =
        "KivVelik/9 Platform:onTime: ClockTimer::Notifiee::onTime: Timeout notification "
        "exception was handled";
    const std::string callbackLine =
        "KivVelik/9 Platform:timeout: Callback::timeout: Callback notification exception was "
        "handled";
    EXPECT_EQ(missing("KivVelik/5", deliverBoth,
                      {"KivVelik/5 Platform:requestCallback: Callback::requestCallback() request"}),
              "");
    EXPECT_NE(missing("KivVelik/8", deliverBoth, {timerLine}), "");
    EXPECT_EQ(handler.hooks, 4);
    EXPECT_EQ(missing("KivVelik/9", deliverBoth, {timerLine, callbackLine}), "");
}

// Handlers own their controls and may drop them from inside a throwing
// notification; nothing of a destroyed control may be touched afterwards.
struct SelfDropping : Platform::FdEventHandler,
                      Platform::TimeoutHandler,
                      Platform::CallbackHandler {
    std::shared_ptr<Platform::FdControl> fd = Platform::getFdControl(this);
    std::shared_ptr<Platform::TimerControl> timer = Platform::getTimerControl(this);
    std::shared_ptr<Platform::CallbackControl> control = Platform::getCallbackControl(this);
    std::vector<int> hookFds;
    int hooks = 0;
    void readFdEvent(int) override {
        fd.reset();
        throw std::runtime_error("reader gone");
    }
    void writeFdEvent(int) override {}
    void timeout() override {
        timer.reset();
        throw std::runtime_error("timer gone");
    }
    void callback() override {
        control.reset();
        throw std::runtime_error("callback gone");
    }
    bool handleFdException(int fd) override {
        hookFds.push_back(fd);
        return true;
    }
    bool handleTimeoutException() override { return ++hooks, false; }
    bool handleCallbackException() override { return ++hooks, false; }
};

// A new fd control wants nothing until asked.
TEST_F(KivPlatformTest, ControlsDroppedInsideThrowingNotifications) {
    Pipe p;
    SelfDropping handler;
    handler.fd->setFd(p.fds[0]);
    pass();
    EXPECT_EQ(Kiv::activityManager()->mainLoop()->watchedCount(), 0u);
    handler.fd->setReads(true);
    pass();
    EXPECT_EQ(handler.hookFds, (std::vector<int>{p.fds[0]}));
    EXPECT_FALSE(handler.fd);
    pass();  // detached by the destruction: nothing more
    EXPECT_EQ(handler.hookFds.size(), 1u);

    handler.control->requestCallback();
    EXPECT_THROW(pass(), std::runtime_error);
    EXPECT_FALSE(handler.control);
    EXPECT_EQ(handler.hooks, 1);  // the callback hook, asked before the control went
    handler.timer->setTimeout(0.0);
    try {
        pass();
        ADD_FAILURE() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "timer gone");
    }
    EXPECT_FALSE(handler.timer);
    pass();  // the loop is still usable
}

}  // namespace
