#include "Sampler.h"

#include "StatsClient.h"

#include <fmt/format.h>

#include <algorithm>
#include <map>

namespace VelikTop {

std::string Sampler::Thread::problem() const {
    if (busy) {
        return fmt::format("{}: thread busy for {:.1f} s in task \"{}\"", endpoint.path,
                           busy->seconds, busy->task);
    }
    return error ? error->what() : std::string();
}

Sampler::Sampler(std::vector<Endpoint> endpoints) {
    for (Endpoint& e : endpoints) {
        Thread t;
        t.endpoint = std::move(e);
        threads_.push_back(std::move(t));
    }
}

void Sampler::apply(FetchResult result) {
    if (result.thread >= threads_.size()) {
        return;
    }
    Thread& t = threads_[result.thread];
    const Clock::time_point at = result.askedAt;
    switch (result.verb) {
        case FetchResult::Verb::status:
            // Unanswered: no stalled root to show from this socket.
            t.status = result.status ? std::move(*result.status) : std::vector<RootStatus>{};
            t.statusAt = at;
            return;
        case FetchResult::Verb::stalls:
            t.stalls = result.stalls ? std::move(*result.stalls) : std::vector<StallRoot>{};
            t.stallsAt = at;
            return;
        case FetchResult::Verb::snapshot:
            break;
    }
    if (result.snapshot) {
        t.previous = std::move(t.current);
        t.previousAt = t.currentAt;
        t.current = std::move(*result.snapshot);
        t.currentAt = at;
        const double seconds = std::chrono::duration<double>(at - t.previousAt).count();
        t.rates = rates(t.previous ? &*t.previous : nullptr, *t.current, seconds);
        t.error.reset();
        t.busy.reset();
        t.histograms = std::move(result.histograms);
        t.history = std::move(result.history);
        t.waits = std::move(result.waits);
    } else {
        t.busy = std::move(result.busy);
        t.error = std::move(result.error);
    }
}

std::vector<ThreadView> Sampler::views(Clock::time_point now) const {
    std::vector<ThreadView> out;
    for (const Thread& t : threads_) {
        if (t.current) {
            ThreadView view{&*t.current, t.rates, std::nullopt,
                            t.histograms ? &*t.histograms : nullptr};
            if (t.stale()) {
                view.staleSeconds = std::chrono::duration<double>(now - t.currentAt).count();
            }
            out.push_back(std::move(view));
        }
    }
    return out;
}

std::vector<const ThreadSnapshot*> Sampler::snapshots() const {
    std::vector<const ThreadSnapshot*> out;
    for (const Thread& t : threads_) {
        if (t.current) {
            out.push_back(&*t.current);
        }
    }
    return out;
}

const TopError* Sampler::firstError() const {
    for (const Thread& t : threads_) {
        if (t.error) {
            return &*t.error;
        }
    }
    return nullptr;
}

std::vector<RootStatus> Sampler::stalledRoots() const {
    std::map<std::uint64_t, std::pair<Clock::time_point, const RootStatus*>> byTid;
    std::vector<std::uint64_t> order;
    for (const Thread& t : threads_) {
        for (const RootStatus& r : t.status) {
            auto [it, added] = byTid.try_emplace(r.tid, t.statusAt, &r);
            if (added) {
                order.push_back(r.tid);
            } else if (t.statusAt > it->second.first) {
                it->second = {t.statusAt, &r};
            }
        }
    }
    std::vector<RootStatus> out;
    for (const std::uint64_t tid : order) {
        if (byTid[tid].second->stalled()) {
            out.push_back(*byTid[tid].second);
        }
    }
    return out;
}

std::vector<StallRoot> Sampler::stallRoots() const {
    std::map<std::uint64_t, std::pair<Clock::time_point, const StallRoot*>> byTid;
    std::vector<std::uint64_t> order;
    for (const Thread& t : threads_) {
        for (const StallRoot& r : t.stalls) {
            auto [it, added] = byTid.try_emplace(r.tid, t.stallsAt, &r);
            if (added) {
                order.push_back(r.tid);
            } else if (t.stallsAt > it->second.first) {
                it->second = {t.stallsAt, &r};
            }
        }
    }
    std::vector<StallRoot> out;
    for (const std::uint64_t tid : order) {
        out.push_back(*byTid[tid].second);
    }
    return out;
}

void refreshAll(Fetcher& fetcher, Sampler& sampler) {
    fetcher.startRound();
    for (FetchResult& r : fetcher.takeWhenDone()) {
        sampler.apply(std::move(r));
    }
}

}  // namespace VelikTop
