#include "Kiv/MainLoop.h"

#include <sys/epoll.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cmath>
#include <string>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"
#include "Kiv/FileDescriptor.h"

namespace Kiv {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();
constexpr int kMaxEventsPerPoll = 64;

// Milliseconds to wait for `seconds`, rounded up so that the loop never wakes
// before the time it waits for; -1 for ever.
int timeoutMs(double seconds) {
    if (seconds == kNever) {
        return -1;
    }
    if (!(seconds > 0)) {
        return 0;
    }
    const double ms = std::ceil(seconds * 1e3);
    return ms >= INT_MAX ? INT_MAX : static_cast<int>(ms);
}

std::uint64_t eventData(int descriptor, std::uint32_t generation) {
    return (std::uint64_t{generation} << 32) | static_cast<std::uint32_t>(descriptor);
}

}  // namespace

MainLoop::MainLoop(Clock& clock, const ActivityManagerConfig& config) noexcept
    : clock_(clock), config_(config) {}

MainLoop::~MainLoop() {
    if (epollFd_ >= 0) {
        close(epollFd_);
    }
}

int MainLoop::epollFd() {
    if (epollFd_ < 0) {
        epollFd_ = epoll_create1(EPOLL_CLOEXEC);
        if (epollFd_ < 0) {
            throw SystemException("MainLoop: epoll_create1", errno);
        }
    }
    return epollFd_;
}

void MainLoop::watch(FileDescriptor& watcher, int descriptor, std::uint32_t events) {
    if (watcher.watched_ == descriptor) {
        if (watcher.watchedEvents_ != events) {
            epoll_event event{events,
                              {.u64 = eventData(descriptor, watches_[descriptor].generation)}};
            if (epoll_ctl(epollFd(), EPOLL_CTL_MOD, descriptor, &event) != 0) {
                throw SystemException("MainLoop: watching descriptor " + std::to_string(descriptor),
                                      errno);
            }
            watcher.watchedEvents_ = events;
        }
        return;
    }
    if (watches_.size() <= static_cast<std::size_t>(descriptor)) {
        watches_.resize(descriptor + 1);
    }
    Watch& watch = watches_[descriptor];
    const std::uint32_t generation = watch.generation + 1;
    epoll_event event{events, {.u64 = eventData(descriptor, generation)}};
    if (epoll_ctl(epollFd(), EPOLL_CTL_ADD, descriptor, &event) != 0) {
        throw SystemException("MainLoop: watching descriptor " + std::to_string(descriptor), errno);
    }
    if (watch.watcher) {
        // The kernel accepted the descriptor, so the previous watcher's
        // descriptor was closed under it: its registration is gone.
        watch.watcher->watched_ = -1;
        watch.watcher->watchedEvents_ = 0;
        --watchedCount_;
    }
    watch.watcher = &watcher;
    watch.generation = generation;
    watcher.watched_ = descriptor;
    watcher.watchedEvents_ = events;
    ++watchedCount_;
}

void MainLoop::unwatch(FileDescriptor& watcher) noexcept {
    Watch& watch = watches_[watcher.watched_];
    if (watch.watcher == &watcher) {
        // Fails harmlessly when the descriptor was closed: closing ended the
        // registration already.
        epoll_ctl(epollFd_, EPOLL_CTL_DEL, watcher.watched_, nullptr);
        watch.watcher = nullptr;
        ++watch.generation;
        --watchedCount_;
    }
    watcher.watched_ = -1;
    watcher.watchedEvents_ = 0;
}

bool MainLoop::hasWork() const noexcept {
    return watchedCount_ > 0 || clock_.armedCount() > 0;
}

void MainLoop::run() {
    const std::thread::id self = std::this_thread::get_id();
    std::thread::id idle{};
    if (!runner_.compare_exchange_strong(idle, self) && idle != self) {
        throw Exception("MainLoop::run: the main loop is already running on another thread");
    }
    struct Running {
        MainLoop& loop;
        explicit Running(MainLoop& l) : loop(l) { ++loop.depth_; }
        ~Running() {
            if (--loop.depth_ == 0) {
                loop.stopRequested_ = false;
                loop.runner_.store(std::thread::id{});
            }
        }
    } running(*this);

    const double limit = config_.executionTime();
    const double end = clock_.now() + (limit > 0 ? limit : 0.0);
    bool first = true;
    while (hasWork() && !stopRequested_) {
        std::int64_t reading = 0;
        double now = clock_.now(reading);
        if (!first && now >= end) {
            return;
        }
        first = false;
        ++passes_;
        const double next = clock_.nextTime();
        if (next <= now) {
            if (now - lastPoll_ >= kPollInterval) {
                poll(0);
                now = lastPoll_ = clock_.now(reading);
            }
        } else {
            const double until = std::min(next, end);
            if (!config_.virtualTime()) {
                poll(timeoutMs(until - now));
            } else if (poll(0) == 0) {
                if (until != kNever) {
                    clock_.advanceTo(until);
                } else {
                    poll(-1);  // only descriptors to wait for: nothing to jump to
                }
            }
            now = lastPoll_ = clock_.now(reading);
        }
        clock_.deliverDue(now, reading, &stopRequested_);
    }
}

int MainLoop::poll(int timeoutMs) {
    if (watchedCount_ == 0 && timeoutMs == 0) {
        return 0;
    }
    epoll_event events[kMaxEventsPerPoll];
    const int ready = epoll_wait(epollFd(), events, kMaxEventsPerPoll, timeoutMs);
    if (ready < 0) {
        if (errno == EINTR) {
            return 0;
        }
        throw SystemException("MainLoop: epoll_wait", errno);
    }
    for (int i = 0; i < ready && !stopRequested_; ++i) {
        dispatch(events[i].data.u64, events[i].events);
    }
    return ready;
}

void MainLoop::dispatch(std::uint64_t data, std::uint32_t events) {
    const auto descriptor = static_cast<std::uint32_t>(data);
    const auto generation = static_cast<std::uint32_t>(data >> 32);
    const auto current = [&]() {
        const Watch& watch = watches_[descriptor];
        return watch.generation == generation ? watch.watcher : nullptr;
    };
    FileDescriptor* watcher = current();
    if (!watcher) {
        return;  // the registration ended after epoll reported it
    }
    // Notifiees may drop the last reference to the object.
    const Ptr<FileDescriptor> keep(watcher);
    constexpr std::uint32_t kReadable = EPOLLIN | EPOLLRDHUP | EPOLLHUP | EPOLLERR;
    constexpr std::uint32_t kWritable = EPOLLOUT | EPOLLHUP | EPOLLERR;
    if ((events & kReadable) && watcher->notifyOnReadable_) {
        watcher->readableCountInc();
    }
    if ((events & kWritable) && current() == watcher && watcher->notifyOnWritable_) {
        watcher->writableCountInc();
    }
}

}  // namespace Kiv
