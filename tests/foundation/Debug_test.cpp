#include <Velik/Counters.h>
#include <Velik/Debug.h>
#include <Velik/KivDebug.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

using namespace Velik::Platform;

TEST(TraceControls, SetupAndClearAppendToTraceAndTheMapListsTheSettingsInOrder) {
    unsetenv("TRACE");
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
    EXPECT_STREQ(getenv("TRACE"), "CtlTest/2,CtlTest2,-CtlTest,-CtlTest2,-");
    testing::internal::CaptureStdout();
    dumpVelikDebugMap();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "CtlTest/2\nCtlTest2\n-CtlTest\n-CtlTest2\n");
    unsetenv("TRACE");
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
    counters.counter("runs", &value);
    Velik::Counters unnamed(nullptr);
    EXPECT_EQ(value, 1005u) << "the plug-in was handed the caller's variable";
    auto log = reinterpret_cast<const char* (*)()>(dlsym(RTLD_DEFAULT, "velikTestCountersLog"));
    ASSERT_NE(log, nullptr) << "the test plug-in directory is on LD_LIBRARY_PATH";
    EXPECT_TRUE(std::string(log()).ends_with("group:sched;counter:runs;")) << log();
}

}  // namespace
