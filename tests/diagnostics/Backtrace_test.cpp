#include <Velik/Backtrace.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <future>
#include <sstream>
#include <string>

namespace {

using testing::internal::RE;
using Velik::Backtrace;

// Keeps the recursion from being folded into a loop or a tail call.
__attribute__((noinline)) uint32_t framesAtDepth(int depth) {
    if (depth > 0) {
        const uint32_t count = framesAtDepth(depth - 1);
        asm volatile("" ::: "memory");
        return count;
    }
    return Backtrace(true).count();
}

__attribute__((noinline)) void* firstFrameHere(Backtrace& backtrace) {
    backtrace.unwind();
    asm volatile("" ::: "memory");
    return backtrace.frames()[0];
}

TEST(BacktraceTest, WalkStartsAtTheCallersReturnPointAndStopsAtOneHundredFrames) {
    Backtrace backtrace(false);
    const char* frame = static_cast<const char*>(firstFrameHere(backtrace));
    const char* function = reinterpret_cast<const char*>(&firstFrameHere);
    EXPECT_GT(frame, function);
    EXPECT_LT(frame, function + 256);
    EXPECT_EQ(framesAtDepth(150), Backtrace::maxFrames);
    const uint32_t shallow = framesAtDepth(10);
    EXPECT_GT(shallow, 10u);
    EXPECT_LT(shallow, Backtrace::maxFrames);
}

TEST(BacktraceTest, CaptureRecordsTheCapturingThread) {
    const auto [tid, captured] = std::async(std::launch::async, [] {
                                     return std::make_pair(Velik::gettid(), Backtrace(true).tid());
                                 }).get();
    EXPECT_EQ(captured, tid);
    EXPECT_NE(captured, Velik::gettid());
}

TEST(BacktraceTest, PrettyHasAHeaderAndOneResolvedLinePerFrame) {
    EXPECT_EQ(Backtrace(false).pretty(), "Timestamp:inf tid:" + std::to_string(Velik::gettid()) +
                                             " Backtrace:\nNo backtrace available\n");
    Backtrace here(true);
    std::istringstream in(here.pretty());
    std::string line;
    std::getline(in, line);
    EXPECT_TRUE(RE::FullMatch(line, RE("Timestamp:[0-9.e+]+ tid:[0-9]+ Backtrace:"))) << line;
    // The innermost frame is the library's constructor, named as the loader
    // knows it: mangled.
    std::ostringstream first;
    first << ".*libKivVelik\\.so.*\\(_ZN5Velik9BacktraceC.*\\+0x[0-9a-f]+\\)\\[" << here.frames()[0]
          << "\\]";
    std::getline(in, line);
    EXPECT_TRUE(RE::FullMatch(line, RE(first.str()))) << line;
    uint32_t lines = 1;
    for (; std::getline(in, line); ++lines) {
        EXPECT_TRUE(RE::FullMatch(line, RE("(.*\\(.*\\+0x[0-9a-f]+\\))?\\[0x[0-9a-f]+\\]")))
            << line;
    }
    EXPECT_EQ(lines, here.count());
}

TEST(BacktraceTest, OnlyAVerbosityOfExactlyZeroSilences) {
    const char* variable = "VELIK_BACKTRACE_VERBOSITY";
    unsetenv(variable);
    EXPECT_EQ(Backtrace::verbosity(), 1);
    const std::pair<const char*, int> cases[] = {{"", 1}, {"00", 1}, {"1", 1}, {"0 ", 1}, {"0", 0}};
    for (const auto& [value, verbosity] : cases) {
        setenv(variable, value, 1);
        EXPECT_EQ(Backtrace::verbosity(), verbosity) << '"' << value << '"';
    }
    unsetenv(variable);
}

}  // namespace
