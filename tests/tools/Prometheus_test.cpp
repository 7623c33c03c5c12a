// The Prometheus text exposition: metric families, labels and escaping.
#include "Prometheus.h"

#include "FakeSnapshot.h"
#include "report/StatsPrintable.h"

#include <gmock/gmock.h>

#include <map>
#include <regex>
#include <sstream>

namespace {

using ::testing::HasSubstr;
using ::testing::Not;

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(line);
    }
    return out;
}

TEST(Prometheus, EveryFamilyDeclaredOnceBeforeItsSamples) {
    const std::vector<VelikTop::ThreadSnapshot> threads{
        VelikTopTest::fakeSnapshot({{.name = "a", .runs = 3, .time = 0.5, .work = 7}}, "t1"),
        VelikTopTest::fakeSnapshot({{.name = "b", .runs = 4}}, "t2")};
    const std::string text = VelikTop::prometheusText(threads);
    EXPECT_TRUE(text.ends_with('\n'));

    const std::regex sample(R"(([a-z_0-9]+)\{([a-z]+="(\\.|[^"\\])*",?)+\} (\S+))");
    std::map<std::string, std::string> types;
    std::string declared;
    for (const std::string& line : linesOf(text)) {
        std::smatch m;
        if (line.rfind("# HELP ", 0) == 0) {
            continue;
        }
        if (line.rfind("# TYPE ", 0) == 0) {
            std::istringstream in(line.substr(7));
            std::string name, type;
            in >> name >> type;
            EXPECT_TRUE(types.emplace(name, type).second) << "declared twice: " << name;
            EXPECT_EQ(type == "counter",
                      name.size() > 6 && name.substr(name.size() - 6) == "_total")
                << name;
            declared = name;
            continue;
        }
        ASSERT_TRUE(std::regex_match(line, m, sample)) << line;
        EXPECT_EQ(m[1], declared) << "sample outside its family: " << line;
    }
    EXPECT_THAT(text,
                HasSubstr("velik_task_runs_total{thread=\"t1\",scheduler=\"main\","
                          "task=\"a\",address=\"0x1\",priority=\"normal\",state=\"live\"} 3\n"));
    EXPECT_THAT(text,
                HasSubstr("velik_task_run_seconds_total{thread=\"t1\",scheduler=\"main\","
                          "task=\"a\",address=\"0x1\",priority=\"normal\",state=\"live\"} 0.5\n"));
    // Work only for the task that reported some.
    EXPECT_THAT(text, HasSubstr("velik_task_work_total{thread=\"t1\""));
    EXPECT_THAT(text, Not(HasSubstr("velik_task_work_total{thread=\"t2\"")));
    EXPECT_THAT(
        text,
        HasSubstr("velik_scheduler_max_slip_seconds{thread=\"t2\",scheduler=\"main\"} 0.001\n"));
}

TEST(Prometheus, NoControlCharacterOrBrokenUtf8ReachesTheExposition) {
    VelikTop::ThreadSnapshot snap =
        VelikTopTest::fakeSnapshot({{.name = "x"}}, "t\x1b]2;title\x07");
    snap.tasks[0].name = std::string("a\x1b[31m\r\0b\xc2\x9b\xff\"\\\nc", 16);
    const std::string text = VelikTop::prometheusText({snap});
    EXPECT_THAT(text, HasSubstr(R"(thread="t\\x1b]2;title\\x07")"));
    EXPECT_THAT(text, HasSubstr(R"(task="a\\x1b[31m\\x0d\\x00b\\xc2\\x9b\\xff\"\\\nc")"));
    for (const std::string& line : linesOf(text)) {
        EXPECT_FALSE(Velik::Impl::needsPrintable(line)) << line;
    }
}

}  // namespace
