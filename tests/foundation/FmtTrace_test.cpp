#include <Velik/FmtUtil.h>
#include <Velik/Fmtrace.h>
#include <Velik/KivDebug.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <fstream>
#include <new>
#include <sstream>

// Counts heap allocations made by this test program, to show which paths
// format without touching the heap.
namespace {
std::atomic<long> allocations{0};
}

void* operator new(std::size_t size) {
    ++allocations;
    if (void* p = std::malloc(size ? size : 1)) {
        return p;
    }
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept {
    std::free(p);
}
void operator delete(void* p, std::size_t) noexcept {
    std::free(p);
}

namespace {

using Fmt::Impl::MessageBuffer;

std::string build(bool withClass, const char* fn, const char* cls, fmt::string_view format,
                  fmt::format_args args) {
    MessageBuffer buffer;
    Fmt::Impl::buildMessageBuffer(buffer, withClass, fn, cls, format, args);
    return fmt::to_string(buffer);
}

TEST(MessageBuffer, ClassPrefixAndDetailedLocation) {
    int n = 7;
    EXPECT_EQ(build(true, "run", "Task", "n={}", fmt::make_format_args(n)), "Task::run() n=7");
    EXPECT_EQ(build(false, "run", nullptr, "n={}", fmt::make_format_args(n)), "n=7");
    EXPECT_EQ(
        Fmt::Impl::vformatstr("TaskCpp", 12, true, "run", "Task", "n={}", fmt::make_format_args(n)),
        "TaskCpp:12: Task::run() n=7");
    EXPECT_EQ(
        Fmt::Impl::vformatstr("TaskCpp", 12, false, "run", nullptr, "x", fmt::make_format_args()),
        "TaskCpp:12: x");
}

TEST(MessageBuffer, ReusedBufferIsEmptiedFirst) {
    MessageBuffer buffer;
    Fmt::Impl::buildMessageBuffer(buffer, false, "f", nullptr, "first", fmt::make_format_args());
    Fmt::Impl::buildMessageBuffer(buffer, false, "f", nullptr, "2nd", fmt::make_format_args());
    EXPECT_EQ(fmt::to_string(buffer), "2nd");
}

TEST(MessageBuffer, InlineBoundaryMessagesComeOutWhole) {
    for (size_t size : {499u, 500u, 501u, 5000u}) {
        std::string text(size, 'x');
        text.back() = 'E';
        EXPECT_EQ(build(false, "f", nullptr, "{}", fmt::make_format_args(text)), text) << size;
    }
}

TEST(MessageBuffer, ShortMessagesDoNotAllocate) {
    MessageBuffer buffer;
    std::string_view word = "scheduler";
    int n = 42;
    double d = 1.5;
    long before = allocations.load();
    Fmt::Impl::buildDetailedMessageBuffer(buffer, "TaskSchedulerCpp", 300, true, "pickOneTask",
                                          "TaskScheduler", "{} {} {} padding to make it longer",
                                          fmt::make_format_args(word, n, d));
    EXPECT_EQ(allocations.load(), before);
    std::string big(600, 'y');
    Fmt::Impl::buildMessageBuffer(buffer, false, "f", nullptr, "{}", fmt::make_format_args(big));
    EXPECT_GT(allocations.load(), before) << "a message past 500 bytes grows onto the heap";
}

TEST(MessageBufferDeathTest, NullClassNameIsAStandardAssertion) {
    EXPECT_DEATH(build(true, "f", nullptr, "x", fmt::make_format_args()),
                 "FmtUtilCpp:34: buildMessageBuffer: Assertion `funcName && className' failed.");
}

TEST(MessageBufferDeathTest, BadFormatTerminates) {
    std::string s = "text";
    EXPECT_DEATH(Fmt::Impl::vformatstr(false, "f", nullptr, fmt::runtime("{:d}").str,
                                       fmt::make_format_args(s)),
                 "");
    EXPECT_DEATH(QoFmt::Impl::vprint(fmt::runtime("{").str, fmt::make_format_args()), "");
}

TEST(QoFmtPrint, PrintsToStreamAndStdout) {
    testing::internal::CaptureStdout();
    QoFmt::print("{}-{}\n", 1, "two");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "1-two\n");
    testing::internal::CaptureStderr();
    QoFmt::print(stderr, "err {}\n", 3);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "err 3\n");
}

