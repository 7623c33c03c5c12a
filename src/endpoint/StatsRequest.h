// What a stats endpoint's client asks, and the text it gets back.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Velik::Impl {

enum class StatsVerb { snapshot, report, history, inbox, histograms, status, stalls, waits };

// Whether `verb` is answered from published state alone, never needing the
// root's thread (and so also while that thread is stuck).
inline bool answeredWithoutRoot(StatsVerb verb) {
    return verb == StatsVerb::status || verb == StatsVerb::stalls;
}

// A request line parsed: a verb, or the reason it was refused.
struct StatsRequest {
    std::optional<StatsVerb> verb;
    std::string error;
};

// `line` without its "\n"; one "\r" at its end is dropped. Anything but
// printable ASCII is "malformed request"; a word other than the verbs is an
// unknown verb (whose error line names the three documents, as it always
// has: "inbox", "histograms", "status", "stalls" and "waits" are extras).
StatsRequest parseStatsRequest(std::string_view line);

// "error: <reason>\n".
std::string statsErrorLine(std::string_view reason);

}  // namespace Velik::Impl
