// The table: order, filter and folding over a group, and the text columns.
#include "TaskTable.h"
#include "TableText.h"

#include "FakeSnapshot.h"

namespace {

using VelikTop::SortKey;
using VelikTopTest::FakeTask;

class TaskTableTest : public ::testing::Test {
  protected:
    TaskTableTest()
        : before(VelikTopTest::fakeSnapshot(tasks(0))),
          after(VelikTopTest::fakeSnapshot(tasks(1))) {}

    // Busiest first: pool (its jobs), quiet, slow; by latency slow leads; by
    // violations, quiet. Fields: name, address, runs, time, max latency,
    // qv200, qv500, work, tasks.
    static std::vector<FakeTask> tasks(int t) {
        std::vector<FakeTask> out{{"slow", "0x1", 1u + t, 0.1 * t, 0.5},
                                  {"quiet", "0x2", 10u + t, 0.2 * t, 0.001, 9, 1},
                                  {"pool", "0x3", 0, 0.6 * t}};
        out[2].children = {{"conn:read", "0x4", 0, 0.5 * t}, {"accept", "0x5", 0, 0.1 * t}};
        out[1].maxMs = 6213;
        return out;
    }

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        for (const auto& line : VelikTop::buildTable(views(), view)) {
            out.push_back(std::string(line.row->depth, '.') + line.row->name);
        }
        return out;
    }
    std::vector<VelikTop::ThreadView> views() const {
        return {{&after, VelikTop::rates(&before, after, 1.0), std::nullopt}};
    }

    VelikTop::ThreadSnapshot before, after;
    VelikTop::ViewOptions view;
};

using Names = std::vector<std::string>;

TEST_F(TaskTableTest, EachSortKeyOrdersEveryLevel) {
    EXPECT_EQ(names(), (Names{"pool", ".conn:read", ".accept", "quiet", "slow"}));
    view.sort = SortKey::latency;
    EXPECT_EQ(names(), (Names{"slow", "quiet", "pool", ".accept", ".conn:read"}));
    view.sort = SortKey::violations;
    EXPECT_EQ(names(), (Names{"quiet", "pool", ".accept", ".conn:read", "slow"}));
}

TEST_F(TaskTableTest, FilterKeepsMatchesAndTheGroupsAboveThem) {
    view.filter = "CONN";
    EXPECT_EQ(names(), (Names{"pool", ".conn:read"}));
    view.filter = "oo";
    EXPECT_EQ(names(), (Names{"pool", ".conn:read", ".accept"}));  // the group itself matches
}

TEST_F(TaskTableTest, FoldingOneGroupOrAll) {
    const auto lines = VelikTop::buildTable(views(), view);
    ASSERT_TRUE(lines[0].row->isGroup);
    view.toggleFold(lines[0].groupKey);
    EXPECT_EQ(names(), (Names{"pool", "quiet", "slow"}));
    view.toggleFoldAll();  // one folded, not all: fold all
    EXPECT_EQ(names(), (Names{"pool", "quiet", "slow"}));
    view.toggleFoldAll();  // all folded: unfold all
    EXPECT_EQ(names().size(), 5u);
}

TEST_F(TaskTableTest, LinesShowRatesAndMarkGroups) {
    view.toggleFoldAll();
    const auto lines = VelikTop::buildTable(views(), view);
    const VelikTop::TableLayout layout(lines, false);
    EXPECT_EQ(layout.heading(),
              "SCHEDULER SP   RUN/s  TIME% LAST-LAT  MAX-LAT  MAX-RUN QV200 QV500  WORK/s   PEND "
              "TASK");
    EXPECT_EQ(layout.line(lines[0]),
              "main       n       0   60.0        0        0        0     0     0                "
              "[+] pool");
    EXPECT_EQ(layout.line(lines[1]),
              "main       n       1   20.0        0   1.00ms    6.21s     9     1                "
              "    quiet");
    // Before a second snapshot, rates read "-".
    const std::vector<VelikTop::ThreadView> first{
        {&after, VelikTop::rates(nullptr, after, 1), std::nullopt}};
    const auto once = VelikTop::buildTable(first, view);
    EXPECT_EQ(VelikTop::TableLayout(once, true).line(once[0]).substr(0, 35),
              "main   main       n       -      - ");
}

TEST(TableText, CompactFigures) {
    using Figures = std::vector<std::pair<double, std::string>>;
    const Figures counts{{2.5, "2.5"},       {999, "999"},      {1000, "1.00k"},
                         {999949, "999.9k"}, {999999, "1.00M"}, {-3, "0"}};
    for (auto [n, text] : counts) {
        EXPECT_EQ(VelikTop::formatCount(n), text);
    }
    for (auto [s, text] :
         Figures{{850e-9, "850ns"}, {12e-6, "12.0us"}, {4.56e-3, "4.56ms"}, {1.2, "1.20s"}}) {
        EXPECT_EQ(VelikTop::formatSeconds(s), text);
    }
}

TEST(TableText, PrintableShowsEveryControlEscapedAndKeepsTheRest) {
    // C1 controls: U+009B as UTF-8 and a raw 0x9b (not UTF-8) alike, up to
    // U+009F; broken UTF-8: a cut sequence, an overlong form, a surrogate.
    for (auto [in, out] : std::vector<std::pair<std::string, std::string>>{
             {std::string("\0\a\r\x7f", 4), R"(\x00\x07\x0d\x7f)"},
             {"\xc2\x80\xc2\x9f\xc2\xa0", "\\xc2\\x80\\xc2\\x9f\xc2\xa0"},
             {"\xe2\x82 \xc0\xaf \xed\xa0\x80", R"(\xe2\x82 \xc0\xaf \xed\xa0\x80)"},
             {"plain:name-1 caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 back\\slash",
              "plain:name-1 caf\xc3\xa9 \xe2\x82\xac \xf0\x9f\x98\x80 back\\slash"}}) {
        EXPECT_EQ(VelikTop::printable(in), out);
    }
}

}  // namespace
