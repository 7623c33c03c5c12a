// The most recent scheduler events of all shown threads, newest first, one
// line each:
//
//    11613.042950642  main  main  timerStop    L housekeeping
//
// (seconds since boot, thread, scheduler, event type, and the task's
// priority letter and name or the scheduler's name).
#pragma once

#include "SnapshotModel.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

// At most `count` lines, newest event first across all `threads`; the
// stats endpoint's own tasks' events only with `showOwn`.
std::vector<std::string> formatHistory(const std::vector<const ThreadSnapshot*>& threads,
                                       std::size_t count, bool showOwn = true);

// One line of the `history` reply: "<nsSinceBoot> <rest>", where the rest is
// "<schedulerName> <eventType> <eventId>" (an event type may hold a blank).
struct HistoryLine {
    std::int64_t nsSinceBoot = 0;
    std::string text;
};

// The lines of a `history` reply, oldest first as sent; lines that do not
// start with a number are skipped.
std::vector<HistoryLine> parseHistoryReply(std::string_view reply);

// Whether an event id names the task `name`: a task's events carry its
// priority letter, a blank and its name ("L housekeeping").
bool eventIdNamesTask(std::string_view id, std::string_view name);

// At most `count` events of the task `name`, newest first, as
// "  11613.042950642  main  timerStop    L housekeeping". `lines` comes from
// the `history` request; without it, the events of `snapshot` stand in.
std::vector<std::string> taskHistory(const std::vector<HistoryLine>* lines,
                                     const ThreadSnapshot& snapshot, const std::string& name,
                                     std::size_t count);

}  // namespace VelikTop
