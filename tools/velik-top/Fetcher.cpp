#include "Fetcher.h"

#include "StatsClient.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <utility>

namespace VelikTop {

Fetcher::Fetcher(std::vector<Endpoint> endpoints, double timeoutSeconds)
    : endpoints_(std::move(endpoints)),
      timeout_(timeoutSeconds),
      asked_(endpoints_.size()),
      underWay_(endpoints_.size()) {
    if (::pipe2(cancel_, O_CLOEXEC) != 0) {
        throw TopError(exitUnreachable, "cannot make a pipe for the fetch threads");
    }
    for (std::size_t i = 0; i < endpoints_.size(); ++i) {
        workers_.emplace_back([this, i] { work(i); });
    }
}

Fetcher::~Fetcher() {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    (void)!::write(cancel_[1], "x", 1);
    for (std::thread& t : workers_) {
        t.join();
    }
    ::close(cancel_[0]);
    ::close(cancel_[1]);
}

std::size_t Fetcher::startRound() {
    std::size_t started = 0;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        for (std::size_t i = 0; i < endpoints_.size(); ++i) {
            if (!underWay_[i]) {
                asked_[i] = underWay_[i] = true;
                ++started;
            }
        }
    }
    changed_.notify_all();
    return started;
}

std::vector<FetchResult> Fetcher::take() {
    std::lock_guard<std::mutex> lock(mutex_);
    return std::exchange(results_, {});
}

std::vector<FetchResult> Fetcher::takeWhenDone() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] {
        return std::none_of(underWay_.begin(), underWay_.end(), [](char c) { return c; });
    });
    return std::exchange(results_, {});
}

void Fetcher::work(std::size_t index) {
    for (;;) {
        {
            std::unique_lock<std::mutex> lock(mutex_);
            changed_.wait(lock, [&] { return stopping_ || asked_[index]; });
            if (stopping_) {
                return;
            }
            asked_[index] = false;
        }
        round(index);
    }
}

void Fetcher::deliver(FetchResult result) {
    {
        std::lock_guard<std::mutex> lock(mutex_);
        if (result.roundEnded) {
            underWay_[result.thread] = false;
        }
        results_.push_back(std::move(result));
    }
    changed_.notify_all();
}

void Fetcher::round(std::size_t index) {
    const Endpoint& e = endpoints_[index];
    const ExchangeLimits limits{timeout_, maxReplyBytes, cancel_[0]};
    const auto begin = [&](FetchResult::Verb verb) {
        FetchResult r;
        r.verb = verb;
        r.thread = index;
        r.askedAt = FetchResult::Clock::now();
        return r;
    };

    // A daemon without these requests answers "error: ..."; it then simply
    // shows no stalls.
    bool anyStalled = false;
    FetchResult status = begin(FetchResult::Verb::status);
    try {
        const std::string reply = exchange(e.path, "status", limits);
        if (errorReason(reply).empty()) {
            status.status = parseStatus(reply);
            anyStalled = std::any_of(status.status->begin(), status.status->end(),
                                     [](const RootStatus& r) { return r.stalled(); });
        }
    } catch (const TopError& error) {
        // A socket that cannot answer even this is not asked for the rest:
        // a silent one would cost a second time-out. Other failures are
        // left for the snapshot's exchange to tell.
        if (error.status() == exitUnreachable) {
            deliver(std::move(status));
            FetchResult snap = begin(FetchResult::Verb::snapshot);
            snap.roundEnded = true;
            snap.error = error;
            deliver(std::move(snap));
            return;
        }
    }
    deliver(std::move(status));

    if (anyStalled || stallsWanted_) {
        FetchResult stalls = begin(FetchResult::Verb::stalls);
        try {
            const std::string reply = exchange(e.path, "stalls", limits);
            if (errorReason(reply).empty()) {
                stalls.stalls = parseStalls(reply);
            }
        } catch (const TopError&) {
        }
        deliver(std::move(stalls));
    }

    FetchResult snap = begin(FetchResult::Verb::snapshot);
    snap.roundEnded = true;
    try {
        const std::string reply = exchange(e.path, "snapshot", limits);
        const std::string reason = errorReason(reply);
        if (auto busy = parseBusy(reason)) {
            snap.busy = std::move(busy);
        } else if (!reason.empty()) {
            snap.error = TopError(exitRefused, e.path + ": the daemon refused: " + reason);
        } else if (reply.empty()) {
            snap.error = TopError(exitMalformed, e.path + ": empty reply");
        } else {
            snap.snapshot = parseSnapshot(e.thread, reply);
        }
    } catch (const TopError& error) {
        snap.error = error;
    }
    if (snap.snapshot) {
        askExtras(index, snap);
    }
    deliver(std::move(snap));
}

namespace {

// The reply to `verb` read by `parse`, or nothing when the daemon does not
// answer it (an error line, an empty reply, a failure).
template <typename Parse>
auto optionalReply(const std::string& path, const char* verb, const ExchangeLimits& limits,
                   Parse parse) -> std::optional<decltype(parse(std::string_view()))> {
    try {
        const std::string reply = exchange(path, verb, limits);
        if (reply.empty() || !errorReason(reply).empty()) {
            return std::nullopt;
        }
        return parse(reply);
    } catch (const TopError&) {
        return std::nullopt;
    }
}

}  // namespace

void Fetcher::askExtras(std::size_t index, FetchResult& snap) {
    const std::string& path = endpoints_[index].path;
    const ExchangeLimits limits{timeout_, maxReplyBytes, cancel_[0]};
    snap.histograms = optionalReply(path, "histograms", limits, parseHistograms);
    if (detailWanted_) {
        snap.history = optionalReply(path, "history", limits, parseHistoryReply);
        snap.waits = optionalReply(path, "waits", limits, parseWaits);
    }
}

}  // namespace VelikTop
