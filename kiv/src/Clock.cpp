#include "Kiv/Clock.h"

#include "Kiv/SteadyClock.h"

#include <cmath>

namespace Kiv {

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

// A jump lands this far past its target, so that rounding in `now()` can never
// leave a notifiee due at the target still waiting after the jump.
constexpr double kJumpSlack = 1e-6;

double realSeconds(std::int64_t nanoseconds) noexcept {
    return static_cast<double>(nanoseconds) * 1e-9;
}

}  // namespace

namespace Impl {
[[gnu::tls_model("initial-exec")]] constinit thread_local std::int64_t passReading = 0;
}  // namespace Impl

Clock::Notifiee::~Notifiee() {
    if (slot_ != kUnqueued) {
        clock_->unlink(*this);
    }
}

void Clock::Notifiee::notifierIs(Clock* clock) {
    if (clock == clock_) {
        return;
    }
    if (slot_ != kUnqueued) {
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
    if (slot_ != kUnqueued) {
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
        while (!queue->empty()) {
            Notifiee& notifiee = queue->front();
            queue->erase(notifiee);
            notifiee.timeMin_ = kNever;
            notifiee.clock_ = nullptr;
        }
    }
}

double Clock::now() const noexcept {
    return realSeconds(steadyNanoseconds()) + lead_.load(std::memory_order_relaxed);
}

double Clock::now(std::int64_t& reading) const noexcept {
    reading = steadyNanoseconds();
    return realSeconds(reading) + lead_.load(std::memory_order_relaxed);
}

double Clock::nextTime() const noexcept {
    double next = armed_.empty() ? kNever : armed_.front().timeMin_;
    if (!late_.empty() && late_.front().timeMin_ < next) {
        next = late_.front().timeMin_;
    }
    return next;
}

void Clock::link(Notifiee& notifiee) {
    notifiee.arming_ = ++armings_;
    notifiee.late_ = delivering_ > 0;
    (notifiee.late_ ? late_ : armed_).push(notifiee);
}

void Clock::unlink(Notifiee& notifiee) noexcept {
    (notifiee.late_ ? late_ : armed_).erase(notifiee);
}

void Clock::advanceTo(double time) noexcept {
    const double gap = time - now();
    if (gap > 0) {
        lead_.store(lead_.load(std::memory_order_relaxed) + gap + kJumpSlack,
                    std::memory_order_relaxed);
    }
}

std::size_t Clock::deliverDue(double now, std::int64_t reading, const bool* stop) {
    struct Delivery {
        Clock& clock;
        explicit Delivery(Clock& c) : clock(c) { ++clock.delivering_; }
        ~Delivery() {
            --clock.delivering_;
            Impl::passReading = 0;  // also when a notifiee throws
            clock.admitLate();
        }
    } delivery(*this);

    std::size_t delivered = 0;
    while (!armed_.empty() && armed_.front().timeMin_ <= now && !(stop && *stop)) {
        Notifiee& due = armed_.front();
        armed_.erase(due);
        due.timeMin_ = kNever;
        // Fresh for the first notifiee only: a later one comes after the
        // earlier ones' work.
        Impl::passReading = delivered == 0 ? reading : 0;
        ++delivered;
        due.onTime();  // may destroy `due`
    }
    return delivered;
}

void Clock::admitLate() noexcept {
    while (!late_.empty()) {
        Notifiee& notifiee = late_.front();
        late_.erase(notifiee);
        notifiee.late_ = false;
        armed_.push(notifiee);
    }
}

void Clock::Queue::push(Notifiee& notifiee) {
    heap_.push_back(&notifiee);
    notifiee.slot_ = heap_.size() - 1;
    siftUp(notifiee.slot_);
}

void Clock::Queue::erase(Notifiee& notifiee) noexcept {
    const std::size_t slot = notifiee.slot_;
    notifiee.slot_ = Notifiee::kUnqueued;
    Notifiee* last = heap_.back();
    heap_.pop_back();
    if (last == &notifiee) {
        return;
    }
    place(slot, last);
    siftUp(slot);
    siftDown(last->slot_);
}

void Clock::Queue::place(std::size_t slot, Notifiee* notifiee) noexcept {
    heap_[slot] = notifiee;
    notifiee->slot_ = slot;
}

void Clock::Queue::siftUp(std::size_t slot) noexcept {
    Notifiee* rising = heap_[slot];
    while (slot > 0) {
        const std::size_t parent = (slot - 1) / 2;
        if (!earlier(*rising, *heap_[parent])) {
            break;
        }
        place(slot, heap_[parent]);
        slot = parent;
    }
    place(slot, rising);
}

void Clock::Queue::siftDown(std::size_t slot) noexcept {
    Notifiee* sinking = heap_[slot];
    const std::size_t size = heap_.size();
    for (;;) {
        std::size_t child = 2 * slot + 1;
        if (child >= size) {
            break;
        }
        if (child + 1 < size && earlier(*heap_[child + 1], *heap_[child])) {
            ++child;
        }
        if (!earlier(*heap_[child], *sinking)) {
            break;
        }
        place(slot, heap_[child]);
        slot = child;
    }
    place(slot, sinking);
}

}  // namespace Kiv
