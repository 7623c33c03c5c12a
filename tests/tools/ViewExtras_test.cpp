// What surrounds the table: the colour decision, the histogram columns, a
// task's detail, and the table's command-line options.
#include "Attention.h"
#include "DetailText.h"
#include "Histograms.h"
#include "Options.h"
#include "TableText.h"

#include "FakeSnapshot.h"

namespace {

using VelikTop::Column;
using VelikTopTest::FakeTask;
using Lines = std::vector<std::string>;

TEST(Colour, NoColorAndTheOptionTurnItOffAsDoesAMonochromeTerminal) {
    EXPECT_TRUE(VelikTop::colourWanted(false, nullptr, true));
    EXPECT_TRUE(VelikTop::colourWanted(false, "", true));  // set but empty: not a refusal
    EXPECT_FALSE(VelikTop::colourWanted(true, nullptr, true));
    EXPECT_FALSE(VelikTop::colourWanted(false, nullptr, false));
}

TEST(Colour, TheStrongestReasonForAttentionWins) {
    VelikTop::TaskRow row;
    row.name = "compactor";
    VelikTop::TableLine line;
    line.row = &row;
    const std::set<std::string> none, stuck{"compactor"};
    EXPECT_EQ(attentionOf(line, none), VelikTop::Attention::none);
    row.lastLatency = VelikTop::attentionLatency * 1.5;
    EXPECT_EQ(attentionOf(line, none), VelikTop::Attention::latency);
    line.rates.violationsGained = 1;
    EXPECT_EQ(attentionOf(line, none), VelikTop::Attention::violations);
    line.stale = true;
    EXPECT_EQ(attentionOf(line, none), VelikTop::Attention::stale);
    EXPECT_EQ(attentionOf(line, stuck), VelikTop::Attention::stalled);
}

TEST(Colour, ViolationsRiseOnlyWhenTheyGrewInTheInterval) {
    const auto a = VelikTopTest::fakeSnapshot({{"t", "0x1", 5, 0, 0, 3, 1}});
    const auto b = VelikTopTest::fakeSnapshot({{"t", "0x1", 6, 0, 0, 4, 2}});
    EXPECT_EQ(VelikTop::rates(&a, b, 1)[0].violationsGained, 2u);
    EXPECT_EQ(VelikTop::rates(&b, b, 1)[0].violationsGained, 0u);
}

// A group "pool" whose scheduler keeps histograms, and one task of its own.
constexpr const char* histogramsReply = R"({"schedulers":[
  {"name":"main","kind":"root","latency":{"count":9,"p50":2000,"p99":40000}},
  {"name":"pool","kind":"group","latency":{"count":4,"p50":3000,"p90":5000,"p99":7000,
   "p999":8000,"max":9000},"timerLateness":{"count":2,"p99":1500000}}],
 "tasks":[{"name":"job","scheduler":"pool","latency":{"count":1,"p50":1000,"p99":1000}}]})";

class HistogramTest : public ::testing::Test {
  protected:
    HistogramTest()
        : snapshot(VelikTopTest::fakeSnapshot(
              {{"pool", "0x3", 1, 0, 0, 0, 0, {}, {{"job", "0x4", 1}, {"other", "0x5", 1}}}})),
          set(VelikTop::parseHistograms(histogramsReply)) {}

    std::vector<VelikTop::TableLine> lines(const VelikTop::HistogramSet* h) {
        return VelikTop::buildTable({{&snapshot, {}, std::nullopt, h}}, {});
    }

    VelikTop::ThreadSnapshot snapshot;
    VelikTop::HistogramSet set;
};

