#include "HistoryText.h"

#include "TableText.h"
#include "TaskTable.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace VelikTop {

std::vector<std::string> formatHistory(const std::vector<const ThreadSnapshot*>& threads,
                                       std::size_t count, bool showOwn) {
    struct Entry {
        const ThreadSnapshot* thread;
        const HistoryEvent* event;
    };
    std::vector<Entry> all;
    for (const ThreadSnapshot* t : threads) {
        for (const HistoryEvent& e : t->history) {
            const bool own = e.id.size() > 2 && e.id[1] == ' ' && isOwnTask(e.id.substr(2));
            if (showOwn || !own) {
                all.push_back({t, &e});
            }
        }
    }
    const std::size_t n = std::min(count, all.size());
    std::partial_sort(
        all.begin(), all.begin() + static_cast<std::ptrdiff_t>(n), all.end(),
        [](const Entry& a, const Entry& b) { return a.event->nsSinceBoot > b.event->nsSinceBoot; });
    std::vector<std::string> lines;
    for (std::size_t i = 0; i < n; ++i) {
        const HistoryEvent& e = *all[i].event;
        lines.push_back(fmt::format("{:>6}.{:09}  {}  {}  {:<12} {}", e.nsSinceBoot / 1000000000,
                                    std::abs(e.nsSinceBoot % 1000000000), all[i].thread->thread,
                                    e.scheduler, e.type, e.id));
    }
    return lines;
}

namespace {

std::string seconds(std::int64_t ns) {
    return fmt::format("{:>6}.{:09}", ns / 1000000000, std::abs(ns % 1000000000));
}

}  // namespace

std::vector<HistoryLine> parseHistoryReply(std::string_view reply) {
    std::vector<HistoryLine> out;
    while (!reply.empty()) {
        const auto end = reply.find('\n');
        const std::string_view line = reply.substr(0, end);
        reply.remove_prefix(end == std::string_view::npos ? reply.size() : end + 1);
        const auto blank = line.find(' ');
        if (blank == 0 || blank == std::string_view::npos) {
            continue;
        }
        const std::string number(line.substr(0, blank));
        char* rest = nullptr;
        const long long ns = std::strtoll(number.c_str(), &rest, 10);
        if (*rest == '\0') {
            out.push_back({ns, std::string(line.substr(blank + 1))});
        }
    }
    return out;
}

bool eventIdNamesTask(std::string_view id, std::string_view name) {
    if (id.size() < name.size() + 2 || id.substr(id.size() - name.size()) != name) {
        return false;
    }
    const std::string_view head = id.substr(0, id.size() - name.size());
    // "... L name" in a reply line, "L name" alone in a snapshot.
    return head.size() >= 2 && head.back() == ' ' && std::strchr("AHNLS", head[head.size() - 2]) &&
           (head.size() == 2 || head[head.size() - 3] == ' ');
}

std::vector<std::string> taskHistory(const std::vector<HistoryLine>* lines,
                                     const ThreadSnapshot& snapshot, const std::string& name,
                                     std::size_t count) {
    std::vector<std::string> out;
    if (lines) {
        // The reply shows control bytes escaped, as `printable` does.
        const std::string shown = printable(name);
        for (auto it = lines->rbegin(); it != lines->rend() && out.size() < count; ++it) {
            if (eventIdNamesTask(it->text, shown)) {
                out.push_back("  " + seconds(it->nsSinceBoot) + "  " + it->text);
            }
        }
        return out;
    }
    for (const HistoryEvent& e : snapshot.history) {
        if (out.size() < count && eventIdNamesTask(e.id, name)) {
            out.push_back(fmt::format("  {}  {}  {:<12} {}", seconds(e.nsSinceBoot), e.scheduler,
                                      e.type, e.id));
        }
    }
    return out;
}

}  // namespace VelikTop
