#include "foundation/ThrowingAsserts.h"
#include "platform/LoopThread.h"

#include <Velik/LibeventFactory.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cmath>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Velik;
using VelikTest::loopPass;
using VelikTest::onLoopThread;

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
    int readEnd() const { return fds[0]; }
    int writeEnd() const { return fds[1]; }
    void put(const char* text = "x") { EXPECT_GT(write(fds[1], text, strlen(text)), 0); }
};

struct FdRecorder : Platform::FdEventHandler {
    std::vector<std::string> events;
    bool throwOnRead = false;
    bool swallow = false;
    std::vector<int> exceptionFds;
    void readFdEvent(int fd) override {
        events.push_back("r" + std::to_string(fd));
        if (throwOnRead) {
            throw std::runtime_error("read failed");
        }
    }
    void writeFdEvent(int fd) override { events.push_back("w" + std::to_string(fd)); }
    bool handleFdException(int fd) override {
        exceptionFds.push_back(fd);
        return swallow;
    }
};

// ------------------------------------------------------------------ base

TEST(LibeventBase, OneLazyBasePerThread) {
    onLoopThread([] {
        EXPECT_FALSE(leInitialized());
        leInit();
        event_base* base = leEventBase();
        ASSERT_NE(base, nullptr);
        leInit();
        EXPECT_EQ(leEventBase(), base);
        leRegisterBase(base);  // the same base again is allowed
        EXPECT_FALSE(leMainThread());
        EXPECT_EQ(event_base_get_npriorities(base), 2);
        EXPECT_TRUE(event_base_get_features(base) & EV_FEATURE_ET);

        event_base* other = leCreateBase();
        std::string message = VelikTest::assertMessageOf([&] { leRegisterBase(other); });
        EXPECT_NE(message.find(fmt::format("Tried to register a base:{} but a thread_local  base "
                                           "already exists: {}",
                                           fmt::ptr(other), fmt::ptr(base))),
                  std::string::npos)
            << message;
        event_base_free(other);

        leFree();
        EXPECT_FALSE(leInitialized());
        leFree();        // harmless without a base
        leForkReinit();  // no base yet: makes one
        EXPECT_TRUE(leInitialized());
    });
    // Each thread has its own.
    onLoopThread([] { EXPECT_FALSE(leInitialized()); });
}

TEST(LibeventBase, ControlsInitialiseTheBase) {
    onLoopThread([] {
        FdRecorder handler;
        auto control = getLeFdControl(&handler);
        EXPECT_TRUE(leInitialized());
    });
}

TEST(LibeventBase, PriorityOutOfRangeAsserts) {
    onLoopThread([] {
        leInit();
        event ev;
        event_assign(&ev, leEventBase(), -1, 0, nullptr, nullptr);
        std::string message = VelikTest::assertMessageOf(
            [&] { eventPrioritySet(&ev, static_cast<Platform::EventPriority>(2)); });
        EXPECT_NE(
            message.find(fmt::format("Failed to set priority on {} to Invalid EventPriority=2 "
                                     "rc -1",
                                     fmt::ptr(&ev))),
            std::string::npos)
            << message;
    });
}

// ------------------------------------------------------------------ log bridge

TEST(LibeventLog, SeveritiesMapOntoTraceLevels) {
    Platform::setupVelikDebug("VelikLibevent/1");
    testing::internal::CaptureStderr();
    le_debug_cb(EVENT_LOG_WARN, "warning text");
    le_debug_cb(EVENT_LOG_DEBUG, "debug text");
    std::string out = testing::internal::GetCapturedStderr();
    EXPECT_NE(out.find("warning text"), std::string::npos) << out;
    EXPECT_EQ(out.find("debug text"), std::string::npos) << out;

    Platform::setupVelikDebug("VelikLibevent/9");
    testing::internal::CaptureStderr();
    le_debug_cb(EVENT_LOG_DEBUG, "debug text");
    out = testing::internal::GetCapturedStderr();
    EXPECT_NE(out.find("debug text"), std::string::npos) << out;
    Platform::clearVelikDebug("VelikLibevent");

    EXPECT_NE(VelikTest::assertMessageOf([] {
                  le_debug_cb(4, "odd");
              }).find("invalid libevent severity:4 msg:odd"),
              std::string::npos);
    EXPECT_NE(VelikTest::assertMessageOf([] { le_fatal_cb(42); }).find("libevent fatal error:42"),
              std::string::npos);
}

