#include "Prometheus.h"

#include "TableText.h"

#include <fmt/format.h>

#include <algorithm>
#include <functional>
#include <optional>

namespace VelikTop {
namespace {

struct TaskMetric {
    const char* name;
    const char* type;
    const char* help;
    std::function<std::optional<double>(const TaskRow&)> value;
};

const std::vector<TaskMetric>& taskMetrics() {
    static const std::vector<TaskMetric> metrics = {
        {"velik_task_runs_total", "counter", "Times the task has run.",
         [](const TaskRow& r) { return static_cast<double>(r.runCount); }},
        {"velik_task_run_seconds_total", "counter", "Total run time of the task.",
         [](const TaskRow& r) { return r.totalRunTime; }},
        {"velik_task_scheduling_latency_seconds", "gauge",
         "Scheduling latency of the task's latest run.",
         [](const TaskRow& r) { return r.lastLatency; }},
        {"velik_task_scheduling_latency_max_seconds", "gauge",
         "Largest scheduling latency of the task.", [](const TaskRow& r) { return r.maxLatency; }},
        {"velik_task_run_max_seconds", "gauge", "Longest single run of the task.",
         [](const TaskRow& r) { return static_cast<double>(r.maxMs) / 1000.0; }},
        {"velik_task_quantum_violations_200_total", "counter",
         "Runs that used more than 200% of the task's quantum.",
         [](const TaskRow& r) { return static_cast<double>(r.qv200); }},
        {"velik_task_quantum_violations_500_total", "counter",
         "Runs that used more than 500% of the task's quantum.",
         [](const TaskRow& r) { return static_cast<double>(r.qv500); }},
        {"velik_task_work_total", "counter", "Work units the task has reported processing.",
         [](const TaskRow& r) -> std::optional<double> {
             return r.workTotal ? std::optional<double>(static_cast<double>(*r.workTotal))
                                : std::nullopt;
         }},
        {"velik_task_work_pending", "gauge", "Work units pending, as last reported by the task.",
         [](const TaskRow& r) -> std::optional<double> {
             return r.workPending ? std::optional<double>(static_cast<double>(*r.workPending))
                                  : std::nullopt;
         }},
        {"velik_task_completed_total", "counter", "Finished tasks summed into a completed record.",
         [](const TaskRow& r) -> std::optional<double> {
             return r.completed ? std::optional<double>(static_cast<double>(r.completedCount))
                                : std::nullopt;
         }},
    };
    return metrics;
}

void heading(std::string& out, const char* name, const char* type, const char* help) {
    out += fmt::format("# HELP {} {}\n# TYPE {} {}\n", name, help, name, type);
}

std::string number(double v) {
    return fmt::format("{}", v);
}

std::string taskLabels(const ThreadSnapshot& thread, const TaskRow& row) {
    return fmt::format(
        "thread=\"{}\",scheduler=\"{}\",task=\"{}\",address=\"{}\",priority=\"{}\",state=\"{}\"",
        escapeLabelValue(thread.thread), escapeLabelValue(row.scheduler),
        escapeLabelValue(row.name), escapeLabelValue(row.address), escapeLabelValue(row.priority),
        row.completed ? "completed" : "live");
}

std::string schedulerLabels(const ThreadSnapshot& thread, const SchedulerRow& s) {
    return fmt::format("thread=\"{}\",scheduler=\"{}\"", escapeLabelValue(thread.thread),
                       escapeLabelValue(s.name));
}

void schedulerMetrics(std::string& out, const std::vector<ThreadSnapshot>& threads) {
    heading(out, "velik_scheduler_max_slip_seconds", "gauge",
            "Largest delay of a scheduler run behind its request.");
    for (const ThreadSnapshot& t : threads) {
        for (const SchedulerRow& s : t.schedulers) {
            out += fmt::format("velik_scheduler_max_slip_seconds{{{}}} {}\n", schedulerLabels(t, s),
                               number(s.maxSlip));
        }
    }
    heading(out, "velik_scheduler_runs_total", "counter", "Task runs per scheduler and priority.");
    for (const ThreadSnapshot& t : threads) {
        for (const SchedulerRow& s : t.schedulers) {
            for (const auto& [priority, counts] : s.priorities) {
                out += fmt::format("velik_scheduler_runs_total{{{},priority=\"{}\"}} {}\n",
                                   schedulerLabels(t, s), escapeLabelValue(priority), counts.runs);
            }
        }
    }
    heading(out, "velik_scheduler_tasks", "gauge",
            "Tasks per scheduler, priority and state (runnable, idle, completed).");
    for (const ThreadSnapshot& t : threads) {
        for (const SchedulerRow& s : t.schedulers) {
            for (const auto& [priority, c] : s.priorities) {
                const std::string labels = fmt::format("{},priority=\"{}\"", schedulerLabels(t, s),
                                                       escapeLabelValue(priority));
                out += fmt::format(
                    "velik_scheduler_tasks{{{0},state=\"runnable\"}} {1}\n"
                    "velik_scheduler_tasks{{{0},state=\"idle\"}} {2}\n"
                    "velik_scheduler_tasks{{{0},state=\"completed\"}} {3}\n",
                    labels, c.runnable, c.idle, c.completed);
            }
        }
    }
}

}  // namespace

std::string escapeLabelValue(std::string_view value) {
    std::string out;
    out.reserve(value.size());
    for (std::size_t start = 0;;) {
        const std::size_t newline = std::min(value.find('\n', start), value.size());
        // Other controls and broken UTF-8 as the viewer shows them, "\x1b";
        // that text's backslash is escaped like any other.
        for (const char c : printable(value.substr(start, newline - start))) {
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

std::string prometheusText(const std::vector<ThreadSnapshot>& threads) {
    std::string out;
    for (const TaskMetric& m : taskMetrics()) {
        heading(out, m.name, m.type, m.help);
        for (const ThreadSnapshot& t : threads) {
            for (const TaskRow& row : t.tasks) {
                if (row.standIn) {
                    continue;  // no figures of its own
                }
                if (const auto v = m.value(row)) {
                    out += fmt::format("{}{{{}}} {}\n", m.name, taskLabels(t, row), number(*v));
                }
            }
        }
    }
    schedulerMetrics(out, threads);
    return out;
}

}  // namespace VelikTop
