// What a scrape of `/metrics` costs the daemon's thread with 10 thousand
// tasks: reading the figures (snapshot, histograms and model, on the root's thread), and
// rendering the exposition, whole and per slice of 500 samples; once with
// every task of its own stats name, once with all of them sharing one name
// (merged into one series).
#include <Velik/PrometheusExposition.h>
#include <Velik/Task.h>
#include <Velik/TaskSchedulerRoot.h>
#include <Velik/TaskSchedulerSnapshot.h>

#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr int taskCount = 10000;

class Worker : public Velik::Task {
  public:
    using Task::Task;
    void taskExecute() override {}
};

struct Tasks {
    // A root of its own: what earlier runs left on the thread's root stays out.
    explicit Tasks(bool distinct) : root(Velik::TaskSchedulerRootIs("main")) {
        for (int i = 0; i < taskCount; ++i) {
            tasks.push_back(
                std::make_shared<Worker>(root.get(), Velik::TaskPriority::normal,
                                         distinct ? "conn" + std::to_string(i) : "conn"));
        }
    }
    Velik::MetricsThreadFigures figures() const {
        return Velik::metricsFiguresOf(*root, "main");  // as the daemon reads them
    }
    std::shared_ptr<Velik::TaskSchedulerRoot> root;
    std::vector<std::shared_ptr<Worker>> tasks;
};

void BM_MetricsFigures(benchmark::State& state) {
    const Tasks tasks(state.range(0) != 0);
    for (auto _ : state) {
        benchmark::DoNotOptimize(tasks.figures());
    }
}
BENCHMARK(BM_MetricsFigures)->Arg(1)->Arg(0)->ArgName("distinct")->Unit(benchmark::kMillisecond);

void BM_MetricsRender(benchmark::State& state) {
    const std::vector<Velik::MetricsThreadFigures> figures{Tasks(state.range(0) != 0).figures()};
    std::size_t bytes = 0;
    double longestSliceUs = 0;
    double mergeUs = 0;
    for (auto _ : state) {
        const auto made = std::chrono::steady_clock::now();
        Velik::PrometheusRender render(figures);
        mergeUs = std::chrono::duration<double, std::micro>(std::chrono::steady_clock::now() - made)
                      .count();
        std::string out;
        for (bool more = true; more;) {
            const auto start = std::chrono::steady_clock::now();
            more = render.renderSlice(out, 500);
            longestSliceUs = std::max(longestSliceUs, std::chrono::duration<double, std::micro>(
                                                          std::chrono::steady_clock::now() - start)
                                                          .count());
        }
        bytes = out.size();
        state.counters["lines"] = static_cast<double>(std::count(out.begin(), out.end(), '\n'));
    }
    state.counters["bytes"] = static_cast<double>(bytes);
    state.counters["longestSliceUs"] = longestSliceUs;
    state.counters["mergeUs"] = mergeUs;
}
BENCHMARK(BM_MetricsRender)->Arg(1)->Arg(0)->ArgName("distinct")->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
