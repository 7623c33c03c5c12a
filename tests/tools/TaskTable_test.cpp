// The table: order and folding over a group, and the text columns.
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

TEST_F(TaskTableTest, NameFirstThenTheChosenFigures) {
    using VelikTop::Column;
    const auto lines = VelikTop::buildTable(views(), view);
    const VelikTop::TableLayout layout(lines, {Column::task, Column::runs, Column::share});
    EXPECT_EQ(layout.heading(), "TASK              RUN/s  TIME%");
    EXPECT_EQ(layout.line(lines[0]), "[-] pool              0   60.0");
    EXPECT_EQ(layout.line(lines[1]), "      conn:read       0   50.0");
    // Scrolled one figure to the right: TASK stays.
    EXPECT_EQ(VelikTop::TableLayout(lines, {Column::task, Column::runs, Column::share}, 0, 1)
                  .line(lines[3]),
              "    quiet         20.0");
    // Before a second snapshot, rates read "-".
    const std::vector<VelikTop::ThreadView> first{
        {&after, VelikTop::rates(nullptr, after, 1), std::nullopt}};
    const auto once = VelikTop::buildTable(first, view);
    EXPECT_EQ(
        VelikTop::TableLayout(once, VelikTop::defaultColumns(true)).line(once[0]).substr(0, 36),
        "[-] pool         n       -      -   ");
}

TEST(TableLayout, At80ColumnsNamesKeepTheirRoomAndFiguresAreCut) {
    const std::string longName(60, 'x');
    const auto before = VelikTopTest::fakeSnapshot({{longName, "0x1", 1}, {"short", "0x2", 1}});
    const auto after = VelikTopTest::fakeSnapshot({{longName, "0x1", 9}, {"short", "0x2", 5}});
    const std::vector<VelikTop::ThreadView> views{
        {&after, VelikTop::rates(&before, after, 1), std::nullopt}};
    const auto lines = VelikTop::buildTable(views, {});
    const VelikTop::TableLayout layout(lines, VelikTop::defaultColumns(false), 80);
    EXPECT_EQ(layout.heading().substr(0, 36), "TASK" + std::string(27, ' ') + "SP   ");
    EXPECT_LE(layout.heading().size(), 80u);
    EXPECT_GT(layout.heading().size(), 75u);
    const std::string first = layout.line(lines[1]);
    EXPECT_EQ(first.substr(0, VelikTop::minTaskWidth),
              "    " + longName.substr(0, VelikTop::minTaskWidth - 5) + "~");
    EXPECT_LE(first.size(), 80u);
    EXPECT_EQ(layout.line(lines[0]).substr(0, 41),
              "    short" + std::string(23, ' ') + "n       4");
}

TEST(TableText, CompactFigures) {
    using Figures = std::vector<std::pair<double, std::string>>;
    for (auto [n, text] : Figures{{999, "999"}, {1000, "1.00k"}, {999999, "1.00M"}, {-3, "0"}}) {
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

// The view's choices over one snapshot pair: merging, flat, inverted,
// idle and own tasks.
class TableViewTest : public ::testing::Test {
  protected:
    // `runs(t)`: the runs of each task in the t-th snapshot.
    static std::vector<FakeTask> tasks(int t) {
        std::vector<FakeTask> out;
        for (int i = 0; i < 5; ++i) {
            out.push_back({"conn", fmt::format("0x1{}", i), 10u * t, 0.01 * t});
        }
        out.push_back({"pair", "0x21", 2u * t, 0.02 * t});
        out.push_back({"pair", "0x22", 1, 0.01});  // idle: no run in between
        out.push_back({"StatsEndpoint:client", "0x31", 3u * t});
        out.push_back({"TaskSchedulerRenderJson-fd:7", "0x32", 1u * t});
        return out;
    }
    TableViewTest()
        : before(VelikTopTest::fakeSnapshot(tasks(1))),
          after(VelikTopTest::fakeSnapshot(tasks(2))) {}

    std::vector<std::string> names() const {
        std::vector<std::string> out;
        const std::vector<VelikTop::ThreadView> views{
            {&after, VelikTop::rates(&before, after, 1.0), std::nullopt}};
        for (const auto& line : VelikTop::buildTable(views, view)) {
            out.push_back(line.row->name +
                          (line.merged > 1 ? fmt::format(" x{}", line.merged) : "") +
                          fmt::format(" {:g}", line.rates.runsPerSecond));
        }
        return out;
    }

    VelikTop::ThreadSnapshot before, after;
    VelikTop::ViewOptions view;
};

TEST_F(TableViewTest, CrowdsMergeByDefaultWithTheirCountAndSums) {
    EXPECT_EQ(names(), (Names{"conn x5 50", "pair 2", "pair 0"}));
    view.merge = VelikTop::MergeMode::all;
    EXPECT_EQ(names(), (Names{"conn x5 50", "pair x2 2"}));
    view.merge = VelikTop::MergeMode::off;
    EXPECT_EQ(names().size(), 7u);
    // A merged line is the same line in every snapshot, for the cursor.
    view.merge = VelikTop::MergeMode::crowds;
    const auto one = VelikTop::buildTable({{&before, {}, std::nullopt}}, view);
    const auto two = VelikTop::buildTable({{&after, {}, std::nullopt}}, view);
    EXPECT_EQ(one[0].key(), two[0].key());
    EXPECT_NE(one[1].key(), one[2].key());
}

TEST_F(TableViewTest, IdleAndTheEndpointsOwnTasksStayOutWhenAsked) {
    view.hideIdle = true;
    EXPECT_EQ(names(), (Names{"conn x5 50", "pair 2"}));
    view.hideIdle = false;
    view.filter = "stats";
    EXPECT_TRUE(names().empty());
}

TEST_F(TaskTableTest, FlatViewAndInvertedOrder) {
    view.flat = true;  // (the dots are the depth each task has in the tree)
    EXPECT_EQ(names(), (Names{"pool", ".conn:read", "quiet", ".accept", "slow"}));
    view.inverted = true;
    EXPECT_EQ(names(), (Names{"slow", ".accept", "quiet", ".conn:read", "pool"}));
    view.flat = false;  // each level of the tree upside down, groups still above their tasks
    EXPECT_EQ(names(), (Names{"slow", "quiet", "pool", ".accept", ".conn:read"}));
}

}  // namespace
