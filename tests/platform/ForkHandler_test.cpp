#include <Velik/ForkHandler.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

using namespace Velik::Platform;

TEST(ForkHandler, ChildKnowsItForkedParentDoesNot) {
    forkedChildIs(false);
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        _exit(isForkedChild() ? 0 : 1);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_FALSE(isForkedChild());
}

TEST(ForkHandler, FlagCanBeSetAndCleared) {
    forkedChildIs(true);
    EXPECT_TRUE(isForkedChild());
    forkedChildIs(false);
    EXPECT_FALSE(isForkedChild());
    handleFork();
    EXPECT_TRUE(isForkedChild());
    forkedChildIs(false);
}

}  // namespace
