// The Prometheus exposition: the exact text of a small set of figures (series
// merged per stats name, families declared once, counters past 32 bits),
// label escaping, slices, the figures of a real scheduler, and promtool's
// verdict on them.
#include <Velik/PrometheusExposition.h>
#include <Velik/TaskSchedulerSnapshot.h>

#include "report/ReportFixture.h"

#include <fmt/format.h>
#include <gmock/gmock.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <limits>
#include <sstream>

namespace {

using ::testing::HasSubstr;

// A histogram in the recording layout: only the members the exposition
// reads.
struct FakeHistogram {
    std::vector<std::int64_t> bounds;
    std::vector<std::uint64_t> counts;
    std::uint64_t total;
    std::int64_t sum;
    std::size_t bucketCount() const { return bounds.size(); }
    std::int64_t bucketUpperBoundNs(std::size_t i) const { return bounds[i]; }
    std::uint64_t bucketCountAt(std::size_t i) const { return counts[i]; }
    std::uint64_t count() const { return total; }
    std::int64_t sumNs() const { return sum; }
};

Velik::MetricsThreadFigures smallFigures() {
    Velik::MetricsThreadFigures t;
    t.thread = "main";
    Velik::MetricsSchedulerFigures s;
    s.name = "main";
    s.maxSlipSeconds = 0.002;
    s.priorities = {{"high", 1, 2, 3, 40}, {"normal", 0, 1, 0, 7}};
    // Recording buckets ending on an export bound, just past one, and past
    // the last: each counted under the first bound not below its edge.
    s.latency = Velik::metricsHistogramOf(FakeHistogram{
        {127, 1000, 1001, 1'000'000, 120'000'000'000, std::numeric_limits<std::int64_t>::max()},
        {1, 1, 1, 1, 1, 1},
        6,
        2'500'000});
    t.schedulers.push_back(s);
    // Two live tasks and the completed record of "conn", one run short of a
    // 32-bit wrap between them.
    t.tasks.push_back({"main", "conn", false, 4294967295u, 0.5, 0.25, 0.001, 1, 0, 0, 10, {}});
    t.tasks.push_back({"main", "conn", false, 2, 0.25, 0.125, 0.003, 0, 2, 0, {}, 3});
    t.tasks.push_back({"main", "conn", true, 5, 1, 0.0625, 0, 0, 0, 2, 4, 9});
    return t;
}

// Counters merged past 32 bits (no false reset), marks the largest, pending
// work of live tasks only, families without samples left out, histogram
// buckets cumulative with +Inf equal to the count.
TEST(PrometheusExposition, ExactTextOfMergedSeries) {
    const char* const expected =
        R"(# HELP velik_task_instances Live tasks of this stats name on the scheduler, merged into its series.
# TYPE velik_task_instances gauge
velik_task_instances{thread="main",scheduler="main",task="conn"} 2
# HELP velik_task_runs_total Runs of the tasks of this stats name, live ones and those kept as completed.
# TYPE velik_task_runs_total counter
velik_task_runs_total{thread="main",scheduler="main",task="conn"} 4294967302
# HELP velik_task_run_seconds_total Seconds spent running the tasks of this stats name.
# TYPE velik_task_run_seconds_total counter
velik_task_run_seconds_total{thread="main",scheduler="main",task="conn"} 1.75
# HELP velik_task_run_max_seconds Longest single run of a task of this stats name, in seconds, since its statistics were reset.
# TYPE velik_task_run_max_seconds gauge
velik_task_run_max_seconds{thread="main",scheduler="main",task="conn"} 0.25
# HELP velik_task_scheduling_latency_max_seconds Largest delay, in seconds, between a task of this stats name becoming runnable and running, since its statistics were reset.
# TYPE velik_task_scheduling_latency_max_seconds gauge
velik_task_scheduling_latency_max_seconds{thread="main",scheduler="main",task="conn"} 0.003
# HELP velik_task_quantum_violations_200_total Runs that took at least 200% and less than 500% of the task's quantum.
# TYPE velik_task_quantum_violations_200_total counter
velik_task_quantum_violations_200_total{thread="main",scheduler="main",task="conn"} 1
# HELP velik_task_quantum_violations_500_total Runs that took 500% of the task's quantum or more.
# TYPE velik_task_quantum_violations_500_total counter
velik_task_quantum_violations_500_total{thread="main",scheduler="main",task="conn"} 2
# HELP velik_task_work_total Work units the tasks of this stats name reported processing.
# TYPE velik_task_work_total counter
velik_task_work_total{thread="main",scheduler="main",task="conn"} 14
# HELP velik_task_work_pending Work units pending, as last reported by the live tasks of this stats name.
# TYPE velik_task_work_pending gauge
velik_task_work_pending{thread="main",scheduler="main",task="conn"} 3
# HELP velik_task_completed_total Finished tasks of this stats name kept in its completed record.
# TYPE velik_task_completed_total counter
velik_task_completed_total{thread="main",scheduler="main",task="conn"} 2
# HELP velik_scheduler_max_slip_seconds Largest delay, in seconds, of a scheduler run behind its request.
# TYPE velik_scheduler_max_slip_seconds gauge
velik_scheduler_max_slip_seconds{thread="main",scheduler="main"} 0.002
# HELP velik_scheduler_runs_total Task runs the scheduler picked from its run queue of this priority.
# TYPE velik_scheduler_runs_total counter
velik_scheduler_runs_total{thread="main",scheduler="main",priority="high"} 40
velik_scheduler_runs_total{thread="main",scheduler="main",priority="normal"} 7
# HELP velik_scheduler_tasks Tasks of this priority on the scheduler: runnable (on the run queue), idle (registered, not runnable) and completed (finished, kept in completed records).
# TYPE velik_scheduler_tasks gauge
velik_scheduler_tasks{thread="main",scheduler="main",priority="high",state="runnable"} 1
velik_scheduler_tasks{thread="main",scheduler="main",priority="high",state="idle"} 2
velik_scheduler_tasks{thread="main",scheduler="main",priority="high",state="completed"} 3
velik_scheduler_tasks{thread="main",scheduler="main",priority="normal",state="runnable"} 0
velik_scheduler_tasks{thread="main",scheduler="main",priority="normal",state="idle"} 1
velik_scheduler_tasks{thread="main",scheduler="main",priority="normal",state="completed"} 0
# HELP velik_scheduler_scheduling_latency_seconds Scheduling latency, in seconds: from a task being put on the scheduler's run queue to the start of the run that took it off.
# TYPE velik_scheduler_scheduling_latency_seconds histogram
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="1e-06"} 2
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="2e-06"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="5e-06"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="1e-05"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="2e-05"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="5e-05"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.0001"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.0002"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.0005"} 3
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.001"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.002"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.005"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.01"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.02"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.05"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.1"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.2"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="0.5"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="1"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="2"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="5"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="10"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="20"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="50"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="100"} 4
velik_scheduler_scheduling_latency_seconds_bucket{thread="main",scheduler="main",le="+Inf"} 6
velik_scheduler_scheduling_latency_seconds_sum{thread="main",scheduler="main"} 0.0025
velik_scheduler_scheduling_latency_seconds_count{thread="main",scheduler="main"} 6
)";
    EXPECT_EQ(Velik::prometheusExposition({smallFigures()}), expected);
}

