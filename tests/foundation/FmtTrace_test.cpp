// Trace and message building: the trace controls, the message buffer and the
// trace sites, and the handles the counters and debuggables take.
#include <Velik/Counters.h>
#include <Velik/Debug.h>
#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/KivDebug.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include "support/CountingAllocator.h"

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

std::string build(bool withClass, const char* cls, fmt::string_view format, fmt::format_args args) {
    MessageBuffer buffer;
    Fmt::Impl::buildMessageBuffer(buffer, withClass, "f", cls, format, args);
    return fmt::to_string(buffer);
}

TEST(MessageBuffer, MessagesAroundTheInlineSizeComeOutWholeAndShortOnesStayOffTheHeap) {
    for (size_t size : {499u, 500u, 501u, 5000u}) {
        const std::string text = std::string(size - 1, 'x') + 'E';
        EXPECT_EQ(build(false, nullptr, "{}", fmt::make_format_args(text)), text) << size;
    }
    MessageBuffer buffer;
    Fmt::Impl::buildMessageBuffer(buffer, false, "f", nullptr, "first", fmt::make_format_args());
    std::string_view word = "scheduler";
    int n = 42;
    VelikTest::AllocationLog log;
    Fmt::Impl::buildDetailedMessageBuffer(buffer, "TaskSchedulerCpp", 300, true, "pickOneTask",
                                          "TaskScheduler", "{} {} padding to make it longer",
                                          fmt::make_format_args(word, n));
    EXPECT_EQ(log.count(), 0u);
    EXPECT_EQ(fmt::to_string(buffer),
              "TaskSchedulerCpp:300: TaskScheduler::pickOneTask() scheduler 42 padding to make it "
              "longer");
}

TEST(MessageBufferDeathTest, NullClassNameAndBadFormatsEndTheProcess) {
    EXPECT_DEATH(build(true, nullptr, "x", fmt::make_format_args()),
                 "FmtUtilCpp:34: buildMessageBuffer: Assertion `funcName && className' failed.");
    std::string s = "text";
    EXPECT_DEATH(Fmt::Impl::vformatstr(false, "f", nullptr, fmt::runtime("{:d}").str,
                                       fmt::make_format_args(s)),
                 "");
    EXPECT_DEATH(QoFmt::Impl::vprint(fmt::runtime("{").str, fmt::make_format_args()), "");
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
