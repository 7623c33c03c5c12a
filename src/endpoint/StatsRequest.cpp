// Stats endpoint requests and replies.
#include "endpoint/StatsRequest.h"

#include <fmt/format.h>

#include <algorithm>

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
    if (line == "inbox") {
        return {StatsVerb::inbox, {}};
    }
    if (line == "histograms") {
        return {StatsVerb::histograms, {}};
    }
    if (line == "status") {
        return {StatsVerb::status, {}};
    }
    if (line == "stalls") {
        return {StatsVerb::stalls, {}};
    }
    if (line == "waits") {
        return {StatsVerb::waits, {}};
    }
    return {std::nullopt, "unknown verb, ask for snapshot, report or history"};
}

std::string statsErrorLine(std::string_view reason) {
    return fmt::format("error: {}\n", reason);
}

}  // namespace Velik::Impl
