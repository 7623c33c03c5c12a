#include <Velik/Assert.h>
#include <Velik/Exception.h>

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <stdexcept>

#include "foundation/ChildProcess.h"
#include "foundation/ThrowingAsserts.h"

namespace {

using VelikTest::assertMessageOf;
using VelikTest::runInChild;
using VelikTest::ThrowingAsserts;

constexpr const char* abortPrefix = "Velik::Assert aborting because: ";

class Widget {
  public:
    static constexpr const char* traceClassName = "Widget";
    void check(int x) { VELIK_CLASS_ASSERT(x > 0, "x:{}", x); }
};

// Records what an assertion hands to its handler.
class RecordingHandler : public Velik::Platform::DebugHandler {
  public:
    RecordingHandler() : DebugHandler("Recording") {}
    void enabledIs(unsigned, bool) override {}
    void dump(Velik::Platform::DebugStream& stream, unsigned level, const char* file, int line,
              const char* function) const override {
        text = stream.str();
        dumpedLevel = level;
        dumpedFile = file ? file : "<null>";
        dumpedLine = line;
        dumpedFunction = function ? function : "<null>";
        ++dumps;
    }
    mutable std::string text;
    mutable unsigned dumpedLevel = 99;
    mutable std::string dumpedFile;
    mutable int dumpedLine = 0;
    mutable std::string dumpedFunction;
    mutable int dumps = 0;
};

struct NoisyDestructor {
    ~NoisyDestructor() { std::fputs("destructor ran\n", stderr); }
};

TEST(AssertTest, PassingAssertionEvaluatesNoArguments) {
    int evaluated = 0;
    auto count = [&] { return ++evaluated; };
    VELIK_ASSERT(true, "{}", count());
    EXPECT_EQ(evaluated, 0);
}

TEST(AssertTest, ThrownAssertionIsCatchableAsLibraryAndStandardException) {
    ThrowingAsserts throwing;
    EXPECT_THROW(VELIK_ASSERT(false, "boom"), Velik::AssertException);
    EXPECT_THROW(VELIK_ASSERT(false, "boom"), Velik::Exception);
    EXPECT_THROW(VELIK_ASSERT(false, "boom"), std::exception);
    try {
        VELIK_ASSERT(false, "boom");
    } catch (const std::exception& e) {
        EXPECT_EQ(typeid(e), typeid(Velik::AssertException));
        const std::string what = e.what();
        EXPECT_EQ(what.rfind("Velik::AssertException(\"Assert_testCpp:", 0), 0u) << what;
        // The backtrace of the assertion site follows the message.
        EXPECT_NE(what.find("\")\nTimestamp:"), std::string::npos) << what;
    }
}

TEST(AssertTest, FormattedMessagesCarrySourceLineClassAndFunction) {
    EXPECT_EQ(assertMessageOf([] {
                  Velik::Impl::assertFailed("ErrnoCpp", 27, false, "strerror", nullptr,
                                            "Unable to format errno:{} error:{}", 1, 22);
              }),
              "ErrnoCpp:27: Unable to format errno:1 error:22");
    EXPECT_EQ(assertMessageOf([] {
                  Velik::Impl::assertFailed("LockingCpp", 32, true, "unlock", "Lock", "a{}b", 5);
              }),
              "LockingCpp:32: Lock::unlock() a5b");
}

TEST(AssertTest, MacrosUseTheBuildsSourceNameAndTheSiteClass) {
    const std::string member = assertMessageOf([] { Widget().check(-1); });
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        member, testing::internal::RE("Assert_testCpp:[0-9]+: Widget::check\\(\\) x:-1")))
        << member;
    const std::string free = assertMessageOf([] { VELIK_ASSERT(1 > 2, "n:{}", 3); });
    EXPECT_TRUE(
        testing::internal::RE::FullMatch(free, testing::internal::RE("Assert_testCpp:[0-9]+: n:3")))
        << free;
}

TEST(AssertTest, FailedAssertionIsTracedAtLevelZero) {
    ThrowingAsserts throwing;
    testing::internal::CaptureStderr();
    EXPECT_THROW(Velik::Impl::assertFailed("SomeCpp", 12, false, "fn", nullptr, "traced text"),
                 Velik::AssertException);
    const std::string trace = testing::internal::GetCapturedStderr();
    EXPECT_NE(trace.find("Velik/0"), std::string::npos) << trace;
    EXPECT_NE(trace.find("SomeCpp:12: traced text"), std::string::npos) << trace;
}

