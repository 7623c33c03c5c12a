// Trace and message building: the trace controls, the message buffer and the
// trace sites, and the counters' plug-in.
#include <Velik/Counters.h>
#include <Velik/Debug.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

namespace {

using Fmt::Impl::MessageBuffer;
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

std::string build(bool withClass, const char* cls, fmt::string_view format, fmt::format_args args) {
    MessageBuffer buffer;
    Fmt::Impl::buildMessageBuffer(buffer, withClass, "f", cls, format, args);
    return fmt::to_string(buffer);
}

// The message buffer keeps short messages inline and grows past that size.
TEST(MessageBuffer, MessagesAroundTheInlineSizeComeOutWhole) {
    for (size_t size : {500u, 501u, 5000u}) {
        const std::string text = std::string(size - 1, 'x') + 'E';
        EXPECT_EQ(build(false, nullptr, "{}", fmt::make_format_args(text)), text) << size;
    }
}

TEST(MessageBufferDeathTest, NullClassNameEndsTheProcess) {
    EXPECT_DEATH(build(true, nullptr, "x", fmt::make_format_args()),
                 "FmtUtilCpp:34: buildMessageBuffer: Assertion `funcName && className' failed.");
}

constexpr const char* traceClassName = "Site";

// End to end through the framework trace writer, which writes to standard
// error by default.
TEST(TraceSites, EnabledLevelsWriteOneLineEachAndDisabledOnesEvaluateNothing) {
    setTraceFormat("%f|%l|%F|%n|%m");
    setupVelikDebug("SiteTest/5");
    auto handle = getDebugHandler("SiteTest");
    int evaluated = 0;
    testing::internal::CaptureStderr();
    VELIK_TRACE(handle, 5, "hello {}", "world");
    VELIK_TRACE(handle, 6, "never {}", ++evaluated);
    [&] { VELIK_FTRACE(handle, 5, "free {}", 1); }();
    const std::string written = testing::internal::GetCapturedStderr();
    clearVelikDebug("SiteTest");
    clearTraceFormat();
    EXPECT_EQ(evaluated, 0);
    EXPECT_EQ(written,
              "SiteTest|5|FmtTrace_testCpp|TestBody|Site::TestBody() hello world\n"
              "SiteTest|5|FmtTrace_testCpp|operator()|free 1\n");
}

}  // namespace