// ------------------------------------------------------------------ descriptors

TEST(LibeventFdControl, ReadsArePersistentWritesOneShot) {
    onLoopThread([] {
        Pipe p;
        FdRecorder handler;
        auto control = getLeFdControl(&handler);
        EXPECT_EQ(control->getFd(), -1);

        control->setFd(p.readEnd());
        p.put();
        loopPass();
        loopPass();
        loopPass();
        std::string r = "r" + std::to_string(p.readEnd());
        EXPECT_EQ(handler.events, (std::vector<std::string>{r, r, r}));

        // Write interest on the always-writable end: one delivery per request.
        handler.events.clear();
        control->setReads(false);
        control->setFd(p.writeEnd());
        control->setWrites(true);
        loopPass();
        loopPass();
        std::string w = "w" + std::to_string(p.writeEnd());
        EXPECT_EQ(handler.events, (std::vector<std::string>{w}));
        control->setWrites(true);
        loopPass();
        EXPECT_EQ(handler.events, (std::vector<std::string>{w, w}));
    });
}

TEST(LibeventFdControl, InterestWithoutDescriptorWaitsForSetFd) {
    onLoopThread([] {
        Pipe p;
        p.put();
        FdRecorder handler;
        auto control = getLeFdControl(&handler);
        control->setReads(true);
        control->setWrites(true);
        loopPass();
        EXPECT_TRUE(handler.events.empty());

        int blocking = fcntl(p.readEnd(), F_GETFL);
        ASSERT_FALSE(blocking & O_NONBLOCK);
        control->setFd(p.readEnd());
        EXPECT_TRUE(fcntl(p.readEnd(), F_GETFL) & O_NONBLOCK);
        loopPass();
        // A pipe's read end is never writable: reads only.
        EXPECT_EQ(handler.events, (std::vector<std::string>{"r" + std::to_string(p.readEnd())}));
    });
}

TEST(LibeventFdControl, ClearAndDeleteKeepTheDescriptorOpen) {
    onLoopThread([] {
        int sv[2];
        ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
        FdRecorder handler;
        auto control = getLeFdControl(&handler);
        control->setFd(sv[0]);
        ASSERT_EQ(write(sv[1], "x", 1), 1);

        control->clearEvents();
        EXPECT_EQ(control->getFd(), sv[0]);
        loopPass();
        EXPECT_TRUE(handler.events.empty());
        control->setReads(true);  // re-arms on the kept descriptor
        loopPass();
        EXPECT_EQ(handler.events.size(), 1u);

        control->delFd();
        EXPECT_EQ(control->getFd(), -1);
        EXPECT_GE(fcntl(sv[0], F_GETFL), 0);
        loopPass();
        EXPECT_EQ(handler.events.size(), 1u);
        // Interest stays recorded for the next descriptor.
        EXPECT_TRUE(std::static_pointer_cast<LibeventFdControl>(control)->readsWanted());
        close(sv[0]);
        close(sv[1]);
    });
}

TEST(LibeventFdControl, DestroyedControlDeliversNothing) {
    onLoopThread([] {
        Pipe p;
        p.put();
        FdRecorder handler;
        getLeFdControl(&handler)->setFd(p.readEnd());
        loopPass();
        EXPECT_TRUE(handler.events.empty());
    });
}

TEST(LibeventFdControl, ExceptionHook) {
    onLoopThread([] {
        Pipe p;
        p.put();
        FdRecorder handler;
        handler.throwOnRead = true;
        handler.swallow = true;
        auto control = getLeFdControl(&handler);
        control->setFd(p.readEnd());
        eventLoopTimeout(0.005);  // swallowed on every pass
        EXPECT_GE(handler.exceptionFds.size(), 2u);
        EXPECT_EQ(handler.exceptionFds.front(), p.readEnd());

        handler.swallow = false;
        handler.events.clear();
        EXPECT_THROW(eventLoopTimeout(10), std::runtime_error);
        EXPECT_EQ(handler.events.size(), 1u);  // the loop stopped at the throw
        // Reads stay armed, and the loop can be run again.
        handler.throwOnRead = false;
        loopPass();
        EXPECT_EQ(handler.events.size(), 2u);
    });
}

