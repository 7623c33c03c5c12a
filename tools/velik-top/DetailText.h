// One task in detail, as lines of text: what Enter shows in the live view.
//
//   TASK connection:read x200  thread main  scheduler connections
//     status/priority  n   normal
//     runs             12345  runs/s 955.7  time 3.2%  run time 1.23s
//     latency          last 58.0us  max 8.60ms  longest run 1.00ms
//     violations       qv200 1  qv500 2  since last refresh 0
//     work             total 123  per s 955.7  pending 0
//   HISTOGRAMS of scheduler connections     p50     p90     p99   p99.9     max   count
//     latency                              ...
//   RECENT EVENTS of this task (newest first)
//   STALLS of this task
//   WAITS
//
// A section the daemon has nothing for says so in one line. Texts are the
// daemon's bytes: pass the lines through `printable`.
#pragma once

#include "HistoryText.h"
#include "StallModel.h"
#include "TaskTable.h"
#include "Waits.h"

#include <string>
#include <vector>

namespace VelikTop {

struct DetailSources {
    const TableLine* line = nullptr;
    const std::vector<HistoryLine>* history = nullptr;  // the `history` reply, when read
    const std::vector<StallRoot>* stalls = nullptr;
    const std::vector<WaitEntry>* waits = nullptr;  // null: the daemon does not answer `waits`
    std::size_t events = 12;                        // the most history lines shown
};

std::vector<std::string> detailLines(const DetailSources& sources);

}  // namespace VelikTop
