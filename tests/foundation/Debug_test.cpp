#include <Velik/Counters.h>
#include <Velik/Debug.h>
#include <Velik/KivDebug.h>
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <stdlib.h>

namespace {

using namespace Velik::Platform;

std::string env(const char* name) {
    const char* v = getenv(name);
    return v ? v : "<unset>";
}

class TraceControls : public ::testing::Test {
  protected:
    void SetUp() override {
        unsetenv("TRACE");
        unsetenv("TRACEFORMAT");
    }
    void TearDown() override { SetUp(); }
};

TEST_F(TraceControls, SetupAndClearAppendToTraceAndTheMapListsTheSettingsInOrder) {
    auto h = getDebugHandler("CtlTest");
    setupVelikDebug("CtlTest/2");
    setupVelikDebug("CtlTest2");
    setupVelikDebug(nullptr);
    EXPECT_TRUE(h->enabled(2));
    EXPECT_FALSE(h->enabled(3));
    clearVelikDebug("CtlTest,CtlTest2");
    clearVelikDebug(nullptr);
    EXPECT_FALSE(h->enabled(2));
    clearVelikDebug("");
    EXPECT_EQ(env("TRACE"), "CtlTest/2,CtlTest2,-CtlTest,-CtlTest2,-");
    testing::internal::CaptureStdout();
    dumpVelikDebugMap();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "CtlTest/2\nCtlTest2\n-CtlTest\n-CtlTest2\n");
}

TEST(DebuggableTest, HandlerNotOwnedBySharedPointerIsRefused) {
    auto h = getDebugHandler("Dbg");
    EXPECT_EQ(Velik::Debuggable(*h).debugHandler(), h);
    KivVelik::KivDebug unowned("Dbg");
    EXPECT_THROW(Velik::Debuggable{unowned}, std::bad_weak_ptr);
}

// The plug-in's log only grows, so each run checks its end.
TEST(CountersTest, WithThePluginGroupsAndRegistersCounters) {
    uint64_t value = 5;
    Velik::Counters counters("sched");
    ASSERT_NE(counters.plugin(), nullptr) << "the test plug-in directory is on LD_LIBRARY_PATH";
    counters.counter("runs", &value);
    Velik::Counters unnamed(nullptr);
    EXPECT_EQ(value, 1005u) << "the plug-in was handed the caller's variable";
    auto log = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "velikTestCountersLog"));
    ASSERT_NE(log, nullptr);
    EXPECT_TRUE(std::string(log()).ends_with("group:sched;counter:runs;")) << log();
}

// The dynamic loader reads LD_LIBRARY_PATH only at start-up: the child is
// executed afresh with an empty one.
TEST(CountersDeathTest, WithoutThePluginNothingHappens) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* path = getenv("LD_LIBRARY_PATH");
    const std::string saved = path ? path : "";
    setenv("LD_LIBRARY_PATH", "", 1);
    EXPECT_EXIT(
        {
            uint64_t value = 5;
            Velik::Counters counters("g");
            counters.counter("c", &value);
            std::exit(counters.plugin() == nullptr && value == 5 ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), "");
    path ? setenv("LD_LIBRARY_PATH", saved.c_str(), 1) : unsetenv("LD_LIBRARY_PATH");
}

}  // namespace
