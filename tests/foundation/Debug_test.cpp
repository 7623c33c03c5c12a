#include <Velik/Debug.h>
#include <Velik/KivDebug.h>
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

TEST_F(TraceControls, SetupAppendsToTrace) {
    setupVelikDebug("X");
    EXPECT_EQ(env("TRACE"), "X");
    setupVelikDebug("Y/1-2");
    EXPECT_EQ(env("TRACE"), "X,Y/1-2");
    setupVelikDebug(nullptr);
    EXPECT_EQ(env("TRACE"), "X,Y/1-2");
}

TEST_F(TraceControls, SetupSwitchesFacilitiesOnAndClearOff) {
    auto h = getDebugHandler("CtlTest");
    setupVelikDebug("CtlTest/2,CtlTest2");
    EXPECT_TRUE(h->enabled(2));
    EXPECT_FALSE(h->enabled(3));
    clearVelikDebug("CtlTest,CtlTest2");
    EXPECT_EQ(env("TRACE"), "CtlTest/2,CtlTest2,-CtlTest,-CtlTest2");
    EXPECT_FALSE(h->enabled(2));
    clearVelikDebug(nullptr);
    EXPECT_EQ(env("TRACE"), "CtlTest/2,CtlTest2,-CtlTest,-CtlTest2");
}

TEST(TraceSpecNegation, DashBeforeEveryItem) {
    EXPECT_EQ(negateTraceSpec("A,B"), "-A,-B");
    EXPECT_EQ(negateTraceSpec("A/1-3"), "-A/1-3");
    EXPECT_EQ(negateTraceSpec(""), "-");
}

TEST_F(TraceControls, EmptyClearIsHarmless) {
    setupVelikDebug("Z");
    clearVelikDebug("");
    EXPECT_EQ(env("TRACE"), "Z,-");
    EXPECT_TRUE(getDebugHandler("Z")->enabled(0));
}

TEST_F(TraceControls, TraceFormatSetAndCleared) {
    setTraceFormat(nullptr);
    EXPECT_EQ(env("TRACEFORMAT"), "<unset>");
    setTraceFormat("%m");
    EXPECT_EQ(env("TRACEFORMAT"), "%m");
    setTraceFormat("%f %m");
    EXPECT_EQ(env("TRACEFORMAT"), "%f %m");
    clearTraceFormat();
    EXPECT_EQ(env("TRACEFORMAT"), "");
}

TEST_F(TraceControls, DebugMapListsSettingsInOrder) {
    setupVelikDebug("MapB/1,MapA");
    clearVelikDebug("MapB");
    testing::internal::CaptureStdout();
    dumpVelikDebugMap();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "MapB/1\nMapA\n-MapB\n");
}

TEST(DebuggableTest, SharesHandlersAndRejectsUnownedOnes) {
    auto h = getDebugHandler("Dbg");
    Velik::Debuggable a(h);
    Velik::Debuggable b(*h);
    EXPECT_EQ(b.debugHandler(), h);
    Velik::Debuggable c;
    EXPECT_EQ(c.debugHandler(), nullptr);
    c = a;
    EXPECT_EQ(c.debugHandler(), h);
    EXPECT_EQ(Velik::Debuggable("Dbg").debugHandler()->name(), "Dbg");

    KivVelik::KivDebug unowned("Dbg");
    EXPECT_THROW(Velik::Debuggable{unowned}, std::bad_weak_ptr);
}

TEST(DefaultHandle, IsTheVelikFacility) {
    ASSERT_NE(Velik::VELIK_DEFAULT_HANDLE, nullptr);
    EXPECT_EQ(Velik::VELIK_DEFAULT_HANDLE->name(), "Velik");
}

}  // namespace
