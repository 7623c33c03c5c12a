// What coroutine tasks wait on (the `waits` request): one entry per task,
//
//   {"name", "scheduler", "priority", "wait", "detail"}
//
// in a JSON array, either the whole reply or the first array member of the
// reply's object. A daemon without the request answers "error: ..."; the
// viewer then shows no waits.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

struct WaitEntry {
    std::string name;
    std::string scheduler;
    std::string priority;
    std::string wait;    // what the task waits on: a timer, a descriptor, a task...
    std::string detail;  // the particulars, as the daemon words them
};

// Throws `TopError` (`exitMalformed`) for text that is not JSON; entries
// that are not objects are skipped, missing members read as empty.
std::vector<WaitEntry> parseWaits(std::string_view json);

}  // namespace VelikTop
