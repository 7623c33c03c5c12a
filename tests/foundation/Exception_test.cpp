#include <Velik/Errno.h>
#include <Velik/Exception.h>
#include <Velik/TypeName.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <thread>

#include "foundation/ThrowingAsserts.h"

namespace {

TEST(ExceptionTest, MsgQuotesTheMessageAndWhatAddsTheBacktraceOnce) {
    EXPECT_EQ(Velik::Exception("say \"hi\"", false).msg(), "Velik::Exception(\"say \"hi\"\")");
    Velik::RuntimeException e("x");
    const char* first = e.what();
    EXPECT_EQ(std::string(first), "Velik::RuntimeException(\"x\")\n" + e.backtrace().pretty());
    EXPECT_EQ(e.what(), first);  // cached, not rebuilt
    // Taken in the constructor: the innermost frame is the exception's own.
    EXPECT_NE(e.backtrace().pretty().find("(_ZN5Velik9ExceptionC"), std::string::npos)
        << e.backtrace().pretty();
}

// Each class is named by its demangled type name.
template <typename... E>
void expectEachThrowsExactlyItsOwnClass() {
    const auto check = []<typename T>(T*) {
        const std::string name = Velik::typeName(typeid(T).name());
        try {
            T::throwException("why");
        } catch (const Velik::Exception& e) {
            EXPECT_EQ(typeid(e), typeid(T)) << name;
            EXPECT_EQ(e.msg(), name + "(\"why\")");
            EXPECT_GT(e.backtrace().count(), 0u) << name;
        }
    };
    (check(static_cast<E*>(nullptr)), ...);
}

TEST(ExceptionTest, EachThrowExceptionThrowsExactlyItsOwnClass) {
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
    std::string theirs;
    std::thread([&] { theirs = Velik::strerror(888888); }).join();
    EXPECT_STREQ(mine, "Unknown error -1");
    EXPECT_EQ(theirs, "Unknown error 888888");
}

}  // namespace
