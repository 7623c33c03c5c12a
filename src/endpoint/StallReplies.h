// The replies a stats endpoint gives from the published run state and the
// stall records alone, so that they can be given while the root's thread is
// stuck: "status", "stalls" and the busy line.
#pragma once

#include <Velik/TaskTime.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace Velik::Impl {

class RunPublication;

// `text` for a double-quoted field of a text line: `\` as "\\", `"` as
// "\"", control bytes and bytes that are not UTF-8 as "\xNN".
std::string quotedText(std::string_view text);

// The name a reply shows for a task: its display name when known, else
// "#<identity in hex>".
std::string shownTaskName(std::uintptr_t taskId, const std::string& taskName);

// One line per live root, `own`'s first:
//   root="<name>" tid=<n> thread="<name>" state=idle
//   ... state=running for=<s.sss> task="<task>"
//   ... state=stalled for=<s.sss> task="<task>" top="<frame>"
// `ownTaskName`, when given, names `own`'s running task (known on the
// root's own thread, where the running task is alive).
std::string renderStatusReply(const RunPublication* own,
                              const std::optional<std::string>& ownTaskName = std::nullopt);

// The stall records as one compact JSON document and "\n", `own`'s root
// first.
std::string renderStallsReply(const RunPublication* own);

// "error: thread busy for <s.s> s in task "<task>"\n" while `own` runs a
// task; none when it runs none.
std::optional<std::string> busyLine(const RunPublication& own);

}  // namespace Velik::Impl
