// What a daemon says about stuck threads, read into plain values: the
// `status` reply (one line per root of the process), the `stalls` document
// (the recorded stalls of every root) and the one-line answer a request for
// a stuck thread's snapshot gets instead of the snapshot:
//
//   for (const VelikTop::RootStatus& r : VelikTop::parseStatus(reply)) {
//       if (r.state == "stalled") { ... r.task, r.forSeconds, r.top ... }
//   }
//   if (auto busy = VelikTop::parseBusy(VelikTop::errorReason(reply))) { ... }
//
// Quoted texts are unescaped (`\\`, `\"`, `\xNN`) to the daemon's own bytes,
// so they compare equal to the names of a snapshot; show them through
// `printable`. Reading is lenient like the snapshot's: what cannot be read is
// left out or reads as zero or empty.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace VelikTop {

struct RootStatus {
    std::string root;
    std::uint64_t tid = 0;
    std::string thread;
    std::string state;  // "idle", "running" or "stalled"
    double forSeconds = 0;
    std::string task;
    std::string top;  // innermost frame of the latest sample; stalled only

    bool stalled() const { return state == "stalled"; }
};

struct StallSample {
    std::int64_t atNs = 0;
    std::vector<std::string> frames;  // innermost first
};

struct StallRecord {
    std::uint64_t id = 0;
    std::string task;
    std::int64_t startNs = 0;  // steady clock
    std::int64_t thresholdNs = 0;
    std::int64_t durationNs = 0;
    bool ended = false;
    std::vector<StallSample> samples;  // latest last
};

struct StallRoot {
    std::string root;
    std::uint64_t tid = 0;
    std::string thread;
    bool live = false;
    std::vector<StallRecord> stalls;  // oldest first
};

// The lines of a `status` reply; lines that are not "key=value ..." with a
// root are skipped.
std::vector<RootStatus> parseStatus(std::string_view reply);

// The `stalls` document. Throws `TopError` (`exitMalformed`) for text that is
// not JSON or has no "roots" array.
std::vector<StallRoot> parseStalls(std::string_view json);

// A snapshot refused because the thread is stuck in a task.
struct BusyReply {
    double seconds = 0;
    std::string task;
};

// `reason` (as `errorReason` gives it) read as
// "thread busy for <seconds> s in task "<task>"", else nothing.
std::optional<BusyReply> parseBusy(std::string_view reason);

}  // namespace VelikTop
