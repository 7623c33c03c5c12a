#include <Velik/Counters.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::string pluginLog() {
    auto* log = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "velikTestCountersLog"));
    return log ? log() : "<no plug-in>";
}

TEST(CountersTest, WithThePluginGroupsAndRegistersCounters) {
    uint64_t value = 5;
    Velik::Counters counters("sched");
    ASSERT_NE(counters.plugin(), nullptr) << "the test plug-in directory is on LD_LIBRARY_PATH";
    counters.counter("runs", &value);
    EXPECT_EQ(value, 1005u) << "the plug-in was handed the caller's variable";
    Velik::Counters unnamed(nullptr);
    EXPECT_EQ(unnamed.plugin(), counters.plugin()) << "loaded once per process";
    EXPECT_EQ(pluginLog(), "group:sched;counter:runs;");
}

// Without the plug-in on the search path: run in a child re-executed with an
// empty LD_LIBRARY_PATH, since the dynamic loader reads it only at start-up.
TEST(CountersTest, WithoutThePluginNothingHappens) {
    if (getenv("VELIK_COUNTERS_CHILD")) {
        uint64_t value = 5;
        Velik::Counters counters("g");
        counters.counter("c", &value);
        EXPECT_EQ(counters.plugin(), nullptr);
        EXPECT_EQ(value, 5u);
        return;
    }
    pid_t pid = fork();
    ASSERT_GE(pid, 0);
    if (pid == 0) {
        setenv("VELIK_COUNTERS_CHILD", "1", 1);
        setenv("LD_LIBRARY_PATH", "", 1);
        execl("/proc/self/exe", "counters-child",
              "--gtest_filter=CountersTest.WithoutThePluginNothingHappens", (char*)nullptr);
        _exit(127);
    }
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << status;
}

}  // namespace
