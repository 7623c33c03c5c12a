// The Prometheus text exposition: figures merged into series, then rendered
// family by family, a few samples per slice. Depends only on fmt and the
// standard library (velik-top builds it in).
#include "Velik/PrometheusExposition.h"

#include "report/StatsPrintable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <iterator>
#include <limits>
#include <map>
#include <tuple>
#include <utility>
#include <variant>

namespace Velik {

namespace {

struct TaskSeries {
    std::string labels;  // thread, scheduler, task; escaped
    MetricsTaskRecord sum;
    std::uint64_t instances = 0;
};

struct SchedulerSeries {
    std::string labels;  // thread, scheduler; escaped
    MetricsSchedulerFigures sum;
};

void appendNumber(std::string& out, double v) {
    if (std::isnan(v)) {
        out += "NaN";
    } else if (std::isinf(v)) {
        out += v > 0 ? "+Inf" : "-Inf";
    } else {
        fmt::format_to(std::back_inserter(out), "{}", v);
    }
}

void appendNumber(std::string& out, std::uint64_t v) {
    fmt::format_to(std::back_inserter(out), "{}", v);
}

double seconds(std::int64_t ns) {
    return static_cast<double>(ns) / 1e9;
}

// One sample line: name{labels} value.
template <typename Number>
void appendSample(std::string& out, std::string_view name, std::string_view labels, Number value) {
    out += name;
    out += '{';
    out += labels;
    out += "} ";
    appendNumber(out, value);
    out += '\n';
}

void mergeTask(TaskSeries& into, const MetricsTaskRecord& r) {
    MetricsTaskRecord& s = into.sum;
    into.instances += r.completed ? 0 : 1;
    s.runs += r.runs;
    s.runSeconds += r.runSeconds;
    s.runMaxSeconds = std::max(s.runMaxSeconds, r.runMaxSeconds);
    s.latencyMaxSeconds = std::max(s.latencyMaxSeconds, r.latencyMaxSeconds);
    s.qv200 += r.qv200;
    s.qv500 += r.qv500;
    s.completedCount += r.completedCount;
    s.completed = s.completed || r.completed;
    if (r.workTotal) {
        s.workTotal = s.workTotal.value_or(0) + *r.workTotal;
    }
    // What a finished task left pending is pending no more.
    if (r.workPending && !r.completed) {
        s.workPending = s.workPending.value_or(0) + *r.workPending;
    }
}

void mergeHistogram(std::optional<MetricsHistogram>& into,
                    const std::optional<MetricsHistogram>& h) {
    if (!h) {
        return;
    }
    if (!into) {
        into = h;
        return;
    }
    const auto sameBound = [](const MetricsHistogram::Bucket& a,
                              const MetricsHistogram::Bucket& b) {
        return a.upperBoundNs == b.upperBoundNs;
    };
    if (!std::equal(into->buckets.begin(), into->buckets.end(), h->buckets.begin(),
                    h->buckets.end(), sameBound)) {
        return;  // other bounds: not summable, the first one stands
    }
    for (std::size_t i = 0; i < h->buckets.size(); ++i) {
        into->buckets[i].count += h->buckets[i].count;
    }
    into->count += h->count;
    into->sumNs += h->sumNs;
}

void mergeScheduler(SchedulerSeries& into, const MetricsSchedulerFigures& f) {
    MetricsSchedulerFigures& s = into.sum;
    s.maxSlipSeconds = std::max(s.maxSlipSeconds, f.maxSlipSeconds);
    for (const MetricsPriorityCounts& p : f.priorities) {
        auto it =
            std::find_if(s.priorities.begin(), s.priorities.end(),
                         [&](const MetricsPriorityCounts& q) { return q.priority == p.priority; });
        if (it == s.priorities.end()) {
            s.priorities.push_back(p);
            continue;
        }
        it->runnable += p.runnable;
        it->idle += p.idle;
        it->completed += p.completed;
        it->runs += p.runs;
    }
    mergeHistogram(s.runTime, f.runTime);
    mergeHistogram(s.latency, f.latency);
    mergeHistogram(s.timerLateness, f.timerLateness);
}

// The series of one histogram: cumulative buckets, the +Inf bucket, sum and
// count. Returns the number of lines.
std::size_t appendHistogram(std::string& out, std::string_view name, std::string_view labels,
                            const MetricsHistogram& h) {
    std::uint64_t cumulative = 0;
    std::size_t lines = 0;
    for (const MetricsHistogram::Bucket& b : h.buckets) {
        if (b.upperBoundNs == std::numeric_limits<std::int64_t>::max()) {
            break;  // the +Inf bucket is the count, below
        }
        cumulative += b.count;
        fmt::format_to(std::back_inserter(out), "{}_bucket{{{},le=\"", name, labels);
        appendNumber(out, seconds(b.upperBoundNs));
        out += "\"} ";
        appendNumber(out, cumulative);
        out += '\n';
        ++lines;
    }
    fmt::format_to(std::back_inserter(out), "{0}_bucket{{{1},le=\"+Inf\"}} {2}\n", name, labels,
                   h.count);
    fmt::format_to(std::back_inserter(out), "{}_sum{{{}}} ", name, labels);
    appendNumber(out, seconds(h.sumNs));
    fmt::format_to(std::back_inserter(out), "\n{}_count{{{}}} {}\n", name, labels, h.count);
    return lines + 3;
}

// A metric family: its heading, and a renderer per series that appends its
// lines (none when the series has no sample in it) and returns how many.
struct Family {
    const char* name;
    const char* type;
    const char* help;
    std::size_t seriesCount;
    std::function<std::size_t(std::size_t, std::string&)> render;
};

// Counts stay integers (a 64-bit total is not rounded through a double).
using Number = std::variant<std::uint64_t, double>;
using TaskValue = std::function<std::optional<Number>(const TaskSeries&)>;

}  // namespace

struct PrometheusRender::State {
    std::vector<TaskSeries> tasks;
    std::vector<SchedulerSeries> schedulers;
    std::vector<Family> families;
    std::size_t family = 0;
    std::size_t series = 0;
    bool headed = false;

