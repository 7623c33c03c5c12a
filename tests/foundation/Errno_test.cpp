#include <Velik/Errno.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <thread>

namespace {

TEST(StrerrorTest, GivesTheSystemTextAndLeavesErrnoAlone) {
    errno = 0;
    EXPECT_STREQ(Velik::strerror(EINVAL), "Invalid argument");
    EXPECT_EQ(errno, 0);

    errno = EBADF;
    EXPECT_STREQ(Velik::strerror(ENOENT), "No such file or directory");
    EXPECT_EQ(errno, EBADF);
}

TEST(StrerrorTest, UnknownValuesAreFormattedNotAsserted) {
    errno = EAGAIN;
    EXPECT_STREQ(Velik::strerror(123456), "Unknown error 123456");
    EXPECT_STREQ(Velik::strerror(-1), "Unknown error -1");
    EXPECT_EQ(errno, EAGAIN);
}

TEST(StrerrorTest, EachThreadHasItsOwnBuffer) {
    // Unknown values are formatted into the per-thread buffer, so another
    // thread's call must not overwrite this thread's text.
    const char* mine = Velik::strerror(777777);
    std::string theirs;
    const char* theirPointer = nullptr;
    std::thread other([&] {
        theirPointer = Velik::strerror(888888);
        theirs = theirPointer;
    });
    other.join();
    EXPECT_STREQ(mine, "Unknown error 777777");
    EXPECT_EQ(theirs, "Unknown error 888888");
    EXPECT_NE(static_cast<const void*>(mine), static_cast<const void*>(theirPointer));
}

}  // namespace