TEST(LibeventFdControlDeathTest, ClosedDescriptorAborts) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    EXPECT_DEATH(
        {
            FdRecorder handler;
            LibeventFdControl control(&handler);
            control.setFd(1000);
        },
        "Assertion `flags >= 0' failed");
}

// ------------------------------------------------------------------ timers

struct TimeoutRecorder : Platform::TimeoutHandler {
    std::vector<std::string>* log;
    std::string name;
    int count = 0;
    bool throwIt = false;
    bool swallow = false;
    int hooks = 0;
    std::function<void()> onTimeout;
    TimeoutRecorder(std::vector<std::string>* l, std::string n) : log(l), name(std::move(n)) {}
    void timeout() override {
        ++count;
        log->push_back(name);
        if (onTimeout) {
            onTimeout();
        }
        if (throwIt) {
            throw std::runtime_error(name);
        }
    }
    bool handleTimeoutException() override {
        ++hooks;
        return swallow;
    }
};

TEST(LibeventTimerControl, OneShotAndRemainingTime) {
    onLoopThread([] {
        std::vector<std::string> log;
        TimeoutRecorder handler(&log, "t");
        auto timer = getLeTimerControl(&handler);
        EXPECT_EQ(timer->remainingTimeout(), std::numeric_limits<double>::infinity());
        timer->delTimeout();  // harmless when not armed

        timer->setTimeout(100.25);
        double left = timer->remainingTimeout();
        EXPECT_GT(left, 100.0);
        EXPECT_LE(left, 100.25);
        timer->setTimeout(0.001);  // re-arming replaces the expiry
        EXPECT_LE(timer->remainingTimeout(), 0.001);
        usleep(2000);
        EXPECT_EQ(timer->remainingTimeout(), 0.0);  // due, but the loop has not run it

        doLeEventLoop();
        EXPECT_EQ(handler.count, 1);
        EXPECT_EQ(timer->remainingTimeout(), std::numeric_limits<double>::infinity());

        timer->setTimeout(0);
        timer->delTimeout();
        doLeEventLoop();
        EXPECT_EQ(handler.count, 1);
    });
}

TEST(LibeventTimerControl, ReArmedFromItsOwnHandler) {
    onLoopThread([] {
        std::vector<std::string> log;
        TimeoutRecorder handler(&log, "t");
        auto timer = getLeTimerControl(&handler);
        handler.onTimeout = [&] {
            if (handler.count < 5) {
                timer->setTimeout(0);
            }
        };
        timer->setTimeout(0);
        doLeEventLoop();
        EXPECT_EQ(handler.count, 5);
    });
}

TEST(LibeventTimerControl, StrictHighServedFirst) {
    onLoopThread([] {
        std::vector<std::string> log;
        TimeoutRecorder normal(&log, "default"), high(&log, "high");
        auto normalTimer = getLeTimerControl(&normal);
        auto highTimer = getLeTimerControl(&high, Platform::eventPriorityStrictHigh);
        EXPECT_EQ(std::static_pointer_cast<LibeventTimerControl>(highTimer)->priority(),
                  Platform::eventPriorityStrictHigh);
        normalTimer->setTimeout(0);
        highTimer->setTimeout(0);
        doLeEventLoop();
        EXPECT_EQ(log, (std::vector<std::string>{"high", "default"}));
    });
}

TEST(LibeventTimerControl, ExceptionHook) {
    onLoopThread([] {
        std::vector<std::string> log;
        TimeoutRecorder thrower(&log, "thrower"), other(&log, "other");
        thrower.throwIt = true;
        auto t1 = getLeTimerControl(&thrower, Platform::eventPriorityStrictHigh);
        auto t2 = getLeTimerControl(&other);

        thrower.swallow = true;
        t1->setTimeout(0);
        t2->setTimeout(0);
        doLeEventLoop();
        EXPECT_EQ(log, (std::vector<std::string>{"thrower", "other"}));
        EXPECT_EQ(thrower.hooks, 1);
        EXPECT_TRUE(std::isinf(t1->remainingTimeout()));  // not re-armed

        log.clear();
        thrower.swallow = false;
        t1->setTimeout(0);
        t2->setTimeout(0);
        try {
            doLeEventLoop();
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "thrower");
        }
        EXPECT_EQ(log, (std::vector<std::string>{"thrower"}));
        // The rest is still pending and the base still usable.
        doLeEventLoop();
        EXPECT_EQ(log, (std::vector<std::string>{"thrower", "other"}));
    });
}