std::vector<std::string> samplesOf(const std::string& text, std::string_view family) {
    std::vector<std::string> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        if (line.starts_with(std::string(family) + "{")) {
            out.push_back(line);
        }
    }
    return out;
}

TEST(PrometheusExposition, LabelsEscapedAndSeriesApartByThreadAndSchedulerMergedByName) {
    Velik::MetricsThreadFigures a;
    a.thread = "w\n\"1\"";
    a.schedulers = {{"s", 0.5, {{"low", 0, 0, 0, 1}}, {}, {}, {}},
                    {"s", 0.25, {{"low", 0, 0, 0, 2}, {"high", 0, 0, 0, 4}}, {}, {}, {}},
                    {"g", 0, {}, {}, {}, {}}};
    a.tasks = {{"s", "x\\y\x1b", false, 1, 0, 0, 0, 0, 0, 0, {}, {}},
               {"g", "x\\y\x1b", false, 2, 0, 0, 0, 0, 0, 0, {}, {}}};
    Velik::MetricsThreadFigures b = a;
    b.thread = "b";
    const std::string text = Velik::prometheusExposition({a, b});
    EXPECT_THAT(
        samplesOf(text, "velik_task_runs_total"),
        testing::ElementsAre(
            R"(velik_task_runs_total{thread="b",scheduler="g",task="x\\y\\x1b"} 2)",
            R"(velik_task_runs_total{thread="b",scheduler="s",task="x\\y\\x1b"} 1)",
            R"(velik_task_runs_total{thread="w\n\"1\"",scheduler="g",task="x\\y\\x1b"} 2)",
            R"(velik_task_runs_total{thread="w\n\"1\"",scheduler="s",task="x\\y\\x1b"} 1)"));
    // The two schedulers "s" of one thread are one series: runs added per
    // priority, the larger slip.
    EXPECT_THAT(text,
                HasSubstr("velik_scheduler_max_slip_seconds{thread=\"b\",scheduler=\"s\"} 0.5\n"));
    EXPECT_THAT(
        text,
        HasSubstr(
            "velik_scheduler_runs_total{thread=\"b\",scheduler=\"s\",priority=\"low\"} 3\n"
            "velik_scheduler_runs_total{thread=\"b\",scheduler=\"s\",priority=\"high\"} 4\n"));
}