TEST_F(HistogramTest, GroupsAndOptedInTasksShowQuantilesOthersADash) {
    const std::vector<Column> columns{Column::task, Column::latencyP50, Column::latencyP99,
                                      Column::timerP99};
    const auto shown = lines(&set);
    const VelikTop::TableLayout layout(shown, columns);
    EXPECT_EQ(layout.line(shown[0]), "[-] pool       3.0us    7.0us   1.50ms");
    EXPECT_EQ(layout.line(shown[1]), "      job      1.0us    1.0us        -");
    EXPECT_EQ(layout.line(shown[2]), "      other        -        -        -");
    // A daemon that does not answer the request: dashes everywhere.
    const auto without = lines(nullptr);
    EXPECT_EQ(VelikTop::TableLayout(without, columns).line(without[0]),
              "[-] pool           -        -        -");
    // The root's quantiles on its thread's summary line.
    const auto summary = VelikTop::formatSummary({{&snapshot, {}, std::nullopt, &set}}, {}, 3, 1);
    EXPECT_NE(summary[1].find("  lat p50 2.0us p99 40.0us"), std::string::npos) << summary[1];
    EXPECT_THROW(VelikTop::parseHistograms("error: unknown request"), VelikTop::TopError);
}

TEST_F(HistogramTest, DetailGathersFiguresHistogramsEventsStallsAndWaits) {
    const auto shown = lines(&set);
    const auto history = VelikTop::parseHistoryReply(
        "100 pool run start N job\n200 pool create N jobber\nnot a line\n300 pool run end N job\n");
    VelikTop::StallRoot root;
    root.root = "main";
    root.stalls.push_back({1, "job", 5'000'000'000, 1'000'000'000, 2'000'000'000, true, {}});
    const std::vector<VelikTop::StallRoot> stalls{root};
    const std::vector<VelikTop::WaitEntry> waits = VelikTop::parseWaits(
        R"({"waits":[{"name":"job","scheduler":"pool","priority":"normal","wait":"timer",)"
        R"("detail":"5 ms"},{"name":"other","wait":"fd"}]})");
    VelikTop::DetailSources sources{&shown[1], &history, &stalls, &waits};
    const Lines out = VelikTop::detailLines(sources);
    const auto has = [&out](const std::string& text) {
        return std::any_of(out.begin(), out.end(),
                           [&](const std::string& l) { return l.find(text) != std::string::npos; });
    };
    EXPECT_EQ(out[0], "TASK job  thread main  scheduler pool  at 0x4");
    EXPECT_TRUE(has("HISTOGRAMS of this task"));
    const auto events =
        std::find(out.begin(), out.end(), "RECENT EVENTS of this task (newest first)");
    ASSERT_NE(events, out.end());
    EXPECT_EQ(events[1], "       0.000000300  pool run end N job");
    EXPECT_EQ(events[2], "       0.000000100  pool run start N job");
    EXPECT_EQ(events[3], "STALLS of this task");  // "jobber" is another task
    EXPECT_TRUE(has("  waits on timer: 5 ms"));
    EXPECT_FALSE(has("waits on fd"));
    // A daemon without `waits` leaves the section out.
    sources = {&shown[2], nullptr, &stalls, nullptr};
    EXPECT_EQ(VelikTop::detailLines(sources).back(), "STALLS: none recorded in this task");
}

VelikTop::Options parse(std::vector<const char*> args) {
    args.insert(args.begin(), "velik-top");
    return VelikTop::parseOptions(static_cast<int>(args.size()), args.data());
}

TEST(TableOptions, MistakesAreUsageErrorsNamingWhatIsWrong) {
    for (const auto& [args, says] : std::vector<std::pair<std::vector<const char*>, std::string>>{
             {{"--sort", "size"}, "--sort takes time, latency, violations or name"},
             {{"--limit", "0"}, "--limit must be a whole number"},
             {{"--limit", "2x"}, "--limit must be a whole number"},
             {{"--columns", "task,nope"}, "unknown column \"nope\""},
             {{"--filter"}, "--filter needs a value"}}) {
        std::string message;
        EXPECT_EQ(VelikTopTest::failureOf([&] { parse(args); }, &message), VelikTop::exitUsage);
        EXPECT_NE(message.find(says), std::string::npos) << message;
    }
}

}  // namespace
