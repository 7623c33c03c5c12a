// The replies of a stats endpoint, each rendered a slice at a time.
#pragma once

#include "endpoint/StatsRequest.h"

#include <cstddef>
#include <memory>
#include <string>

namespace Velik {
class TaskSchedulerRoot;
}

namespace Velik::Impl {

// A reply's text in pieces, each about a millisecond of rendering, so that a
// root of many thousand tasks answers without one long run. What a piece
// needs is gathered when the source is made (quick: copies of records);
// names in the text replies are shown with `printableText`.
class StatsReplySource {
  public:
    virtual ~StatsReplySource() = default;
    // Appends the next piece to `out`; returns whether more is to come.
    virtual bool renderSlice(std::string& out) = 0;
};

// Task records (snapshot, report), events (history), schedulers and tasks
// with their histograms (histograms) or coroutine tasks (waits) per piece.
struct StatsSliceSizes {
    std::size_t snapshotRecords = 400;
    std::size_t reportRows = 250;
    std::size_t historyEvents = 1000;
    std::size_t histogramEntries = 50;
    std::size_t waitsEntries = 250;
};

// The reply to `verb` for `root`, gathered now on the root's thread.
std::unique_ptr<StatsReplySource> makeStatsReplySource(const TaskSchedulerRoot& root,
                                                       StatsVerb verb, bool includeNoRuns,
                                                       const StatsSliceSizes& sizes = {});

}  // namespace Velik::Impl
