#include <Velik/Exception.h>
#include <Velik/Thread.h>

#include <Kiv/Ptr.h>
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
    EXPECT_GT(tid, 0);
    EXPECT_FALSE(isMain);
}

TEST(ThreadIdentityTest, ThreadIdTextIsTheStandardForm) {
    EXPECT_EQ(Velik::toThreadIdString(std::thread::id()), "thread::id of a non-executing thread");
    EXPECT_EQ(Velik::toThreadIdString(std::this_thread::get_id()),
              std::to_string(static_cast<unsigned long>(pthread_self())));
}

TEST(ThreadNameTest, MainThreadKeepsItsName) {
    const std::string before = Velik::threadName();
    EXPECT_EQ(before, systemThreadName());
    EXPECT_EQ(std::string(Velik::threadNameIs("renamed")), before);
    EXPECT_EQ(std::string(Velik::threadName()), before);
    EXPECT_EQ(systemThreadName(), before);
}

TEST(ThreadNameTest, OtherThreadsAreNamedAndCached) {
    const auto [returned, cached, system] = onNewThread([] {
        std::string set = Velik::threadNameIs("fifteen-chars-x");
        return std::make_tuple(set, std::string(Velik::threadName()), systemThreadName());
    });
    EXPECT_EQ(returned, "fifteen-chars-x");
    EXPECT_EQ(cached, "fifteen-chars-x");
    EXPECT_EQ(system, "fifteen-chars-x");
}

TEST(ThreadNameTest, UnnamedThreadReadsTheSystemName) {
    const auto [name, system] = onNewThread(
        [] { return std::make_pair(std::string(Velik::threadName()), systemThreadName()); });
    EXPECT_FALSE(name.empty());
    EXPECT_EQ(name, system);
}

TEST(ThreadNameTest, NameTheSystemRefusesAsserts) {
    const auto [message, cached] = onNewThread([] {
        Velik::threadNameIs("short");
        std::string text = assertMessageOf([] { Velik::threadNameIs("twenty-characters-xx"); });
        return std::make_pair(text, std::string(Velik::threadName()));
    });
    EXPECT_EQ(message, "ThreadCpp:95: Velik::threadNameIs() pthread_setname_np() failed:" +
                           std::to_string(ERANGE) + " for name:twenty-characters-xx");
    EXPECT_EQ(cached, "short");
}

TEST(ThreadLocalSingletonsTest, SwitchBeforeTheFirstQuerySucceeds) {
    const auto [first, second] = onNewThread([] {
        Velik::useThreadLocalSingletons();
        Velik::useThreadLocalSingletons();  // twice is harmless
        const bool a = Velik::hasThreadLocalSingletons();
        Velik::useThreadLocalSingletons();  // still harmless once switched
        return std::make_pair(a, Velik::hasThreadLocalSingletons());
    });
    EXPECT_TRUE(first);
    EXPECT_TRUE(second);
}

TEST(ThreadLocalSingletonsTest, SwitchAfterAQueryAsserts) {
    const auto [before, message] = onNewThread([] {
        const bool had = Velik::hasThreadLocalSingletons();
        return std::make_pair(had, assertMessageOf([] { Velik::useThreadLocalSingletons(); }));
    });
    EXPECT_FALSE(before);
    EXPECT_EQ(message,
              "ThreadCpp:38: Velik::useThreadLocalSingletons() Attempt to change "
              "threadLocalSingletons after a global singleton has already been created. Please "
              "call useThreadLocalSingletons() immediately after spawning your thread.");
}

TEST(ThreadLocalSingletonsTest, SwitchIsPerThread) {
    onNewThread([] { Velik::useThreadLocalSingletons(); });
    EXPECT_FALSE(onNewThread([] { return Velik::hasThreadLocalSingletons(); }));
}

TEST(ThreadSafePointerTest, ForwardsToTheFrameworksPointers) {
    ASSERT_TRUE(Kiv::threadSafePointers());
    Velik::threadSafePointerIs(false);
    EXPECT_FALSE(Kiv::threadSafePointers());
    Velik::threadSafePointerIs(true);
    EXPECT_TRUE(Kiv::threadSafePointers());
}

TEST(AuxThreadCountTest, CountsUpAndDownAndRefusesToGoNegative) {
    const unsigned start = Velik::auxThreadCount();
    Velik::auxThreadCountInc();
    onNewThread([] { Velik::auxThreadCountInc(); });
    EXPECT_EQ(Velik::auxThreadCount(), start + 2);
    Velik::auxThreadCountDec();
    Velik::auxThreadCountDec();
    EXPECT_EQ(Velik::auxThreadCount(), start);
    if (start == 0) {
        const std::string message = assertMessageOf([] { Velik::auxThreadCountDec(); });
        EXPECT_NE(message.find("auxThreadCount decremented below zero"), std::string::npos);
        Velik::auxThreadCountInc();  // undo the wrap-around
        EXPECT_EQ(Velik::auxThreadCount(), 0u);
    }
}

}  // namespace
