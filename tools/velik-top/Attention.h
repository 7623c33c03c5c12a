// What in the table needs the reader's attention, and whether to say it in
// colour.
//
// A line is marked, the strongest reason winning: its task is the one a
// stuck thread is in (stalled); its thread's figures are old (stale); it
// gained quantum violations since the last refresh; its latest scheduling
// latency passed `attentionLatency`. The screen shows these in colour, or
// where colour is not wanted or not there, as reverse, bold, dim and
// underline.
#pragma once

#include "TaskTable.h"

#include <set>
#include <string>

namespace VelikTop {

enum class Attention { none, latency, violations, stale, stalled };

// The library's default quantum: the snapshot does not carry each task's
// own, and a task that waited longer than this to run waited longer than a
// whole run of another may take.
constexpr double attentionLatency = 0.020;

// `stalledTasks`: the names of the tasks stuck threads are in.
Attention attentionOf(const TableLine& line, const std::set<std::string>& stalledTasks);

// Whether to colour: not when asked not to (`--no-color`, or NO_COLOR set
// to anything but the empty string, as is the convention), nor when the
// terminal has no colours.
bool colourWanted(bool noColourOption, const char* noColorEnvironment, bool terminalHasColours);

}  // namespace VelikTop
