// The control contract, held against both platform families: the same test
// bodies run on the framework platform (on the main test thread, driven by
// the framework's main loop under virtual time) and on the libevent platform
// (on a thread with thread-local singletons, under libevent fast-forward).
// Every control comes from the platform factories.
#include "platform/LoopThread.h"

#include <Velik/FastForward.h>
#include <Velik/PlatformSelection.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>

#include <Kiv/ActivityManager.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <functional>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace Velik;
using Platform::doEventLoop;

constexpr double never = std::numeric_limits<double>::infinity();

enum class Family { framework, libevent };

// One loop pass that delivers what is ready now, and nothing later.
void pass() {
    if (hasThreadLocalSingletons()) {
        VelikTest::loopPass();
    } else {
        doEventLoop(0.0);
    }
}

// Runs the loop until it has nothing left to do; only for events that are
// all due at once (libevent does not fast-forward past its first timer here).
void runUntilIdle() {
    if (!hasThreadLocalSingletons()) {
        Kiv::activityManager()->config()->executionTimeIs(never);
    }
    doEventLoop();
}

class PlatformContract : public testing::TestWithParam<Family> {
  protected:
    // Virtual time is switched by the main thread for either family.
    void SetUp() override {
        if (framework()) {
            Platform::setFastForward(true);
        } else {
            setLeFastForward(true);
        }
    }
    void TearDown() override {
        if (framework()) {
            Platform::setFastForward(false);
            Kiv::activityManager()->config()->executionTimeIs(never);
        } else {
            setLeFastForward(false);
        }
    }

    bool framework() const { return GetParam() == Family::framework; }

    void run(const std::function<void()>& body) {
        if (framework()) {
            ASSERT_FALSE(hasThreadLocalSingletons());
            body();
        } else {
            VelikTest::onLoopThread(body);
        }
    }
};

INSTANTIATE_TEST_SUITE_P(Families, PlatformContract,
                         testing::Values(Family::framework, Family::libevent),
                         [](const testing::TestParamInfo<Family>& info) {
                             return info.param == Family::framework ? "Framework" : "Libevent";
                         });

// ------------------------------------------------------------------ descriptors

