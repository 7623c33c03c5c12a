#include <Velik/Thread.h>

#include <gtest/gtest.h>
#include <pthread.h>

#include <cerrno>
#include <future>

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

TEST(ThreadTest, MainThreadKeepsItsNameOthersAreNamedUpToTheKernelLimit) {
    const std::string main = systemThreadName();
    EXPECT_EQ(Velik::threadNameIs("renamed"), main);
    EXPECT_EQ(systemThreadName(), main);
    const auto [inherited, named, system, message] = onNewThread([] {
        const std::string inherited = Velik::threadName();  // read from the system
        Velik::threadNameIs("fifteen-chars-x");
        std::string text = assertMessageOf([] { Velik::threadNameIs("twenty-characters-xx"); });
        return std::make_tuple(inherited, std::string(Velik::threadName()), systemThreadName(),
                               text);
    });
    EXPECT_EQ(inherited, main);
    EXPECT_EQ(named, "fifteen-chars-x");
    EXPECT_EQ(system, "fifteen-chars-x");
    EXPECT_EQ(message, "ThreadCpp:95: Velik::threadNameIs() pthread_setname_np() failed:" +
                           std::to_string(ERANGE) + " for name:twenty-characters-xx");
}

TEST(ThreadTest, ThreadLocalSingletonsMustBeChosenBeforeTheFirstQueryOfTheThread) {
    EXPECT_TRUE(onNewThread([] {
        Velik::useThreadLocalSingletons();
        Velik::useThreadLocalSingletons();
        return Velik::hasThreadLocalSingletons();
    }));
    EXPECT_EQ(onNewThread([] {
                  EXPECT_FALSE(Velik::hasThreadLocalSingletons()) << "the choice is per thread";
                  return assertMessageOf([] { Velik::useThreadLocalSingletons(); });
              }),
              "ThreadCpp:38: Velik::useThreadLocalSingletons() Attempt to change "
              "threadLocalSingletons after a global singleton has already been created. Please "
              "call useThreadLocalSingletons() immediately after spawning your thread.");
}

}  // namespace