struct Point {
    int x, y;
};

}  // namespace

template <>
struct fmt::formatter<Point> {
    constexpr auto parse(fmt::format_parse_context& ctx) { return ctx.begin(); }
    auto format(const Point& p, fmt::format_context& ctx) const {
        return Fmtrace::Impl::format_to(ctx, "({},{})", p.x, p.y);
    }
};

namespace {

TEST(FmtraceFormatTo, NestedFormattingOfLibraryTypes) {
    EXPECT_EQ(fmt::format("at {} and {:>3}", Point{1, 2}, 5), "at (1,2) and   5");
}

// Trace sites, end to end through the framework trace writer into a file.
class TraceSites : public ::testing::Test {
  protected:
    static constexpr const char* traceClassName = "TraceSites";

    void SetUp() override {
        int fd = mkstemp(path_);
        ASSERT_GE(fd, 0);
        close(fd);
        setenv("TRACEFILE", path_, 1);
        setenv("TRACE", "SiteTest/5", 1);
        Velik::Platform::setTraceFormat("%f|%l|%F|%n|%m");
        handle_ = Velik::Platform::getDebugHandler("SiteTest");
    }
    void TearDown() override {
        unsetenv("TRACEFILE");
        unsetenv("TRACE");
        Velik::Platform::clearTraceFormat();
        unlink(path_);
    }
    std::string written() {
        std::ifstream in(path_);
        std::stringstream s;
        s << in.rdbuf();
        return s.str();
    }
    int sideEffect() { return ++evaluated_; }

    char path_[32] = "/tmp/velikfmtXXXXXX";
    std::shared_ptr<Velik::Platform::DebugHandler> handle_;
    int evaluated_ = 0;
};

void freeFunctionTrace(const std::shared_ptr<Velik::Platform::DebugHandler>& h) {
    VELIK_FTRACE(h, 5, "free {}", 1);
}

TEST_F(TraceSites, MemberAndFreeFormsCarryClassAndLocation) {
    VELIK_TRACE(handle_, 5, "hello {}", "world");
    freeFunctionTrace(handle_);
    EXPECT_EQ(written(),
              "SiteTest|5|FmtTrace_testCpp|TestBody|TraceSites::TestBody() hello world\n"
              "SiteTest|5|FmtTrace_testCpp|freeFunctionTrace|free 1\n");
}

TEST_F(TraceSites, DisabledLevelNeitherFormatsNorEvaluates) {
    VELIK_TRACE(handle_, 6, "never {}", sideEffect());
    VELIK_TRACE(handle_, 40, "never {}", sideEffect());
    EXPECT_EQ(evaluated_, 0);
    EXPECT_EQ(written(), "");
}

TEST_F(TraceSites, HandlersOfOneFacilityShareTheMask) {
    auto other = Velik::Platform::getDebugHandler("SiteTest");
    other->enabledIs(9, true);
    EXPECT_TRUE(handle_->enabled(9));
    VELIK_TRACE(Velik::Debuggable(handle_), 9, "via {}", "debuggable");
    other->enabledIs(9, false);
    EXPECT_FALSE(handle_->enabled(9));
    EXPECT_NE(written().find("|9|"), std::string::npos);
}

TEST_F(TraceSites, StreamDumpWritesOneLine) {
    Velik::Platform::DebugStream s;
    s << "streamed " << 3;
    handle_->dump(s, 5, "SomeCpp", 9, "fn");
    EXPECT_EQ(written(), "SiteTest|5|SomeCpp|fn|streamed 3\n");
}

}  // namespace