TEST(AssertStreamTest, ComposesFileFunctionLineAndDumpsThroughTheHandler) {
    ThrowingAsserts throwing;
    auto handler = std::make_shared<RecordingHandler>();
    Velik::Platform::DebugStream stream;
    stream << "ThreadLocal fastForward invoked from non-main thread";
    try {
        Velik::debugAndThrowAssertException(*handler, 3, stream, "Platform", "setFastForward", 474);
        FAIL() << "no exception";
    } catch (const Velik::AssertException& e) {
        EXPECT_EQ(e.message(),
                  "Platform:setFastForward:474: ThreadLocal fastForward invoked from non-main "
                  "thread");
    }
    EXPECT_EQ(handler->dumps, 1);
    EXPECT_EQ(handler->text,
              "Platform:setFastForward:474: ThreadLocal fastForward invoked from non-main thread");
    EXPECT_EQ(handler->dumpedLevel, 3u);
    EXPECT_EQ(handler->dumpedFile, "Platform");
    EXPECT_EQ(handler->dumpedLine, 474);
    EXPECT_EQ(handler->dumpedFunction, "setFastForward");
}

TEST(AssertStreamTest, NullNameCutsTheMessageAtThatPoint) {
    ThrowingAsserts throwing;
    auto handler = std::make_shared<RecordingHandler>();
    auto messageFor = [&](const char* file, const char* function) {
        Velik::Platform::DebugStream stream;
        stream << "text";
        try {
            Velik::debugAndThrowAssertException(*handler, 0, stream, file, function, 9);
        } catch (const Velik::AssertException& e) {
            return e.message();
        }
        return std::string("no exception");
    };
    EXPECT_EQ(messageFor(nullptr, "fn"), "");
    EXPECT_EQ(messageFor("File", nullptr), "File:");
}

TEST(AssertStreamTest, MacroStreamsItsOperands) {
    const std::string message =
        assertMessageOf([] { VELIK_ASSERT_STREAM(false, "queue " << 7 << " corrupt"); });
    EXPECT_TRUE(testing::internal::RE::FullMatch(
        message, testing::internal::RE("Assert_testCpp:.*:[0-9]+: queue 7 corrupt")))
        << message;
}

// The abort path is checked in a forked child, where the number of lines
// written to standard error can be counted exactly.
TEST(AssertDeathTest, AbortWritesExactlyOneLineAndRunsNoDestructor) {
    auto result = runInChild([] {
        NoisyDestructor noisy;
        Velik::Impl::assertFailed("SomeCpp", 41, false, "fn", nullptr, "broken {}", 7);
    });
    EXPECT_TRUE(result.abortedBySignal(SIGABRT)) << result.status;
    const auto lines = result.linesStartingWith(abortPrefix);
    ASSERT_EQ(lines.size(), 1u) << result.stderrText;
    EXPECT_EQ(lines[0], std::string(abortPrefix) + "SomeCpp:41: broken 7");
    EXPECT_EQ(result.stderrText.find("destructor ran"), std::string::npos) << result.stderrText;
}

TEST(AssertDeathTest, StreamFormAbortsToo) {
    auto result = runInChild([] {
        Velik::Platform::DebugStream stream;
        stream << "streamed";
        Velik::debugAndThrowAssertException(*Velik::VELIK_DEFAULT_HANDLE, 0, stream, "Src", "fn",
                                            5);
    });
    EXPECT_TRUE(result.abortedBySignal(SIGABRT)) << result.status;
    const auto lines = result.linesStartingWith(abortPrefix);
    ASSERT_EQ(lines.size(), 1u) << result.stderrText;
    EXPECT_EQ(lines[0], std::string(abortPrefix) + "Src:fn:5: streamed");
}

TEST(AssertDeathTest, AbortsUnderGtestDeathTestToo) {
    EXPECT_DEATH(VELIK_ASSERT(false, "gone"), "Velik::Assert aborting because: .*gone");
}

}  // namespace
