// What the framework-backed controls do beyond the shared contract: their
// trace lines and the lifetimes of handlers that drop their control from
// inside a notification.
#include <Velik/Debug.h>
#include <Velik/KivPlatform.h>
#include <Velik/PlatformSelection.h>

#include <Kiv/ActivityManager.h>

#include <gtest/gtest.h>
#include <unistd.h>

#include <limits>
#include <stdexcept>
#include <string>

namespace {

using namespace Velik;

constexpr double never = std::numeric_limits<double>::infinity();

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
};

// Throws from every notification; `swallow` answers every hook.
struct Thrower : Platform::FdEventHandler, Platform::TimeoutHandler, Platform::CallbackHandler {
    bool swallow = true;
    int hooks = 0;
    void readFdEvent(int) override { throw std::runtime_error("read"); }
    void writeFdEvent(int) override { throw std::runtime_error("write"); }
    void timeout() override { throw std::runtime_error("timeout"); }
    void callback() override { throw std::runtime_error("callback"); }
    bool handleFdException(int) override { return ++hooks, swallow; }
    bool handleTimeoutException() override { return ++hooks, swallow; }
    bool handleCallbackException() override { return ++hooks, swallow; }
};

// One pass of the framework loop.
void pass() {
    Platform::doEventLoop(0.0);
}

class KivPlatformTest : public testing::Test {
  protected:
    void SetUp() override { Platform::setTraceFormat("%f/%l %F:%n: %m"); }
    void TearDown() override {
        Platform::clearVelikDebug("KivVelik");
        Platform::clearTraceFormat();
        Kiv::activityManager()->config()->executionTimeIs(never);
    }

    // Runs `body` with "KivVelik" at `levels`, returning the trace written.
    template <typename Body>
    static std::string traced(const char* levels, Body&& body) {
        Platform::setupVelikDebug(levels);
        testing::internal::CaptureStderr();
        body();
        std::string out = testing::internal::GetCapturedStderr();
        Platform::clearVelikDebug("KivVelik");
        return out;
    }
};

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST_F(KivPlatformTest, DescriptorLinesAndHandledExceptions) {
    Pipe p;
    ASSERT_EQ(write(p.fds[1], "x", 1), 1);
    Thrower handler;
    auto control = Platform::getFdControl(&handler);
    std::string out = traced("KivVelik/5", [&] {
        control->setReads(true);
        control->setFd(p.fds[0]);
        pass();
        control->setReads(false);
        control->setFd(p.fds[1]);
        control->setWrites(true);
        pass();
        control->clearEvents();
        control->delFd();
    });
    std::string r = std::to_string(p.fds[0]), w = std::to_string(p.fds[1]);
    EXPECT_TRUE(contains(out, "KivVelik/5 Platform:setReads: FileDescriptor::setReads() true\n"))
        << out;
    EXPECT_TRUE(contains(
        out, "KivVelik/5 Platform:setFd: FileDescriptor::setFd() registering fd:" + r + "\n"))
        << out;
    EXPECT_TRUE(
        contains(out, "FileDescriptor::Notifiee::onReadableCount() fd:" + r + " readableCount:1\n"))
        << out;
    EXPECT_TRUE(contains(out,
                         "KivVelik/5 Platform:onReadableCount: FileDescriptor::onReadableCount: "
                         "Fd notification exception was handled\n"))
        << out;
    EXPECT_TRUE(
        contains(out, "FileDescriptor::Notifiee::onWritableCount() fd:" + w + " writableCount:1\n"))
        << out;
    EXPECT_TRUE(contains(out,
                         "KivVelik/5 Platform:onWritableCount: FileDescriptor::onWritableCount: "
                         "Fd notification exception was handled\n"))
        << out;
    EXPECT_TRUE(contains(out, "FileDescriptor::clearEvents() fd:" + w + "\n")) << out;
    EXPECT_TRUE(contains(out, "FileDescriptor::delFd() deleting fd:" + w + "\n")) << out;
    EXPECT_EQ(handler.hooks, 2);
}

TEST_F(KivPlatformTest, TimerAndCallbackHandledLinesAreFineDetail) {
    Thrower handler;
    auto timer = Platform::getTimerControl(&handler);
    auto callback = Platform::getCallbackControl(&handler);
    auto deliverBoth = [&] {
        timer->setTimeout(0.0);
        callback->requestCallback();
        pass();
    };
    std::string routine = traced("KivVelik/5", deliverBoth);
    EXPECT_TRUE(contains(routine,
                         "KivVelik/5 Platform:requestCallback: Callback::requestCallback() "
                         "request\n"))
        << routine;
    EXPECT_FALSE(contains(routine, "exception was handled")) << routine;
    EXPECT_EQ(handler.hooks, 2);

    std::string detail = traced("KivVelik/9", deliverBoth);
    EXPECT_TRUE(contains(detail,
                         "KivVelik/9 Platform:onTime: ClockTimer::Notifiee::onTime: Timeout "
                         "notification exception was handled\n"))
        << detail;
    EXPECT_TRUE(contains(detail,
                         "KivVelik/9 Platform:timeout: Callback::timeout: Callback notification "
                         "exception was handled\n"))
        << detail;
}

// Handlers own their controls and may drop them from inside a notification;
// nothing of a destroyed control may be touched afterwards.
struct SelfDropping : Platform::TimeoutHandler, Platform::CallbackHandler {
    std::shared_ptr<Platform::TimerControl> timer = Platform::getTimerControl(this);
    std::shared_ptr<Platform::CallbackControl> control = Platform::getCallbackControl(this);
    int hooks = 0;
    void timeout() override {
        timer.reset();
        throw std::runtime_error("timer gone");
    }
    void callback() override {
        control.reset();
        throw std::runtime_error("callback gone");
    }
    bool handleTimeoutException() override { return ++hooks, false; }
    bool handleCallbackException() override { return ++hooks, false; }
};

TEST_F(KivPlatformTest, ControlDroppedInsideAThrowingNotification) {
    SelfDropping handler;
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

struct DroppingReader : Platform::FdEventHandler {
    std::shared_ptr<Platform::FdControl> control = Platform::getFdControl(this);
    std::vector<int> hookFds;
    void readFdEvent(int) override {
        control.reset();
        throw std::runtime_error("reader gone");
    }
    void writeFdEvent(int) override {}
    bool handleFdException(int fd) override {
        hookFds.push_back(fd);
        return true;
    }
};

TEST_F(KivPlatformTest, FdControlDroppedInsideAThrowingRead) {
    Pipe p;
    ASSERT_EQ(write(p.fds[1], "x", 1), 1);
    DroppingReader handler;
    handler.control->setReads(true);
    handler.control->setFd(p.fds[0]);
    pass();
    EXPECT_EQ(handler.hookFds, (std::vector<int>{p.fds[0]}));
    pass();  // detached by the destruction: nothing more
    EXPECT_EQ(handler.hookFds.size(), 1u);
}

TEST_F(KivPlatformTest, NewFdControlWantsNothingUntilAsked) {
    Pipe p;
    ASSERT_EQ(write(p.fds[1], "x", 1), 1);
    DroppingReader handler;
    handler.control->setFd(p.fds[0]);
    pass();
    EXPECT_TRUE(handler.hookFds.empty());
    EXPECT_EQ(Kiv::activityManager()->mainLoop()->watchedCount(), 0u);
}

}  // namespace
