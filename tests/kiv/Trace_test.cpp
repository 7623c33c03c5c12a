#include <Kiv/Trace.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <unistd.h>

#include <fstream>
#include <sstream>

namespace {

using Kiv::parseTraceSettings;
using Kiv::TraceManager;

uint32_t levels(std::initializer_list<unsigned> ls) {
    uint32_t m = 0;
    for (unsigned l : ls) {
        m |= 1u << l;
    }
    return m;
}

// Restores the trace environment after each test, so tests can run in one
// process in any order.
class TraceEnv : public ::testing::Test {
  protected:
    void SetUp() override {
        for (const char* v : {"TRACE", "TRACEFORMAT", "TRACEFILE"}) {
            const char* s = getenv(v);
            saved_.emplace_back(v, s ? std::optional<std::string>(s) : std::nullopt);
        }
    }
    void TearDown() override {
        for (auto& [name, value] : saved_) {
            value ? setenv(name.c_str(), value->c_str(), 1) : unsetenv(name.c_str());
        }
        TraceManager::instance().readEnvironment();
    }
    void apply(const char* trace) {
        setenv("TRACE", trace, 1);
        TraceManager::instance().readEnvironment();
    }

  private:
    std::vector<std::pair<std::string, std::optional<std::string>>> saved_;
};

TEST(TraceSettings, LevelListsRangesAndContinuation) {
    auto s = parseTraceSettings("Velik/0-5,9,Kiv/3,Other");
    ASSERT_EQ(s.size(), 3u);
    EXPECT_EQ(s[0].pattern, "Velik");
    EXPECT_EQ(s[0].levels, levels({0, 1, 2, 3, 4, 5, 9}));
    EXPECT_TRUE(s[0].on);
    EXPECT_EQ(s[1].levels, levels({3}));
    EXPECT_EQ(s[2].levels, 0xffffffffu);
}

TEST(TraceSettings, NegationAndBoundaries) {
    auto s = parseTraceSettings("-Velik/31,A/0,-B");
    ASSERT_EQ(s.size(), 3u);
    EXPECT_FALSE(s[0].on);
    EXPECT_EQ(s[0].levels, 1u << 31);
    EXPECT_EQ(s[1].levels, 1u);
    EXPECT_FALSE(s[2].on);
    EXPECT_EQ(s[2].levels, 0xffffffffu);
}

TEST(TraceSettings, MalformedItemsAreSkippedAndNamed) {
    std::vector<std::string> errors;
    auto s = parseTraceSettings("Good/1,Bad/,Worse/32,Back/5-2,Sp ace,9lives,Fine,x/a", &errors);
    ASSERT_EQ(s.size(), 2u);
    EXPECT_EQ(s[0].pattern, "Good");
    EXPECT_EQ(s[1].pattern, "Fine");
    EXPECT_EQ(errors, (std::vector<std::string>{"Bad/", "Worse/32", "Back/5-2", "Sp ace", "9lives",
                                                "x/a"}));
}

TEST(TraceSettings, EmptyItemsAndLoneDashSayNothing) {
    std::vector<std::string> errors;
    EXPECT_TRUE(parseTraceSettings("", &errors).empty());
    EXPECT_TRUE(parseTraceSettings(",,-", &errors).empty());
    EXPECT_TRUE(errors.empty());
}

TEST(TraceSettings, ToStringRoundTrips) {
    for (const char* text : {"Velik/0-5,9", "-Kiv*/3", "All", "-All", "X/0,2,4-6,31"}) {
        auto s = parseTraceSettings(text);
        ASSERT_EQ(s.size(), 1u) << text;
        EXPECT_EQ(s[0].toString(), text);
    }
}

TEST(TraceSettings, WildcardMatching) {
    EXPECT_TRUE(Kiv::traceNameMatches("Velik*", "VelikLibevent"));
    EXPECT_TRUE(Kiv::traceNameMatches("Velik*", "Velik"));
    EXPECT_TRUE(Kiv::traceNameMatches("*Libevent", "VelikLibevent"));
    EXPECT_TRUE(Kiv::traceNameMatches("V*l*t", "VelikLibevent"));
    EXPECT_TRUE(Kiv::traceNameMatches("*", "anything"));
    EXPECT_FALSE(Kiv::traceNameMatches("Velik", "VelikUtil"));
    EXPECT_FALSE(Kiv::traceNameMatches("*Util", "VelikPlugin"));
    EXPECT_FALSE(Kiv::traceNameMatches("Kiv*", "Velik"));
}

TEST_F(TraceEnv, LaterSettingsWinAndApplyToLaterFacilities) {
    apply("TestA*/0-7,-TestAB/2-3,TestAB/3");
    auto& a = TraceManager::instance().facility("TestAA");
    auto& ab = TraceManager::instance().facility("TestAB");
    EXPECT_EQ(a.levelMask(), 0xffu);
    EXPECT_EQ(ab.levelMask(), 0xffu & ~(1u << 2));
    EXPECT_TRUE(ab.enabled(3));
    EXPECT_FALSE(ab.enabled(2));
    EXPECT_FALSE(ab.enabled(40));

    apply("");
    EXPECT_EQ(a.levelMask(), 0u) << "re-reading recomputes masks from scratch";
}

TEST_F(TraceEnv, SettingsAreListedInOrder) {
    apply("B/1,A,-C/2-4");
    EXPECT_EQ(TraceManager::instance().settings(),
              (std::vector<std::string>{"B/1", "A", "-C/2-4"}));
}

TEST_F(TraceEnv, MalformedSettingIsReportedOnce) {
    testing::internal::CaptureStderr();
    apply("Ok/1,Once/x");
    apply("Ok/1,Once/x");
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_EQ(err, "Kiv trace: ignoring malformed TRACE setting \"Once/x\"\n");
    EXPECT_TRUE(TraceManager::instance().facility("Ok").enabled(1));
}

TEST(TraceFormat, ConversionsAndDefault) {
    std::string out;
    Kiv::formatTraceLine(out, "%f|%l|%F|%L|%n|%m|%%|%q", "Fac", 7, "FileCpp", 42, "run", "hi");
    EXPECT_EQ(out, "Fac|7|FileCpp|42|run|hi|%|%q");

    out.clear();
    Kiv::formatTraceLine(out, "", "Fac", 1, "F", 2, "fn", "text");
    // "YYYY-MM-DD HH:MM:SS.uuuuuu Fac/1 F:2 fn: text"
    ASSERT_GT(out.size(), 27u);
    EXPECT_EQ(out[4], '-');
    EXPECT_EQ(out[19], '.');
    EXPECT_EQ(out.substr(26), " Fac/1 F:2 fn: text");
}

TEST_F(TraceEnv, LinesGoToTraceFile) {
    char path[] = "/tmp/kivtraceXXXXXX";
    int fd = mkstemp(path);
    ASSERT_GE(fd, 0);
    close(fd);
    setenv("TRACEFILE", path, 1);
    setenv("TRACEFORMAT", "%f %l %m", 1);
    TraceManager::instance().readEnvironment();
    TraceManager::instance().write("Fac", 3, "F", 1, "fn", "first", 5);
    TraceManager::instance().write("Fac", 4, "F", 1, "fn", "second line", 11);

    std::ifstream in(path);
    std::stringstream got;
    got << in.rdbuf();
    EXPECT_EQ(got.str(), "Fac 3 first\nFac 4 second line\n");
    unlink(path);
}

TEST_F(TraceEnv, WriteLeavesErrnoAlone) {
    setenv("TRACEFILE", "/dev/full", 1);
    TraceManager::instance().readEnvironment();
    errno = 1234;
    TraceManager::instance().write("Fac", 3, "F", 1, "fn", "lost", 4);
    EXPECT_EQ(errno, 1234);
}

}  // namespace
