// The Prometheus text exposition: metric families and labels.
#include "Prometheus.h"

#include "FakeSnapshot.h"

#include <gmock/gmock.h>

#include <regex>
#include <set>
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
        VelikTopTest::fakeSnapshot({{"a", "0x1", 3, 0.5, 0, 0, 0, 7}}, "t1"),
        VelikTopTest::fakeSnapshot({{"b", "0x1", 4}}, "t2")};
    const std::string text = VelikTop::prometheusText(threads);
    EXPECT_TRUE(text.ends_with('\n'));

    const std::regex type(R"(# TYPE (\S+) (counter|gauge))");
    const std::regex sample(R"(([a-z_0-9]+)\{([a-z]+="(\\.|[^"\\])*",?)+\} (\S+))");
    std::set<std::string> types;
    std::string declared;
    for (const std::string& line : linesOf(text)) {
        std::smatch m;
        if (std::regex_match(line, m, type)) {
            EXPECT_TRUE(types.insert(declared = m[1]).second) << "declared twice: " << line;
            EXPECT_EQ(m[2] == "counter", declared.ends_with("_total")) << line;
        } else if (!line.starts_with("# HELP ")) {
            ASSERT_TRUE(std::regex_match(line, m, sample)) << line;
            EXPECT_EQ(m[1], declared) << "sample outside its family: " << line;
        }
    }
    EXPECT_THAT(text, HasSubstr("velik_task_run_seconds_total{thread=\"t1\",scheduler=\"main\","
                                "task=\"a\"} 0.5\n"));
    // Work only for the task that reported some.
    EXPECT_THAT(text, HasSubstr("velik_task_work_total{thread=\"t1\""));
    EXPECT_THAT(text, Not(HasSubstr("velik_task_work_total{thread=\"t2\"")));
}

}  // namespace