// ------------------------------------------------------------------ callbacks

struct CallbackRecorder : Platform::CallbackHandler {
    int count = 0;
    int again = 0;
    bool throwIt = false;
    bool swallow = false;
    int hooks = 0;
    Platform::CallbackControl* control = nullptr;
    bool pendingInside = true;
    void callback() override {
        ++count;
        pendingInside = control->pendingCallback();
        if (again > 0) {
            --again;
            control->requestCallback();
        }
        if (throwIt) {
            throw std::logic_error("callback");
        }
    }
    bool handleCallbackException() override {
        ++hooks;
        return swallow;
    }
};

TEST(LibeventCallbackControl, RequestsCoalesceAndNeverRunSynchronously) {
    onLoopThread([] {
        CallbackRecorder handler;
        auto control = getLeCallbackControl(&handler);
        handler.control = control.get();
        EXPECT_FALSE(control->pendingCallback());
        for (int i = 0; i < 10; ++i) {
            control->requestCallback();
        }
        EXPECT_EQ(handler.count, 0);
        EXPECT_TRUE(control->pendingCallback());
        doLeEventLoop();
        EXPECT_EQ(handler.count, 1);
        EXPECT_FALSE(handler.pendingInside);
        EXPECT_FALSE(control->pendingCallback());

        control->requestCallback();
        control->cancelCallback();
        EXPECT_FALSE(control->pendingCallback());
        doLeEventLoop();
        EXPECT_EQ(handler.count, 1);
    });
}

TEST(LibeventCallbackControl, RequestFromInsideIsServedOnALaterPass) {
    onLoopThread([] {
        CallbackRecorder handler;
        auto control = getLeCallbackControl(&handler);
        handler.control = control.get();
        handler.again = 3;
        control->requestCallback();
        loopPass();
        EXPECT_EQ(handler.count, 1);
        EXPECT_TRUE(control->pendingCallback());
        doLeEventLoop();
        EXPECT_EQ(handler.count, 4);
    });
}

TEST(LibeventCallbackControl, ExceptionHookAndDestruction) {
    onLoopThread([] {
        CallbackRecorder handler;
        auto control = getLeCallbackControl(&handler);
        handler.control = control.get();
        handler.throwIt = true;
        handler.swallow = true;
        control->requestCallback();
        doLeEventLoop();
        EXPECT_EQ(handler.hooks, 1);

        handler.swallow = false;
        control->requestCallback();
        EXPECT_THROW(doLeEventLoop(), std::logic_error);
        EXPECT_EQ(handler.hooks, 2);

        control->requestCallback();
        control.reset();  // cancels
        doLeEventLoop();
        EXPECT_EQ(handler.count, 2);
    });
}

// ------------------------------------------------------------------ loops

// Events of the thread's base, libevent's own included.
int eventCount() {
    int count = 0;
    event_base_foreach_event(
        leEventBase(),
        [](const event_base*, const event*, void* n) {
            ++*static_cast<int*>(n);
            return 0;
        },
        &count);
    return count;
}

TEST(LibeventLoop, TimeoutLoopBreaksAndCleansUp) {
    onLoopThread([] {
        leInit();
        int baseline = eventCount();
        std::vector<std::string> log;
        TimeoutRecorder late(&log, "late");
        auto timer = getLeTimerControl(&late);
        timer->setTimeout(3600);
        eventLoopTimeout(0.002);
        EXPECT_TRUE(log.empty());
        // Only the hour timer is left: the break event is gone.
        EXPECT_EQ(eventCount(), baseline + 1);

        TimeoutRecorder thrower(&log, "thrower");
        thrower.throwIt = true;
        auto t2 = getLeTimerControl(&thrower);
        t2->setTimeout(0);
        EXPECT_THROW(eventLoopTimeout(3600), std::runtime_error);
        EXPECT_EQ(eventCount(), baseline + 1);
    });
}

TEST(LibeventLoop, WaitforRunsOnePass) {
    onLoopThread([] {
        CallbackRecorder handler;
        auto control = getLeCallbackControl(&handler);
        handler.control = control.get();
        handler.again = 1000000;
        control->requestCallback();
        doLeEventLoopInWaitfor(0.002);
        EXPECT_GT(handler.count, 1);
        EXPECT_TRUE(control->pendingCallback());
        control->cancelCallback();
    });
}

}  // namespace
