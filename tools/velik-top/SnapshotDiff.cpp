#include "SnapshotDiff.h"

#include <algorithm>
#include <unordered_map>

namespace VelikTop {
namespace {

// The earlier counters, or none when the task began within the interval.
const TaskRow* baseline(const TaskRow& now, const TaskRow* before) {
    if (!before) {
        return nullptr;
    }
    const bool wentDown = now.runCount < before->runCount ||
                          now.totalRunTime < before->totalRunTime ||
                          now.workTotal.value_or(0) < before->workTotal.value_or(0);
    return wentDown ? nullptr : before;
}

}  // namespace

std::vector<TaskRates> rates(const ThreadSnapshot* previous, const ThreadSnapshot& current,
                             double seconds) {
    std::vector<TaskRates> out(current.tasks.size());
    if (!previous || seconds <= 0) {
        return out;
    }
    std::unordered_map<std::string, const TaskRow*> earlier;
    for (const TaskRow& row : previous->tasks) {
        earlier.emplace(row.identity(), &row);
    }
    for (std::size_t i = 0; i < current.tasks.size(); ++i) {
        const TaskRow& now = current.tasks[i];
        const auto it = earlier.find(now.identity());
        const TaskRow* base = baseline(now, it == earlier.end() ? nullptr : it->second);
        const double runs = static_cast<double>(now.runCount - (base ? base->runCount : 0));
        const double time = now.totalRunTime - (base ? base->totalRunTime : 0.0);
        const double work = static_cast<double>(now.workTotal.value_or(0) -
                                                (base ? base->workTotal.value_or(0) : 0));
        const std::uint64_t qvNow = now.qv200 + now.qv500;
        const std::uint64_t qvBefore = base ? base->qv200 + base->qv500 : 0;
        out[i] = {true, runs / seconds, std::clamp(time / seconds, 0.0, 1.0), work / seconds,
                  qvNow > qvBefore ? qvNow - qvBefore : 0};
    }
    return out;
}

double threadShare(const ThreadSnapshot& snapshot, const std::vector<TaskRates>& rates) {
    double share = 0;
    for (std::size_t i = 0; i < snapshot.tasks.size() && i < rates.size(); ++i) {
        if (snapshot.tasks[i].depth == 0 && !snapshot.tasks[i].completed) {
            share += rates[i].share;
        }
    }
    return std::min(share, 1.0);
}

}  // namespace VelikTop
