// Stats endpoint requests and replies.
#include "scheduler/StatsRequest.h"

#include "Velik/TaskSchedulerRoot.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

namespace Velik::Impl {

StatsRequest parseStatsRequest(std::string_view line) {
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    const bool printable =
        std::all_of(line.begin(), line.end(), [](char c) { return c >= 0x20 && c <= 0x7e; });
    if (line.empty() || !printable) {
        return {std::nullopt, "malformed request"};
    }
    if (line == "snapshot") {
        return {StatsVerb::snapshot, {}};
    }
    if (line == "report") {
        return {StatsVerb::report, {}};
    }
    if (line == "history") {
        return {StatsVerb::history, {}};
    }
    return {std::nullopt, "unknown verb, ask for snapshot, report or history"};
}

std::string statsErrorLine(std::string_view reason) {
    return fmt::format("error: {}\n", reason);
}

std::string renderStatsReply(const TaskSchedulerRoot& root, StatsVerb verb, bool includeNoRuns) {
    switch (verb) {
        case StatsVerb::snapshot:
            return root.statsRenderJsonToString(includeNoRuns, true, true);
        case StatsVerb::report:
            return root.statsRenderTextForDebugToString(includeNoRuns, true, false, false);
        case StatsVerb::history:
            return historyRenderLines(root);
    }
    return {};
}

std::string historyRenderLines(const TaskSchedulerRoot& root) {
    fmt::memory_buffer out;
    const auto& events = root.history()->events();
    const std::string& scheduler = root.schedulerName().str();
    // The ring holds the newest first.
    for (auto it = events.rbegin(); it != events.rend(); ++it) {
        fmt::format_to(std::back_inserter(out), "{} {} {} {}\n",
                       it->time.time_since_epoch().count(), scheduler, it->eventTypeDisplay(),
                       it->displayName());
    }
    return fmt::to_string(out);
}

}  // namespace Velik::Impl
