// Stuck threads as lines of text: the banner over the table while a root is
// stalled, and the stalls pane.
//
//   STALLED  root main (thread main, tid 4242)  task "compactor"  for 6.213 s
//       at compactLevel(Level&)
//       at Compactor::taskExecute()
//
//   ROOT         TASK                     START        DURATION  STATE
//   main         compactor           1884.970736     6.213 s  ongoing
//
// Texts are the daemon's bytes: pass the lines through `printable`.
#pragma once

#include "StallModel.h"

#include <cstddef>
#include <string>
#include <vector>

namespace VelikTop {

// For each stalled root: its line, then up to `frames` frames, innermost
// first, of the latest sample of its ongoing stall in `stalls` (or the
// status's own top frame when `stalls` has none).
std::vector<std::string> stallBanner(const std::vector<RootStatus>& stalled,
                                     const std::vector<StallRoot>& stalls, std::size_t frames = 3);

// One stall of one root, for the pane.
struct StallEntry {
    const StallRoot* root = nullptr;
    const StallRecord* stall = nullptr;
};

// Every stall of `roots`, the latest start first.
std::vector<StallEntry> stallEntries(const std::vector<StallRoot>& roots);

// The pane's column titles and one stall's line.
std::string stallHeading();
std::string stallLine(const StallEntry& entry);

// The frames of the stall's latest sample, innermost first, after a line
// naming the stall; "(no sample)" when none was taken.
std::vector<std::string> stallFrames(const StallEntry& entry);

}  // namespace VelikTop
