// Exceptions and assertions: the exception family's texts, the assertion
// macros' messages and trace, and how an assertion ends the process.
#include <Velik/Errno.h>
#include <Velik/TypeName.h>
#include <gmock/gmock.h>

#include <thread>

#include "foundation/ChildProcess.h"
#include "foundation/ThrowingAsserts.h"

namespace {

using testing::MatchesRegex;
using VelikTest::assertMessageOf;

TEST(AssertTest, MacrosNameSourceAndFunctionAndEvaluateArgumentsOnlyOnFailure) {
    int evaluated = 0;
    VELIK_ASSERT(true, "{}", ++evaluated);
    EXPECT_EQ(evaluated, 0);
    EXPECT_THAT(assertMessageOf([] { VELIK_ASSERT(1 > 2, "n:{}", 3); }),
                MatchesRegex("Assert_testCpp:[0-9]+: n:3"));
    EXPECT_THAT(assertMessageOf([] { VELIK_ASSERT_STREAM(false, "queue " << 7 << " corrupt"); }),
                MatchesRegex("Assert_testCpp:operator\\(\\):[0-9]+: queue 7 corrupt"));
}

struct NoisyDestructor {
    ~NoisyDestructor() { std::fputs("destructor ran\n", stderr); }
};

// In a forked child, where standard error can be read whole: one abort line
// after the level-0 trace line, and no unwinding.
TEST(AssertDeathTest, AbortWritesExactlyOneLine) {
    const auto child = VelikTest::runInChild([] {
        NoisyDestructor noisy;
        Velik::Impl::assertFailed("SomeCpp", 41, false, "fn", nullptr, "broken {}", 7);
    });
    EXPECT_TRUE(WIFSIGNALED(child.status) && WTERMSIG(child.status) == SIGABRT);
    EXPECT_THAT(child.stderrText,
                MatchesRegex("[^\n]* Velik/0 [^\n]*SomeCpp:41: broken 7\n"
                             "Velik::Assert aborting because: SomeCpp:41: broken 7\n"
                             "(terminate [^\n]*\n)?"));
}

// Each class is named by its demangled type name.
template <typename... E>
void expectEachThrowsExactlyItsOwnClass() {
    const auto check = []<typename T>(T*) {
        try {
            T::throwException("why");
        } catch (const Velik::Exception& e) {
            EXPECT_EQ(typeid(e), typeid(T)) << e.msg();
            EXPECT_EQ(e.msg(), Velik::typeName(typeid(T).name()) + "(\"why\")");
            EXPECT_GT(e.backtrace().count(), 0u) << e.msg();
        }
    };
    (check(static_cast<E*>(nullptr)), ...);
}

// The message is quoted as it is; what() adds the backtrace, taken in the
// constructor, once.
TEST(ExceptionTest, EachClassThrowsItselfWithItsMessageAndBacktrace) {
    EXPECT_EQ(Velik::Exception("say \"hi\"", false).msg(), "Velik::Exception(\"say \"hi\"\")");
    Velik::RuntimeException e("x");
    const char* first = e.what();
    EXPECT_EQ(std::string(first), "Velik::RuntimeException(\"x\")\n" + e.backtrace().pretty());
    EXPECT_EQ(e.what(), first);           // cached, not rebuilt
    VelikTest::ThrowingAsserts throwing;  // AssertException throws only then
    expectEachThrowsExactlyItsOwnClass<
        Velik::Exception, Velik::MemoryResourceException, Velik::NoPermissionException,
        Velik::UnimplementedException, Velik::InvalidInitializeException, Velik::RuntimeException,
        Velik::OutOfRangeException, Velik::CorruptionDetectedException, Velik::InvalidSizeException,
        Velik::AssertException>();
}

TEST(StrerrorTest, GivesTheSystemTextLeavesErrnoAloneAndKeepsABufferPerThread) {
    for (int callers : {0, EBADF}) {
        errno = callers;
        EXPECT_STREQ(Velik::strerror(EINVAL), "Invalid argument");
        EXPECT_EQ(errno, callers);
    }
    const char* mine = Velik::strerror(-1);
    std::thread([] { EXPECT_STREQ(Velik::strerror(888888), "Unknown error 888888"); }).join();
    EXPECT_STREQ(mine, "Unknown error -1");
}

}  // namespace
