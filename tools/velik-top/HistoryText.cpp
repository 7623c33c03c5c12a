#include "HistoryText.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

namespace VelikTop {

std::vector<std::string> formatHistory(const std::vector<const ThreadSnapshot*>& threads,
                                       std::size_t count) {
    struct Entry {
        const ThreadSnapshot* thread;
        const HistoryEvent* event;
    };
    std::vector<Entry> all;
    for (const ThreadSnapshot* t : threads) {
        for (const HistoryEvent& e : t->history) {
            all.push_back({t, &e});
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

}  // namespace VelikTop
