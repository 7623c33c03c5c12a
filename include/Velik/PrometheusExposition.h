// The statistics of one or more threads in the Prometheus text exposition
// format (version 0.0.4), as the daemon serves it on `/metrics`
// (MetricsEndpoint.h) and `velik-top --prometheus` prints it.
//
// Both fill the same plain model, `MetricsThreadFigures`, and render it with
// `PrometheusRender`: the daemon from its root on the root's thread
// (`metricsFiguresOf`: a `TaskSchedulerSnapshot` and the schedulers' run
// histograms), velik-top from the JSON snapshot it read, which carries no
// histograms. The model holds only strings and numbers, so it may be built
// on one thread and rendered on another; the renderer's source depends on
// nothing but fmt and the standard library, so that velik-top builds it in
// without linking the library.
//
//   std::vector<Velik::MetricsThreadFigures> threads{
//       Velik::metricsFiguresOf(*root, "main")};
//   std::string text = Velik::prometheusExposition(threads);
//
// Families, each with one HELP and one TYPE line before its samples, and
// only when it has samples:
//
//   velik_task_instances                       gauge    live tasks merged into the series
//   velik_task_runs_total                      counter
//   velik_task_run_seconds_total               counter
//   velik_task_run_max_seconds                 gauge
//   velik_task_scheduling_latency_max_seconds  gauge
//   velik_task_quantum_violations_200_total    counter  runs of 200% up to 500% of the quantum
//   velik_task_quantum_violations_500_total    counter  runs of 500% of the quantum or more
//   velik_task_work_total                      counter  only tasks that reported work
//   velik_task_work_pending                    gauge    only tasks that reported pending work
//   velik_task_completed_total                 counter  only names with completed records
//   velik_scheduler_max_slip_seconds           gauge
//   velik_scheduler_runs_total                 counter  per priority
//   velik_scheduler_tasks                      gauge    per priority and state
//   velik_scheduler_run_time_seconds           histogram
//   velik_scheduler_scheduling_latency_seconds histogram
//   velik_scheduler_timer_lateness_seconds     histogram
//
// Labels are bounded: `thread` (the name the daemon gives the thread, not its
// id), `scheduler` (the scheduler's name), `task` (the stats name), and for
// scheduler families `priority` and `state`. There is no task address: every
// live task of one stats name on one scheduler, and the completed record of
// that name, are merged into one series (sums of counters, the largest of the
// high-water marks), and `velik_task_instances` says how many live tasks it
// holds. Schedulers of one name on one thread are merged alike. Label values
// are escaped as the format wants (backslash, double quote and line feed as
// \\, \" and \n); other control characters and bytes that are not UTF-8 are
// first shown as the text "\x1b" (`Impl::printableText`), so the exposition
// is valid UTF-8.
//
// Histograms. Each scheduler's run time, scheduling latency and timer
// lateness (RunHistograms.h) in seconds, with the buckets of
// `metricsHistogramBoundsNs`: 1, 2 and 5 per decade from 1 µs to 100 s, then
// +Inf. The set is fixed and always whole, empty buckets included: a series
// must keep its set of `le` values over time, or `rate()` and `sum by (le)`
// mix buckets that some samples lack; and 28 lines a histogram keep the
// scrape small where the recording layout's 242 buckets would not. A
// recording bucket is counted under the first bound not below its upper
// edge, so `le` never claims a sample that may lie above it; a quantile read
// from the export is at most one recording bucket (12.5%) high besides the
// interpolation within the coarse bucket. A recording bucket stops at 2^32 -
// 1 samples (until the statistics reset) while `_count` goes on, which then
// shows as samples above the highest bound.
//
// Counter resets. A task keeps its run count, its two quantum-violation
// counts and its completed count in 32 bits, which wrap. They are exported as
// the plain sum of what the records hold, never corrected, so a wrap shows as
// the counter going down, which Prometheus takes for a reset: `rate()` and
// `increase()` stay right across it. The same happens, and is read the same
// way, when statistics are reset, and when a live task that keeps no
// completed record ends.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Velik {

class TaskSchedulerRoot;
class TaskSchedulerSnapshot;

// A latency histogram's figures by value.
struct MetricsHistogram {
    struct Bucket {
        std::int64_t upperBoundNs;  // inclusive; INT64_MAX is +Inf
        std::uint64_t count;        // samples in this bucket alone
    };
    std::vector<Bucket> buckets;  // ascending bounds
    std::uint64_t count = 0;
    std::int64_t sumNs = 0;
};

