// The "histograms" reply of a stats endpoint: the run histograms of a root's
// schedulers and of the tasks that keep their own, as one JSON document.
#pragma once

#include "endpoint/StatsReplySource.h"

#include <cstddef>
#include <memory>

namespace Velik::Impl {

// The document for `root`, gathered now on the root's thread (copies of the
// histograms), rendered `entriesPerSlice` schedulers or tasks a slice.
std::unique_ptr<StatsReplySource> makeHistogramsReplySource(const TaskSchedulerRoot& root,
                                                            std::size_t entriesPerSlice);

}  // namespace Velik::Impl