TEST(PrometheusExposition, SlicesMakeTheSameText) {
    const std::vector<Velik::MetricsThreadFigures> threads{smallFigures()};
    const std::string whole = Velik::prometheusExposition(threads);
    for (std::size_t budget : {1u, 7u, 1000u}) {
        Velik::PrometheusRender render(threads);
        std::string text;
        int slices = 0;
        for (bool more = true; more; ++slices) {
            std::string slice;
            more = render.renderSlice(slice, budget);
            text += slice;
        }
        EXPECT_EQ(text, whole) << budget;
        EXPECT_EQ(slices > 10, budget == 1) << budget << ": " << slices;
    }
}

class PrometheusFiguresTest : public VelikTest::ReportTest {};

// A real scheduler's figures: group tasks under the group's scheduler,
// completed records merged with their name, the group's own run histogram,
// and the text promtool accepts.
TEST_F(PrometheusFiguresTest, FromARootAndCheckedByPromtool) {
    const Velik::MetricsThreadFigures figures = Velik::metricsFiguresOf(*root, "main");
    const std::string text = Velik::prometheusExposition({figures, smallFigures()});
    const std::string root = this->root->schedulerName().str();
    EXPECT_THAT(text,
                HasSubstr(R"(velik_task_runs_total{thread="main",scheduler="pool",task="a"} 1)"));
    EXPECT_THAT(
        text,
        HasSubstr(fmt::format(
            R"(velik_task_completed_total{{thread="main",scheduler="{}",task="short"}} 1)", root)));
    // The group's runs of 1.5 ms and 2 ms: the recording bucket of 2 ms
    // reaches past 2 ms, so that run counts under 5 ms, never under 2 ms.
    EXPECT_THAT(
        text,
        HasSubstr(
            R"(velik_scheduler_run_time_seconds_bucket{thread="main",scheduler="pool",le="0.001"} 0
velik_scheduler_run_time_seconds_bucket{thread="main",scheduler="pool",le="0.002"} 1
velik_scheduler_run_time_seconds_bucket{thread="main",scheduler="pool",le="0.005"} 2
)"));
    EXPECT_THAT(
        text,
        HasSubstr(R"(velik_scheduler_run_time_seconds_sum{thread="main",scheduler="pool"} 0.0035
velik_scheduler_run_time_seconds_count{thread="main",scheduler="pool"} 2
)"));

    if (std::system("command -v promtool >/dev/null 2>&1") != 0) {
        GTEST_SKIP() << "promtool is not installed";
    }
    const std::string file = fmt::format("{}/velik-metrics-{}.prom",
                                         std::filesystem::temp_directory_path().string(), getpid());
    std::ofstream(file) << text;
    const int status =
        std::system(fmt::format("promtool check metrics < {0} > {0}.out 2>&1", file).c_str());
    std::ifstream out(file + ".out");
    const std::string verdict{std::istreambuf_iterator<char>(out), {}};
    std::filesystem::remove(file);
    std::filesystem::remove(file + ".out");
    EXPECT_EQ(status, 0) << verdict;
    EXPECT_EQ(verdict, "");
}

}  // namespace
