#include <Velik/Exception.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <future>
#include <string>
#include <thread>

#include "foundation/ThrowingAsserts.h"

namespace {

using VelikTest::assertMessageOf;

template <typename Body>
auto onNewThread(Body body) {
    return std::async(std::launch::async, body).get();
}

std::string systemThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

TEST(ThreadIdentityTest, MainThreadIsTheOneWhoseTidIsThePid) {
    EXPECT_EQ(Velik::gettid(), getpid());
    EXPECT_TRUE(Velik::isMainThread());
    const auto [tid, isMain] =
        onNewThread([] { return std::make_pair(Velik::gettid(), Velik::isMainThread()); });
    EXPECT_NE(tid, getpid());
    EXPECT_FALSE(isMain);
    EXPECT_EQ(Velik::toThreadIdString(std::thread::id()), "thread::id of a non-executing thread");
    EXPECT_EQ(Velik::toThreadIdString(std::this_thread::get_id()),
              std::to_string(static_cast<unsigned long>(pthread_self())));
}

TEST(ThreadNameTest, MainThreadKeepsItsNameOthersAreNamedUpToTheKernelLimit) {
    const std::string before = systemThreadName();
    EXPECT_EQ(Velik::threadNameIs("renamed"), before);
    EXPECT_EQ(Velik::threadName(), before);
    EXPECT_EQ(systemThreadName(), before);

    const auto [unnamed, named, system, message, cached] = onNewThread([] {
        const std::string unnamed = Velik::threadName();  // read from the system
        const std::string named = Velik::threadNameIs("fifteen-chars-x");
        const std::string system = systemThreadName();
        std::string text = assertMessageOf([] { Velik::threadNameIs("twenty-characters-xx"); });
        return std::make_tuple(unnamed, named, system, text, std::string(Velik::threadName()));
    });
    EXPECT_EQ(unnamed, before) << "a new thread inherits its creator's name";
    EXPECT_EQ(named, "fifteen-chars-x");
    EXPECT_EQ(system, "fifteen-chars-x");
    EXPECT_EQ(message, "ThreadCpp:95: Velik::threadNameIs() pthread_setname_np() failed:" +
                           std::to_string(ERANGE) + " for name:twenty-characters-xx");
    EXPECT_EQ(cached, "fifteen-chars-x");
}

TEST(ThreadLocalSingletonsTest, SwitchMustComeBeforeTheFirstQueryOfItsThread) {
    EXPECT_TRUE(onNewThread([] {
        Velik::useThreadLocalSingletons();
        Velik::useThreadLocalSingletons();
        return Velik::hasThreadLocalSingletons();
    }));
    const auto [had, message] = onNewThread([] {
        const bool had = Velik::hasThreadLocalSingletons();
        return std::make_pair(had, assertMessageOf([] { Velik::useThreadLocalSingletons(); }));
    });
    EXPECT_FALSE(had) << "the switch is per thread";
    EXPECT_EQ(message,
              "ThreadCpp:38: Velik::useThreadLocalSingletons() Attempt to change "
              "threadLocalSingletons after a global singleton has already been created. Please "
              "call useThreadLocalSingletons() immediately after spawning your thread.");
}

TEST(AuxThreadCountTest, RefusesToGoBelowZero) {
    const unsigned start = Velik::auxThreadCount();
    onNewThread([] { Velik::auxThreadCountInc(); });
    EXPECT_EQ(Velik::auxThreadCount(), start + 1) << "one count for all threads";
    Velik::auxThreadCountDec();
    if (start == 0) {
        EXPECT_NE(assertMessageOf([] {
                      Velik::auxThreadCountDec();
                  }).find("auxThreadCount decremented below zero"),
                  std::string::npos);
        Velik::auxThreadCountInc();  // undo the wrap-around
    }
    EXPECT_EQ(Velik::auxThreadCount(), start);
}

}  // namespace
