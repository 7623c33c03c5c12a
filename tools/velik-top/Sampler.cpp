#include "Sampler.h"

#include "StatsClient.h"

namespace VelikTop {

Sampler::Sampler(std::vector<Endpoint> endpoints, double timeoutSeconds)
    : timeout_(timeoutSeconds) {
    for (Endpoint& e : endpoints) {
        threads_.push_back({std::move(e), {}, {}, {}, {}, {}, {}});
    }
}

void Sampler::refresh() {
    for (Thread& t : threads_) {
        const Clock::time_point at = Clock::now();
        try {
            ThreadSnapshot snap =
                parseSnapshot(t.endpoint.thread, fetch(t.endpoint.path, "snapshot", timeout_));
            t.previous = std::move(t.current);
            t.previousAt = t.currentAt;
            t.current = std::move(snap);
            t.currentAt = at;
            const double seconds = std::chrono::duration<double>(at - t.previousAt).count();
            t.rates = rates(t.previous ? &*t.previous : nullptr, *t.current, seconds);
            t.error.reset();
        } catch (const TopError& e) {
            t.error = e;
        }
    }
}

std::vector<ThreadView> Sampler::views() const {
    std::vector<ThreadView> out;
    for (const Thread& t : threads_) {
        if (t.current) {
            out.push_back({&*t.current, t.rates});
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

}  // namespace VelikTop
