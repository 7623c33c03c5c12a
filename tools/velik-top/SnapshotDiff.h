// Rates from two snapshots of one thread taken some seconds apart.
//
// A task's rates are the growth of its counters over the interval: runs per
// second, its share of the thread's time (run time gained per second of
// wall time) and work per second. A task that is new since the earlier
// snapshot, or whose counters went down (it was deleted and another took
// its address, or its statistics were reset), counts from zero: it began
// within the interval. Rates are thus never negative.
#pragma once

#include "SnapshotModel.h"

#include <cstdint>
#include <vector>

namespace VelikTop {

struct TaskRates {
    bool known = false;  // false without an earlier snapshot
    double runsPerSecond = 0;
    double share = 0;  // fraction of the interval the task ran, 0 to 1
    double workPerSecond = 0;
    // Quantum violations (of either kind) added over the interval.
    std::uint64_t violationsGained = 0;
};

// One entry per row of `current.tasks`, in the same order. `previous` may be
// null (then no rate is known), as may `seconds` be zero or less.
std::vector<TaskRates> rates(const ThreadSnapshot* previous, const ThreadSnapshot& current,
                             double seconds);

// The thread's busy share: the sum of the shares of its top-level tasks (a
// group's share already holds those of its tasks). Completed records are
// left out: their time was counted while they were live.
double threadShare(const ThreadSnapshot& snapshot, const std::vector<TaskRates>& rates);

}  // namespace VelikTop
