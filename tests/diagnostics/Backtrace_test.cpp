#include <Velik/Backtrace.h>
#include <Velik/Thread.h>
#include <Velik/Time.h>

#include <gtest/gtest.h>

#include <cstdlib>
#include <future>
#include <optional>
#include <sstream>
#include <string>

namespace {

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

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

TEST(BacktraceTest, WithoutCaptureThereIsNothingAndNoTime) {
    Backtrace empty(false);
    EXPECT_EQ(empty.count(), 0u);
    EXPECT_EQ(empty.tid(), Velik::gettid());
    EXPECT_EQ(empty.pretty(), "Timestamp:inf tid:" + std::to_string(Velik::gettid()) +
                                  " Backtrace:\nNo backtrace available\n");
}

TEST(BacktraceTest, DeepStacksAreCutAtOneHundredFrames) {
    EXPECT_EQ(framesAtDepth(150), Backtrace::maxFrames);
    const uint32_t shallow = framesAtDepth(10);
    EXPECT_GT(shallow, 10u);
    EXPECT_LT(shallow, Backtrace::maxFrames);
}

TEST(BacktraceTest, FirstFrameIsTheReturnPointInTheCaller) {
    Backtrace backtrace(false);
    const char* frame = static_cast<const char*>(firstFrameHere(backtrace));
    const char* function = reinterpret_cast<const char*>(&firstFrameHere);
    EXPECT_GT(frame, function);
    EXPECT_LT(frame, function + 256);
}

TEST(BacktraceTest, CaptureStampsTimeAndThread) {
    const double before = Velik::time();
    Backtrace here(true);
    const double after = Velik::time();
    EXPECT_GE(here.timestamp(), before);
    EXPECT_LE(here.timestamp(), after);
    EXPECT_EQ(here.tid(), Velik::gettid());

    const auto [tid, captured] = std::async(std::launch::async, [] {
                                     Backtrace there(true);
                                     return std::make_pair(Velik::gettid(), there.tid());
                                 }).get();
    EXPECT_EQ(captured, tid);
    EXPECT_NE(captured, Velik::gettid());
}

TEST(BacktraceTest, PrettyListsOneResolvedLinePerFrame) {
    Backtrace here(true);
    const auto lines = linesOf(here.pretty());
    ASSERT_EQ(lines.size(), here.count() + 1);
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        lines[0], testing::internal::RE("Timestamp:[0-9.e+]+ tid:[0-9]+ Backtrace:")))
        << lines[0];
    for (size_t i = 1; i < lines.size(); ++i) {
        EXPECT_TRUE(testing::internal::RE::FullMatch(
            lines[i], testing::internal::RE("(.*\\(.*\\+0x[0-9a-f]+\\))?\\[0x[0-9a-f]+\\]")))
            << lines[i];
    }
    // The innermost frame is the library's constructor, exported and so named,
    // mangled as the loader knows it.
    EXPECT_NE(lines[1].find("libKivVelik.so"), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("(_ZN5Velik9BacktraceC"), std::string::npos) << lines[1];
    std::ostringstream address;
    address << "[" << here.frames()[0] << "]";
    EXPECT_NE(lines[1].find(address.str()), std::string::npos) << lines[1];
}

TEST(TrackedBacktraceTest, ToStringIsMessageThenBacktrace) {
    Backtrace here(true);
    Velik::TrackedBacktrace tracked("disk full", here);
    EXPECT_EQ(tracked.message(), "disk full");
    EXPECT_EQ(tracked.backtrace().count(), here.count());
    EXPECT_EQ(tracked.toString(), "Exception message:disk full\n" + here.pretty());
}

class VerbosityTest : public testing::Test {
  protected:
    void SetUp() override {
        if (const char* value = std::getenv(variable)) {
            saved_ = value;
        }
    }
    void TearDown() override {
        if (saved_) {
            setenv(variable, saved_->c_str(), 1);
        } else {
            unsetenv(variable);
        }
    }
    static constexpr const char* variable = "VELIK_BACKTRACE_VERBOSITY";

  private:
    std::optional<std::string> saved_;
};

TEST_F(VerbosityTest, OnlyExactlyZeroSilences) {
    unsetenv(variable);
    EXPECT_EQ(Backtrace::verbosity(), 1);
    for (const char* loud : {"", "00", "1", "0 ", "no"}) {
        setenv(variable, loud, 1);
        EXPECT_EQ(Backtrace::verbosity(), 1) << '"' << loud << '"';
    }
    setenv(variable, "0", 1);
    EXPECT_EQ(Backtrace::verbosity(), 0);
}

}  // namespace
