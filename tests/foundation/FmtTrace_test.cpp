#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <gtest/gtest.h>

#include "support/CountingAllocator.h"

namespace {

using Fmt::Impl::MessageBuffer;

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
    using namespace Velik::Platform;
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