    explicit State(const std::vector<MetricsThreadFigures>& threads);
    void taskFamily(const char* name, const char* type, const char* help, TaskValue value);
    void schedulerFamily(const char* name, const char* type, const char* help,
                         std::function<std::size_t(const SchedulerSeries&, std::string&)> render);
    void histogramFamily(const char* name, const char* help,
                         std::optional<MetricsHistogram> MetricsSchedulerFigures::*member);
};

PrometheusRender::State::State(const std::vector<MetricsThreadFigures>& threads) {
    using Key = std::tuple<std::string_view, std::string_view, std::string_view>;
    std::map<Key, std::size_t> taskIndex;
    std::map<Key, std::size_t> schedulerIndex;
    for (const MetricsThreadFigures& t : threads) {
        const std::string thread = prometheusLabelValue(t.thread);
        for (const MetricsSchedulerFigures& f : t.schedulers) {
            auto [it, fresh] =
                schedulerIndex.try_emplace(Key{t.thread, f.name, {}}, schedulers.size());
            if (fresh) {
                schedulers.push_back({fmt::format("thread=\"{}\",scheduler=\"{}\"", thread,
                                                  prometheusLabelValue(f.name)),
                                      {f.name, 0, {}, {}, {}, {}}});
            }
            mergeScheduler(schedulers[it->second], f);
        }
        for (const MetricsTaskRecord& r : t.tasks) {
            auto [it, fresh] =
                taskIndex.try_emplace(Key{t.thread, r.scheduler, r.name}, tasks.size());
            if (fresh) {
                tasks.push_back(
                    {fmt::format("thread=\"{}\",scheduler=\"{}\",task=\"{}\"", thread,
                                 prometheusLabelValue(r.scheduler), prometheusLabelValue(r.name)),
                     {},
                     0});
            }
            mergeTask(tasks[it->second], r);
        }
    }
    // Series in label order, so that the text is the same whatever order the
    // records came in.
    std::sort(tasks.begin(), tasks.end(),
              [](const TaskSeries& a, const TaskSeries& b) { return a.labels < b.labels; });
    std::sort(
        schedulers.begin(), schedulers.end(),
        [](const SchedulerSeries& a, const SchedulerSeries& b) { return a.labels < b.labels; });

    taskFamily("velik_task_instances", "gauge",
               "Live tasks of this stats name on the scheduler, merged into its series.",
               [](const TaskSeries& s) { return Number(s.instances); });
    taskFamily("velik_task_runs_total", "counter",
               "Runs of the tasks of this stats name, live ones and those kept as completed.",
               [](const TaskSeries& s) { return Number(s.sum.runs); });
    taskFamily("velik_task_run_seconds_total", "counter",
               "Seconds spent running the tasks of this stats name.",
               [](const TaskSeries& s) { return Number(s.sum.runSeconds); });
    taskFamily("velik_task_run_max_seconds", "gauge",
               "Longest single run of a task of this stats name, in seconds, since its "
               "statistics were reset.",
               [](const TaskSeries& s) { return Number(s.sum.runMaxSeconds); });
    taskFamily("velik_task_scheduling_latency_max_seconds", "gauge",
               "Largest delay, in seconds, between a task of this stats name becoming runnable "
               "and running, since its statistics were reset.",
               [](const TaskSeries& s) { return Number(s.sum.latencyMaxSeconds); });
    taskFamily("velik_task_quantum_violations_200_total", "counter",
               "Runs that took at least 200% and less than 500% of the task's quantum.",
               [](const TaskSeries& s) { return Number(s.sum.qv200); });
    taskFamily("velik_task_quantum_violations_500_total", "counter",
               "Runs that took 500% of the task's quantum or more.",
               [](const TaskSeries& s) { return Number(s.sum.qv500); });
    taskFamily("velik_task_work_total", "counter",
               "Work units the tasks of this stats name reported processing.",
               [](const TaskSeries& s) -> std::optional<Number> {
                   return s.sum.workTotal ? std::optional<Number>(*s.sum.workTotal) : std::nullopt;
               });
    taskFamily("velik_task_work_pending", "gauge",
               "Work units pending, as last reported by the live tasks of this stats name.",
               [](const TaskSeries& s) -> std::optional<Number> {
                   return s.sum.workPending ? std::optional<Number>(*s.sum.workPending)
                                            : std::nullopt;
               });
    taskFamily("velik_task_completed_total", "counter",
               "Finished tasks of this stats name kept in its completed record.",
               [](const TaskSeries& s) -> std::optional<Number> {
                   return s.sum.completed ? std::optional<Number>(s.sum.completedCount)
                                          : std::nullopt;
               });

    schedulerFamily("velik_scheduler_max_slip_seconds", "gauge",
                    "Largest delay, in seconds, of a scheduler run behind its request.",
                    [](const SchedulerSeries& s, std::string& out) -> std::size_t {
                        appendSample(out, "velik_scheduler_max_slip_seconds", s.labels,
                                     s.sum.maxSlipSeconds);
                        return 1;
                    });
    schedulerFamily("velik_scheduler_runs_total", "counter",
                    "Task runs the scheduler picked from its run queue of this priority.",
                    [](const SchedulerSeries& s, std::string& out) {
                        for (const MetricsPriorityCounts& p : s.sum.priorities) {
                            fmt::format_to(std::back_inserter(out),
                                           "velik_scheduler_runs_total{{{},priority=\"{}\"}} {}\n",
                                           s.labels, prometheusLabelValue(p.priority), p.runs);
                        }
                        return s.sum.priorities.size();
                    });
    schedulerFamily(
        "velik_scheduler_tasks", "gauge",
        "Tasks of this priority on the scheduler: runnable (on the run queue), idle (registered, "
        "not runnable) and completed (finished, kept in completed records).",
        [](const SchedulerSeries& s, std::string& out) {
            for (const MetricsPriorityCounts& p : s.sum.priorities) {
                fmt::format_to(
                    std::back_inserter(out),
                    "velik_scheduler_tasks{{{0},priority=\"{1}\",state=\"runnable\"}} {2}\n"
                    "velik_scheduler_tasks{{{0},priority=\"{1}\",state=\"idle\"}} {3}\n"
                    "velik_scheduler_tasks{{{0},priority=\"{1}\",state=\"completed\"}} "
                    "{4}\n",
                    s.labels, prometheusLabelValue(p.priority), p.runnable, p.idle, p.completed);
            }
            return 3 * s.sum.priorities.size();
        });
    histogramFamily("velik_scheduler_run_time_seconds",
                    "Run time, in seconds, of each task run the scheduler made; a task group's "
                    "run counts here as one run, its tasks' runs in the group's own series.",
                    &MetricsSchedulerFigures::runTime);
    histogramFamily("velik_scheduler_scheduling_latency_seconds",
                    "Scheduling latency, in seconds: from a task being put on the scheduler's "
                    "run queue to the start of the run that took it off.",
                    &MetricsSchedulerFigures::latency);
    histogramFamily("velik_scheduler_timer_lateness_seconds",
                    "Timer lateness, in seconds: from the expiry a timer task was armed for to "
                    "the start of the run that expiry caused.",
                    &MetricsSchedulerFigures::timerLateness);
}

void PrometheusRender::State::taskFamily(const char* name, const char* type, const char* help,
                                         TaskValue value) {
    families.push_back({name, type, help, tasks.size(),
                        [this, name, value = std::move(value)](std::size_t i, std::string& out) {
                            const std::optional<Number> v = value(tasks[i]);
                            if (!v) {
                                return std::size_t{0};
                            }
                            std::visit([&](auto n) { appendSample(out, name, tasks[i].labels, n); },
                                       *v);
                            return std::size_t{1};
                        }});
}

void PrometheusRender::State::schedulerFamily(
    const char* name, const char* type, const char* help,
    std::function<std::size_t(const SchedulerSeries&, std::string&)> render) {
    families.push_back({name, type, help, schedulers.size(),
                        [this, render = std::move(render)](std::size_t i, std::string& out) {
                            return render(schedulers[i], out);
                        }});
}

void PrometheusRender::State::histogramFamily(
    const char* name, const char* help,
    std::optional<MetricsHistogram> MetricsSchedulerFigures::*member) {
    schedulerFamily(name, "histogram", help,
                    [name, member](const SchedulerSeries& s, std::string& out) -> std::size_t {
                        const std::optional<MetricsHistogram>& h = s.sum.*member;
                        return h ? appendHistogram(out, name, s.labels, *h) : 0;
                    });
}

PrometheusRender::PrometheusRender(const std::vector<MetricsThreadFigures>& threads)
    : state_(std::make_unique<State>(threads)) {}
PrometheusRender::PrometheusRender(PrometheusRender&&) noexcept = default;
PrometheusRender::~PrometheusRender() = default;

bool PrometheusRender::renderSlice(std::string& out, std::size_t samplesPerSlice) {
    State& s = *state_;
    std::size_t lines = 0;
    std::string scratch;
    while (s.family < s.families.size()) {
        const Family& f = s.families[s.family];
        if (!s.headed) {
            // The heading only for a family with samples: rendered once
            // aside to learn where its first one is.
            for (; s.series < f.seriesCount && f.render(s.series, scratch) == 0; ++s.series) {
            }
            scratch.clear();
            if (s.series == f.seriesCount) {
                ++s.family;
                s.series = 0;
                continue;
            }
            fmt::format_to(std::back_inserter(out), "# HELP {0} {1}\n# TYPE {0} {2}\n", f.name,
                           f.help, f.type);
            s.headed = true;
        }
        for (; s.series < f.seriesCount; ++s.series) {
            if (lines >= samplesPerSlice) {
                return true;
            }
            lines += f.render(s.series, out);
        }
        ++s.family;
        s.series = 0;
        s.headed = false;
    }
    return false;
}

std::string prometheusExposition(const std::vector<MetricsThreadFigures>& threads) {
    std::string out;
    PrometheusRender render(threads);
    while (render.renderSlice(out, std::numeric_limits<std::size_t>::max())) {
    }
    return out;
}

std::string prometheusLabelValue(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t start = 0;;) {
        const std::size_t newline = std::min(value.find('\n', start), value.size());
        // Other controls and broken UTF-8 as "\x1b" text, whose backslash is
        // then escaped like any other.
        for (const char c : Impl::printableText(value.substr(start, newline - start))) {
            if (c == '\\' || c == '"') {
                out += '\\';
            }
            out += c;
        }
        if (newline == value.size()) {
            return out;
        }
        out += "\\n";
        start = newline + 1;
    }
}

}  // namespace Velik
