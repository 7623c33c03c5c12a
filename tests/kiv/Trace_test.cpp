#include <Kiv/Trace.h>
#include <fmt/ranges.h>
#include <gtest/gtest.h>

#include <filesystem>

namespace {

using Kiv::TraceManager;

// Each TRACE value parsed and listed back in TRACE syntax, with the rejected texts.
TEST(TraceSettings, ParsedListedBackAndRejected) {
    const std::tuple<const char*, const char*, const char*> cases[] = {
        {"Velik/0-5,9,Kiv/3,Other", "Velik/0-5,9|Kiv/3|Other", ""},
        {"-Velik/31,A/0,-B*", "-Velik/31|A/0|-B*", ""},
        {"X/4-6,0,2,31,5", "X/0,2,4-6,31", ""},
        {",,-", "", ""},
        {"Good/1,Bad/,Worse/32,Back/5-2,Sp ace,9lives,x/a,Fine", "Good/1|Fine",
         "Bad/|Worse/32|Back/5-2|Sp ace|9lives|x/a"},
    };
    for (const auto& [value, listed, rejected] : cases) {
        std::vector<std::string> errors, texts;
        for (const Kiv::TraceSetting& setting : Kiv::parseTraceSettings(value, &errors)) {
            texts.push_back(setting.toString());
        }
        EXPECT_EQ(fmt::format("{}", fmt::join(texts, "|")), listed) << value;
        EXPECT_EQ(fmt::format("{}", fmt::join(errors, "|")), rejected) << value;
    }
}

struct TraceEnv : ::testing::Test {
    void TearDown() override {
        unsetenv("TRACEFILE");
        apply("");
    }
    static void apply(const char* trace) {
        setenv("TRACE", trace, 1);
        TraceManager::instance().readEnvironment();
    }
};

// Later settings win and apply to facilities made later; a malformed one is
// reported once per process, and the others still apply.
TEST_F(TraceEnv, LaterSettingsWinAndAMalformedOneIsReportedOnce) {
    // A repeated run of this test needs a malformed text not seen yet.
    static int runs = 0;
    const std::string bad = "Once" + std::to_string(++runs) + "/x";
    const std::string trace = "TestA*/0-7," + bad + ",-TestAB/2-3,TestAB/3";
    testing::internal::CaptureStderr();
    apply(trace.c_str());
    apply(trace.c_str());
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Kiv trace: ignoring malformed TRACE setting \"" + bad + "\"\n");
    auto& a = TraceManager::instance().facility("TestAA");
    auto& ab = TraceManager::instance().facility("TestAB");
    EXPECT_EQ(a.levelMask(), 0xffu);
    EXPECT_EQ(ab.levelMask(), 0xffu & ~(1u << 2));
    EXPECT_FALSE(ab.enabled(40));
    apply("");
    EXPECT_EQ(a.levelMask(), 0u) << "re-reading recomputes masks from scratch";
}

// Re-reading the environment keeps one trace file open, also when it names
// another file each time.
TEST_F(TraceEnv, RereadingKeepsOneTraceFileOpen) {
    const char* paths[] = {"/dev/null", "/dev/zero"};  // nothing to clean up
    std::vector<std::ptrdiff_t> open;
    for (int i = 0; i < 20; ++i) {
        setenv("TRACEFILE", paths[i % 2], 1);
        apply("Reread/1");
        open.push_back(std::ranges::distance(std::filesystem::directory_iterator("/proc/self/fd")));
    }
    EXPECT_EQ(open, std::vector(20, open[0]));
}

TEST(TraceFormat, Conversions) {
    std::string out;
    Kiv::formatTraceLine(out, "%f|%l|%F|%L|%n|%m|%%|%q", "Fac", 7, "FileCpp", 42, "run", "hi");
    EXPECT_EQ(out, "Fac|7|FileCpp|42|run|hi|%|%q");
}

}  // namespace
