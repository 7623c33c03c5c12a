#include "Kiv/Clock.h"

#include <chrono>
#include <cmath>

namespace Kiv {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

// A jump lands this far past its target, so that rounding in `now()` can never
// leave a notifiee due at the target still waiting after the jump.
constexpr double kJumpSlack = 1e-6;

double realSeconds() noexcept {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

}  // namespace

Clock::Notifiee::~Notifiee() {
    if (hook_.is_linked()) {
        clock_->unlink(*this);
    }
}

void Clock::Notifiee::notifierIs(Clock* clock) {
    if (clock == clock_) {
        return;
    }
    if (hook_.is_linked()) {
        clock_->unlink(*this);
    }
    clock_ = clock;
    if (clock_ && timeMin_ != kNever) {
        clock_->link(*this);
    }
}

void Clock::Notifiee::timeMinIs(double time) {
    if (std::isnan(time)) {
        time = kNever;
    }
    if (time == timeMin_) {
        return;
    }
    if (hook_.is_linked()) {
        clock_->unlink(*this);
    }
    timeMin_ = time;
    if (clock_ && time != kNever) {
        clock_->link(*this);
    }
}

Clock::~Clock() {
    // Notifiees outliving their clock are left disarmed rather than dangling.
    for (Queue* queue : {&armed_, &late_}) {
        queue->clear_and_dispose([](Notifiee* n) {
            n->timeMin_ = kNever;
            n->clock_ = nullptr;
        });
    }
}

double Clock::now() const noexcept {
    return realSeconds() + lead_.load(std::memory_order_relaxed);
}

double Clock::nextTime() const noexcept {
    double next = armed_.empty() ? kNever : armed_.begin()->timeMin_;
    if (!late_.empty() && late_.begin()->timeMin_ < next) {
        next = late_.begin()->timeMin_;
    }
    return next;
}

void Clock::link(Notifiee& notifiee) noexcept {
    notifiee.arming_ = ++armings_;
    notifiee.late_ = delivering_ > 0;
    (notifiee.late_ ? late_ : armed_).insert(notifiee);
}

void Clock::unlink(Notifiee& notifiee) noexcept {
    Queue& queue = notifiee.late_ ? late_ : armed_;
    queue.erase(queue.iterator_to(notifiee));
}

void Clock::advanceTo(double time) noexcept {
    const double gap = time - now();
    if (gap > 0) {
        lead_.store(lead_.load(std::memory_order_relaxed) + gap + kJumpSlack,
                    std::memory_order_relaxed);
    }
}

std::size_t Clock::deliverDue(double now) {
    struct Delivery {
        Clock& clock;
        explicit Delivery(Clock& c) : clock(c) { ++clock.delivering_; }
        ~Delivery() {
            --clock.delivering_;
            clock.admitLate();
        }
    } delivery(*this);

    std::size_t delivered = 0;
    while (!armed_.empty() && armed_.begin()->timeMin_ <= now) {
        Notifiee& due = *armed_.begin();
        armed_.erase(armed_.begin());
        due.timeMin_ = kNever;
        ++delivered;
        due.onTime();  // may destroy `due`
    }
    return delivered;
}

void Clock::admitLate() noexcept {
    while (!late_.empty()) {
        Notifiee& notifiee = *late_.begin();
        late_.erase(late_.begin());
        notifiee.late_ = false;
        armed_.insert(notifiee);
    }
}

}  // namespace Kiv
