// A stuck thread as the daemon reports it, and as the viewer shows it.
#include "StallModel.h"
#include "FakeSnapshot.h"
#include "Sampler.h"
#include "StallText.h"
#include "StatsClient.h"

namespace {

using VelikTopTest::failureOf;

const std::string statusReply =
    "root=\"main\" tid=4242 thread=\"main\" state=stalled for=6.213 task=\"compactor\" "
    "top=\"compactLevel(Level&)\"\n"
    "root=\"io \\\"x\\\"\" tid=4243 thread=\"io\\\\1\" state=running for=0.002 task=\"#1a\"\n"
    "garbage without fields\n"
    "root=\"bg\\x1b\" tid=4244 thread=\"bg\" state=idle\n";

const std::string stallsReply =
    R"j({"roots":[{"root":"main","tid":4242,"thread":"main","live":true,"stalls":[)j"
    R"j({"id":1,"task":"flush","startNs":1000000000,"thresholdNs":500000000,"durationNs":750000000,)j"
    R"j("ended":true,"samples":[{"atNs":1600000000,"frames":["old()"]}]},)j"
    R"j({"id":2,"task":"compactor","startNs":5000000000,"thresholdNs":500000000,)j"
    R"j("durationNs":6213000000,"ended":false,"samples":[)j"
    R"j({"atNs":5600000000,"frames":["first()"]},)j"
    R"j({"atNs":11000000000,"frames":["compactLevel(Level&)","Compactor::taskExecute()",)j"
    R"j("Task::run()","main"]}]}]}]})j"
    "\n";

TEST(StallModel, StatusLinesUnescapedAndUnknownLinesSkipped) {
    const auto roots = VelikTop::parseStatus(statusReply);
    ASSERT_EQ(roots.size(), 3u);
    EXPECT_TRUE(roots[0].stalled());
    EXPECT_EQ(roots[0].tid, 4242u);
    EXPECT_DOUBLE_EQ(roots[0].forSeconds, 6.213);
    EXPECT_EQ(roots[0].top, "compactLevel(Level&)");
    EXPECT_EQ(roots[1].root, "io \"x\"");
    EXPECT_EQ(roots[1].thread, "io\\1");
    EXPECT_EQ(roots[1].state, "running");
    EXPECT_EQ(roots[2].root, "bg\x1b");
    EXPECT_EQ(roots[2].state, "idle");
    EXPECT_TRUE(roots[2].task.empty());
}

TEST(StallModel, BusyLineAndStallsDocument) {
    const auto busy = VelikTop::parseBusy(
        VelikTop::errorReason("error: thread busy for 6.2 s in task \"a\\\"b\"\n"));
    ASSERT_TRUE(busy);
    EXPECT_DOUBLE_EQ(busy->seconds, 6.2);
    EXPECT_EQ(busy->task, "a\"b");
    EXPECT_FALSE(VelikTop::parseBusy("too many clients"));

    const auto roots = VelikTop::parseStalls(stallsReply);
    ASSERT_EQ(roots.size(), 1u);
    ASSERT_EQ(roots[0].stalls.size(), 2u);
    EXPECT_TRUE(roots[0].stalls[0].ended);
    EXPECT_EQ(roots[0].stalls[1].samples.back().frames.size(), 4u);
    EXPECT_EQ(failureOf([] { VelikTop::parseStalls("{\"roots\":{}}"); }), VelikTop::exitMalformed);
}

TEST(StallText, PaneListsTheLatestFirstWithTheChosenStallsFrames) {
    const auto roots = VelikTop::parseStalls(stallsReply);
    const auto entries = VelikTop::stallEntries(roots);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(VelikTop::stallHeading(),
              "ROOT         TASK                              START     DURATION  STATE");
    EXPECT_EQ(VelikTop::stallLine(entries[0]),
              "main         compactor                         5.000      6.213 s  ongoing");
    EXPECT_EQ(VelikTop::stallLine(entries[1]).substr(58), "0.750 s  ended");
    EXPECT_EQ(VelikTop::stallFrames(entries[1]),
              (std::vector<std::string>{"stall 1 of root main in task \"flush\", sample at 1.600",
                                        "    at old()"}));
}

// Every socket of a process reports all its roots: one banner per root, from
// the newest answer.
TEST(Sampler, StalledRootsOnceEachTheNewestAnswerWins) {
    VelikTop::Sampler sampler({{"/x/main.sock", "main"}, {"/x/io.sock", "io"}});
    const auto t0 = std::chrono::steady_clock::now();
    for (std::size_t thread : {0u, 1u}) {
        VelikTop::FetchResult r;
        r.verb = VelikTop::FetchResult::Verb::status;
        r.thread = thread;
        r.askedAt = t0 + std::chrono::seconds(thread);
        std::string text = statusReply;
        if (thread == 1) {
            text.replace(text.find("6.213"), 5, "7.000");
        }
        r.status = VelikTop::parseStatus(text);
        sampler.apply(std::move(r));
    }
    const auto stalled = sampler.stalledRoots();
    ASSERT_EQ(stalled.size(), 1u);
    EXPECT_DOUBLE_EQ(stalled[0].forSeconds, 7.0);
}

}  // namespace