struct Pipe {
    int fds[2];
    Pipe() { EXPECT_EQ(pipe(fds), 0); }
    ~Pipe() {
        close(fds[0]);
        close(fds[1]);
    }
    int readEnd() const { return fds[0]; }
    int writeEnd() const { return fds[1]; }
    void put() { EXPECT_EQ(write(fds[1], "x", 1), 1); }
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

TEST_P(PlatformContract, ReadsArePersistentWritesOneShot) {
    run([] {
        Pipe p;
        FdRecorder handler;
        auto control = Platform::getFdControl(&handler);
        EXPECT_EQ(control->getFd(), -1);
        control->setReads(true);
        control->setFd(p.readEnd());
        p.put();
        pass();
        pass();
        pass();
        std::string r = "r" + std::to_string(p.readEnd());
        EXPECT_EQ(handler.events, (std::vector<std::string>{r, r, r}));

        // Binding the always-writable end replaces the read end; one
        // delivery per request.
        handler.events.clear();
        control->setReads(false);
        control->setFd(p.writeEnd());
        control->setWrites(true);
        pass();
        pass();
        std::string w = "w" + std::to_string(p.writeEnd());
        EXPECT_EQ(handler.events, (std::vector<std::string>{w}));
        control->setWrites(true);
        pass();
        EXPECT_EQ(handler.events, (std::vector<std::string>{w, w}));
        control->setWrites(true);
        control->setWrites(false);  // withdrawn before the loop saw it
        pass();
        EXPECT_EQ(handler.events.size(), 2u);
    });
}

// Interest waits for a descriptor; clearing keeps the descriptor, deleting
// forgets it, and destroying a bound control detaches it: none closes it.
TEST_P(PlatformContract, BindingClearingDeletingAndDestroying) {
    run([] {
        Pipe p;
        p.put();
        FdRecorder handler;
        auto control = Platform::getFdControl(&handler);
        control->setReads(true);
        control->setWrites(true);
        pass();
        EXPECT_TRUE(handler.events.empty());
        ASSERT_FALSE(fcntl(p.readEnd(), F_GETFL) & O_NONBLOCK);
        control->setFd(p.readEnd());
        EXPECT_TRUE(fcntl(p.readEnd(), F_GETFL) & O_NONBLOCK);
        pass();
        // A pipe's read end is never writable: reads only.
        EXPECT_EQ(handler.events, (std::vector<std::string>{"r" + std::to_string(p.readEnd())}));

        control->clearEvents();
        EXPECT_EQ(control->getFd(), p.readEnd());
        pass();
        EXPECT_EQ(handler.events.size(), 1u);
        control->setReads(true);  // re-arms on the kept descriptor
        pass();
        EXPECT_EQ(handler.events.size(), 2u);
        control->delFd();
        EXPECT_EQ(control->getFd(), -1);
        pass();
        control->setReads(true);
        control->setFd(p.readEnd());
        control.reset();
        pass();
        EXPECT_EQ(handler.events.size(), 2u);
        EXPECT_GE(fcntl(p.readEnd(), F_GETFL), 0);
    });
}

TEST_P(PlatformContract, FdExceptionHook) {
    run([] {
        Pipe p;
        p.put();
        FdRecorder handler;
        handler.throwOnRead = true;
        handler.swallow = true;
        auto control = Platform::getFdControl(&handler);
        control->setReads(true);
        control->setFd(p.readEnd());
        pass();
        pass();
        EXPECT_EQ(handler.exceptionFds, (std::vector<int>{p.readEnd(), p.readEnd()}));

        handler.swallow = false;
        handler.events.clear();
        EXPECT_THROW(doEventLoop(10.0), std::runtime_error);
        EXPECT_EQ(handler.events.size(), 1u);  // the loop stopped at the throw
        EXPECT_EQ(handler.exceptionFds.size(), 3u);
        // Reads stay armed, and the loop runs again.
        handler.throwOnRead = false;
        pass();
        EXPECT_EQ(handler.events.size(), 2u);
    });
}

// ------------------------------------------------------------------ timers

struct TimeoutRecorder : Platform::TimeoutHandler {
    TimeoutRecorder(std::vector<std::string>* l, std::string n) : log(l), name(std::move(n)) {}
    std::vector<std::string>* log;
    std::string name;
    std::vector<double> firedAt;  // Velik::time() at each expiry
    bool throwIt = false;
    bool swallow = false;
    int hooks = 0;
    std::function<void()> onTimeout;
    int count() const { return static_cast<int>(firedAt.size()); }
    void timeout() override {
        firedAt.push_back(Velik::time());
        log->push_back(name);
        if (onTimeout) {
            onTimeout();
        }
        if (throwIt) {
            throw std::runtime_error(name);
        }
    }
    bool handleTimeoutException() override { return ++hooks, swallow; }
};

TEST_P(PlatformContract, TimerIsOneShotAndReportsWhatRemains) {
    run([] {
        std::vector<std::string> log;
        TimeoutRecorder handler(&log, "t");
        auto timer = Platform::getTimerControl(&handler);
        EXPECT_EQ(timer->remainingTimeout(), never);
        timer->delTimeout();  // harmless when not armed

        timer->setTimeout(100.25);
        EXPECT_GT(timer->remainingTimeout(), 100.2);
        EXPECT_LE(timer->remainingTimeout(), 100.25);
        timer->setTimeout(-1.0);  // already past: due, and nothing remains
        EXPECT_EQ(timer->remainingTimeout(), 0.0);

        double armedAt = Velik::time();
        timer->setTimeout(3600.0);  // re-arming replaces the expiry
        doEventLoop(7200.0);
        ASSERT_EQ(handler.count(), 1);
        EXPECT_GE(handler.firedAt[0] - armedAt, 3600.0);
        EXPECT_LT(handler.firedAt[0] - armedAt, 3600.5);
        EXPECT_EQ(timer->remainingTimeout(), never);
        doEventLoop(7200.0);  // one shot: nothing more
        EXPECT_EQ(handler.count(), 1);

        timer->setTimeout(1.0);
        timer->delTimeout();
        doEventLoop(10.0);
        EXPECT_EQ(handler.count(), 1);
    });
}

TEST_P(PlatformContract, TimerReArmedFromItsOwnHandler) {
    run([] {
        std::vector<std::string> log;
        TimeoutRecorder handler(&log, "t");
        auto timer = Platform::getTimerControl(&handler);
        handler.onTimeout = [&] {
            EXPECT_EQ(timer->remainingTimeout(), never);  // disarmed before the call
            if (handler.count() < 5) {
                timer->setTimeout(0.5);
            }
        };
        timer->setTimeout(0.5);
        doEventLoop(60.0);
        ASSERT_EQ(handler.count(), 5);
        for (int i = 1; i < 5; ++i) {
            EXPECT_NEAR(handler.firedAt[i] - handler.firedAt[i - 1], 0.55, 0.051) << i;
        }
    });
}

TEST_P(PlatformContract, TimerExceptionHook) {
    run([] {
        std::vector<std::string> log;
        TimeoutRecorder thrower(&log, "thrower"), other(&log, "other");
        thrower.throwIt = true;
        auto t1 = Platform::getTimerControl(&thrower);
        auto t2 = Platform::getTimerControl(&other);

        thrower.swallow = true;
        t1->setTimeout(1.0);
        t2->setTimeout(2.0);
        doEventLoop(10.0);
        EXPECT_EQ(log, (std::vector<std::string>{"thrower", "other"}));
        EXPECT_EQ(thrower.hooks, 1);
        EXPECT_EQ(t1->remainingTimeout(), never);  // not re-armed

        log.clear();
        thrower.swallow = false;
        t1->setTimeout(1.0);
        t2->setTimeout(2.0);
        try {
            doEventLoop(10.0);
            ADD_FAILURE() << "no exception";
        } catch (const std::runtime_error& e) {
            EXPECT_STREQ(e.what(), "thrower");
        }
        EXPECT_EQ(log, (std::vector<std::string>{"thrower"}));
        EXPECT_EQ(thrower.hooks, 2);
        // The other timer is still armed and the loop still usable.
        EXPECT_LT(t2->remainingTimeout(), 2.0);
        doEventLoop(10.0);
        EXPECT_EQ(log, (std::vector<std::string>{"thrower", "other"}));
    });
}

// ------------------------------------------------------------------ callbacks

struct CallbackRecorder : Platform::CallbackHandler {
    int count = 0;
    int again = 0;  // requests to make from inside
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
    bool handleCallbackException() override { return ++hooks, swallow; }
};

// Requests coalesce into one delivery on a later pass, never from inside the
// request; one made from inside the callback is served on a later pass.
TEST_P(PlatformContract, CallbackRequestsCoalesceAndNeverRunSynchronously) {
    run([] {
        CallbackRecorder handler;
        auto control = Platform::getCallbackControl(&handler);
        handler.control = control.get();
        EXPECT_FALSE(control->pendingCallback());
        for (int i = 0; i < 10; ++i) {
            control->requestCallback();
        }
        EXPECT_EQ(handler.count, 0);
        EXPECT_TRUE(control->pendingCallback());
        runUntilIdle();
        EXPECT_EQ(handler.count, 1);
        EXPECT_FALSE(handler.pendingInside);
        EXPECT_FALSE(control->pendingCallback());

        control->requestCallback();
        control->cancelCallback();
        EXPECT_FALSE(control->pendingCallback());
        runUntilIdle();
        EXPECT_EQ(handler.count, 1);

        handler.again = 3;
        control->requestCallback();
        pass();
        EXPECT_EQ(handler.count, 2);
        EXPECT_TRUE(control->pendingCallback());
        runUntilIdle();
        EXPECT_EQ(handler.count, 5);
    });
}

TEST_P(PlatformContract, CallbackExceptionHookAndDestruction) {
    run([] {
        CallbackRecorder handler;
        auto control = Platform::getCallbackControl(&handler);
        handler.control = control.get();
        handler.throwIt = true;
        handler.swallow = true;
        control->requestCallback();
        runUntilIdle();
        EXPECT_EQ(handler.hooks, 1);

        handler.swallow = false;
        handler.again = 1;  // asks again, then throws
        control->requestCallback();
        EXPECT_THROW(runUntilIdle(), std::logic_error);
        EXPECT_EQ(handler.hooks, 2);
        EXPECT_EQ(handler.count, 2);
        EXPECT_TRUE(control->pendingCallback());  // the request survives the throw

        control.reset();  // cancels
        runUntilIdle();
        EXPECT_EQ(handler.count, 2);
    });
}

}  // namespace
