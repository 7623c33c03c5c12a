#include "StallText.h"

#include <fmt/format.h>

#include <algorithm>

namespace VelikTop {
namespace {

constexpr std::size_t rootColumn = 12;
constexpr std::size_t taskColumn = 24;

// The latest sample of the root's ongoing stall, if any.
const StallSample* ongoingSample(const RootStatus& r, const std::vector<StallRoot>& stalls) {
    for (const StallRoot& root : stalls) {
        if (root.tid != r.tid || root.root != r.root) {
            continue;
        }
        for (auto it = root.stalls.rbegin(); it != root.stalls.rend(); ++it) {
            if (!it->ended) {
                return it->samples.empty() ? nullptr : &it->samples.back();
            }
        }
    }
    return nullptr;
}

std::string seconds(std::int64_t ns) {
    return fmt::format("{:.3f}", static_cast<double>(ns) / 1e9);
}

}  // namespace

std::vector<std::string> stallBanner(const std::vector<RootStatus>& stalled,
                                     const std::vector<StallRoot>& stalls, std::size_t frames) {
    std::vector<std::string> out;
    for (const RootStatus& r : stalled) {
        out.push_back(fmt::format("STALLED  root {} (thread {}, tid {})  task \"{}\"  for {:.3f} s",
                                  r.root, r.thread, r.tid, r.task, r.forSeconds));
        std::vector<std::string> top;
        if (const StallSample* sample = ongoingSample(r, stalls)) {
            top = sample->frames;
        } else if (!r.top.empty()) {
            top.push_back(r.top);
        }
        top.resize(std::min(top.size(), frames));
        for (const std::string& frame : top) {
            out.push_back("    at " + frame);
        }
    }
    return out;
}

std::vector<StallEntry> stallEntries(const std::vector<StallRoot>& roots) {
    std::vector<StallEntry> out;
    for (const StallRoot& root : roots) {
        for (const StallRecord& stall : root.stalls) {
            out.push_back({&root, &stall});
        }
    }
    std::stable_sort(out.begin(), out.end(), [](const StallEntry& a, const StallEntry& b) {
        return a.stall->startNs > b.stall->startNs;
    });
    return out;
}

std::string stallHeading() {
    return fmt::format("{:<{}} {:<{}} {:>14} {:>12}  {}", "ROOT", rootColumn, "TASK", taskColumn,
                       "START", "DURATION", "STATE");
}

std::string stallLine(const StallEntry& e) {
    return fmt::format("{:<{}} {:<{}} {:>14} {:>10} s  {}", e.root->root.substr(0, rootColumn),
                       rootColumn, e.stall->task.substr(0, taskColumn), taskColumn,
                       seconds(e.stall->startNs), seconds(e.stall->durationNs),
                       e.stall->ended ? "ended" : "ongoing");
}

std::vector<std::string> stallFrames(const StallEntry& e) {
    std::vector<std::string> out{fmt::format("stall {} of root {} in task \"{}\"", e.stall->id,
                                             e.root->root, e.stall->task)};
    if (e.stall->samples.empty()) {
        out.push_back("    (no sample)");
        return out;
    }
    const StallSample& latest = e.stall->samples.back();
    out.back() += fmt::format(", sample at {}", seconds(latest.atNs));
    for (const std::string& frame : latest.frames) {
        out.push_back("    at " + frame);
    }
    return out;
}

}  // namespace VelikTop