// The upper bounds, in nanoseconds, of the exported histogram buckets (see
// above); +Inf follows.
inline constexpr std::array<std::int64_t, 25> metricsHistogramBoundsNs{
    1'000,         2'000,          5'000,          10'000,         20'000,
    50'000,        100'000,        200'000,        500'000,        1'000'000,
    2'000'000,     5'000'000,      10'000'000,     20'000'000,     50'000'000,
    100'000'000,   200'000'000,    500'000'000,    1'000'000'000,  2'000'000'000,
    5'000'000'000, 10'000'000'000, 20'000'000'000, 50'000'000'000, 100'000'000'000};

// The one place histogram figures are read from a histogram object: any type
// with `bucketCount()`, `bucketUpperBoundNs(i)` (inclusive upper edge, the
// last INT64_MAX for +Inf), `bucketCountAt(i)`, `count()` and `sumNs()`. Its
// buckets are merged into those of `metricsHistogramBoundsNs` and +Inf.
template <typename Histogram>
MetricsHistogram metricsHistogramOf(const Histogram& histogram) {
    MetricsHistogram out;
    out.buckets.reserve(metricsHistogramBoundsNs.size() + 1);
    for (std::int64_t bound : metricsHistogramBoundsNs) {
        out.buckets.push_back({bound, 0});
    }
    out.buckets.push_back({std::numeric_limits<std::int64_t>::max(), 0});
    const std::size_t n = histogram.bucketCount();
    for (std::size_t i = 0; i < n; ++i) {
        const auto count = static_cast<std::uint64_t>(histogram.bucketCountAt(i));
        if (count == 0) {
            continue;
        }
        const auto upper = static_cast<std::int64_t>(histogram.bucketUpperBoundNs(i));
        const auto into = std::lower_bound(metricsHistogramBoundsNs.begin(),
                                           metricsHistogramBoundsNs.end(), upper);
        out.buckets[static_cast<std::size_t>(into - metricsHistogramBoundsNs.begin())].count +=
            count;
    }
    out.count = static_cast<std::uint64_t>(histogram.count());
    out.sumNs = static_cast<std::int64_t>(histogram.sumNs());
    return out;
}

// One task record: a live task, or the completed record of a stats name.
struct MetricsTaskRecord {
    std::string scheduler;
    std::string name;
    bool completed = false;
    std::uint64_t runs = 0;  // 32 bits in the library: wraps (see above)
    double runSeconds = 0;
    double runMaxSeconds = 0;
    double latencyMaxSeconds = 0;
    std::uint64_t qv200 = 0, qv500 = 0;        // 32 bits in the library
    std::uint64_t completedCount = 0;          // 32 bits in the library
    std::optional<std::uint64_t> workTotal;    // none: never reported work
    std::optional<std::uint64_t> workPending;  // none: never reported pending work
};

struct MetricsPriorityCounts {
    std::string priority;  // its text form, "normal"
    std::uint64_t runnable = 0, idle = 0, completed = 0, runs = 0;
};

struct MetricsSchedulerFigures {
    std::string name;
    double maxSlipSeconds = 0;
    std::vector<MetricsPriorityCounts> priorities;  // ascending priority
    std::optional<MetricsHistogram> runTime, latency, timerLateness;
};

struct MetricsThreadFigures {
    std::string thread;
    std::vector<MetricsSchedulerFigures> schedulers;
    std::vector<MetricsTaskRecord> tasks;
};

// The figures of `snapshot` (a root's, with its task groups' schedulers) as
// thread `thread`, without histograms. Call it on the snapshot's thread; the
// result goes anywhere.
MetricsThreadFigures metricsFiguresOf(const TaskSchedulerSnapshot& snapshot, std::string thread);
// The figures of `root` and its task groups, their run histograms included
// (those of schedulers of one name summed), as thread `thread`. Call it on
// the root's thread.
MetricsThreadFigures metricsFiguresOf(const TaskSchedulerRoot& root, std::string thread);

// Renders the exposition a few samples at a time, so that a daemon with many
// tasks answers without one long run. The figures are merged into series
// when it is made (a pass over the records); each slice then appends about
// `samplesPerSlice` lines.
class PrometheusRender {
  public:
    explicit PrometheusRender(const std::vector<MetricsThreadFigures>& threads);
    PrometheusRender(PrometheusRender&&) noexcept;
    ~PrometheusRender();

    // Appends the next lines to `out`; returns whether more is to come.
    bool renderSlice(std::string& out, std::size_t samplesPerSlice);

  private:
    struct State;
    std::unique_ptr<State> state_;
};

// The whole exposition at once.
std::string prometheusExposition(const std::vector<MetricsThreadFigures>& threads);

// A label value escaped as described above.
std::string prometheusLabelValue(std::string_view value);

}  // namespace Velik
