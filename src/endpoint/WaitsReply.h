// The "waits" reply of a stats endpoint: what each coroutine task of a root
// waits on, as one JSON document.
#pragma once

#include "endpoint/StatsReplySource.h"

#include <cstddef>
#include <memory>

namespace Velik::Impl {

// The document for `root`, gathered now on the root's thread (the tasks'
// names and waits as text), rendered `entriesPerSlice` tasks a slice:
//
//   {"tasks":[{"name","scheduler","priority","wait","detail"},...]}
//
// and "\n". The root's tasks come first, then each task group's, the groups
// by name; within a scheduler, in the order the tasks were registered.
std::unique_ptr<StatsReplySource> makeWaitsReplySource(const TaskSchedulerRoot& root,
                                                       std::size_t entriesPerSlice);

}  // namespace Velik::Impl
