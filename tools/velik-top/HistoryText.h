// The most recent scheduler events of all shown threads, newest first, one
// line each:
//
//    11613.042950642  main  main  timerStop    L housekeeping
//
// (seconds since boot, thread, scheduler, event type, and the task's
// priority letter and name or the scheduler's name).
#pragma once

#include "SnapshotModel.h"

#include <string>
#include <vector>

namespace VelikTop {

// At most `count` lines, newest event first across all `threads`.
std::vector<std::string> formatHistory(const std::vector<const ThreadSnapshot*>& threads,
                                       std::size_t count);

}  // namespace VelikTop
