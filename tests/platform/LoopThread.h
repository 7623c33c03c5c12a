// Runs a test body on a fresh thread that uses thread-local singletons, as
// libevent-platform threads do: its own event base (freed at thread exit,
// after the thread's root) and a virtual time offset of zero.
#pragma once

#include <Velik/FastForward.h>
#include <Velik/LibeventFactory.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <thread>

namespace VelikTest {

inline void onLoopThread(const std::function<void()>& body) {
    std::exception_ptr failure;
    std::thread thread([&] {
        Velik::useThreadLocalSingletons();
        try {
            body();
        } catch (...) {
            failure = std::current_exception();
        }
    });
    thread.join();
    if (failure) {
        std::rethrow_exception(failure);
    }
}

// One non-blocking pass of the thread's loop.
inline void loopPass() {
    event_base_loop(Velik::leEventBase(), EVLOOP_ONCE | EVLOOP_NONBLOCK);
}

// A fixture for libevent fast-forward, which only the main thread switches.
class LeFastForwardTest : public testing::Test {
  protected:
    void SetUp() override { Velik::setLeFastForward(true); }
    void TearDown() override { Velik::setLeFastForward(false); }
};

}  // namespace VelikTest
