// The daemon's run histograms (the `histograms` request), read into the
// quantiles the viewer shows: scheduling latency and timer lateness per
// scheduler, and per task for tasks that keep their own.
//
//   VelikTop::HistogramSet set = VelikTop::parseHistograms(reply);
//   if (const auto* h = VelikTop::histogramsOf(set, row, snapshot)) { ... h->latency->p99 ... }
//
// Times are read from nanoseconds into seconds, like the snapshot's. Reading
// is lenient: a histogram that is missing or not an object is absent.
#pragma once

#include "SnapshotModel.h"

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace VelikTop {

struct Quantiles {
    std::uint64_t count = 0;
    double p50 = 0, p90 = 0, p99 = 0, p999 = 0, max = 0;  // seconds
};

struct RunHistograms {
    std::optional<Quantiles> runTime, latency, timerLateness;
};

struct HistogramSet {
    std::string root;  // the name of the root scheduler
    std::map<std::string, RunHistograms> schedulers;
    std::map<std::pair<std::string, std::string>, RunHistograms> tasks;  // (scheduler, name)
};

// Throws `TopError` (`exitMalformed`) for text that is not a JSON object.
HistogramSet parseHistograms(std::string_view json);

// The histograms a table row stands for: a group's are its scheduler's, a
// task's its own; null when the daemon keeps none for it.
const RunHistograms* histogramsOf(const HistogramSet& set, const TaskRow& row,
                                  const ThreadSnapshot& snapshot);

}  // namespace VelikTop
