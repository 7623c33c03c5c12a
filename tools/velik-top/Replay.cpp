#include "Replay.h"

#include <fmt/format.h>

#include <algorithm>
#include <ctime>
#include <set>

namespace VelikTop {
namespace {

constexpr std::size_t jumpFrames = 10;

double secondsOf(FetchResult::Clock::time_point at) {
    return std::chrono::duration<double>(at.time_since_epoch()).count();
}

}  // namespace

Player::Player(const Recording& recording, Sampler& sampler, HintBoard* hints)
    : recording_(recording), sampler_(sampler), hints_(hints) {
    std::set<std::size_t> inFrame;
    std::size_t lastSnapshot = 0;
    bool open = false;
    for (std::size_t i = 0; i < recording.answers.size(); ++i) {
        const FetchResult& a = recording.answers[i];
        if (a.verb != FetchResult::Verb::snapshot) {
            continue;
        }
        if (inFrame.count(a.thread)) {
            ends_.push_back(lastSnapshot + 1);
            seconds_.push_back(secondsOf(recording.answers[lastSnapshot].askedAt));
            inFrame.clear();
        }
        inFrame.insert(a.thread);
        lastSnapshot = i;
        open = true;
    }
    if (open) {
        ends_.push_back(recording.answers.size());
        seconds_.push_back(secondsOf(recording.answers[lastSnapshot].askedAt));
    }
    seek(0);
    origin_ = Clock::now();
}

void Player::follow(HintBoard* hints) {
    hints_ = hints;
    shown_ = false;
    seek(frame_);
}

double Player::frameSeconds(std::size_t frame) const {
    return frame < seconds_.size() ? seconds_[frame] : 0.0;
}

std::size_t Player::frameAt(double seconds) const {
    const auto after = std::upper_bound(seconds_.begin(), seconds_.end(), seconds);
    return after == seconds_.begin() ? 0 : static_cast<std::size_t>(after - seconds_.begin()) - 1;
}

void Player::apply(std::size_t from, std::size_t to) {
    for (std::size_t i = from; i < to; ++i) {
        FetchResult copy = recording_.answers[i];
        const bool snapshot = copy.verb == FetchResult::Verb::snapshot;
        sampler_.apply(std::move(copy));
        if (hints_ && snapshot) {
            hints_->update(sampler_);
        }
    }
}

void Player::seek(std::size_t frame) {
    if (ends_.empty()) {
        return;
    }
    frame = std::min(frame, ends_.size() - 1);
    if (shown_ && frame == frame_) {
        return;
    }
    // Forward goes on from the frame shown; back starts again from the top,
    // as the rates and streaks of a frame depend on the frames before it.
    if (shown_ && frame > frame_) {
        apply(ends_[frame_], ends_[frame]);
    } else {
        sampler_ = Sampler(recording_.endpoints);
        if (hints_) {
            hints_->reset();
        }
        apply(0, ends_[frame]);
    }
    frame_ = frame;
    shown_ = true;
}

void Player::play(Clock::time_point now) {
    // Playing on from the shown frame, whatever time passed while paused.
    origin_ = now - std::chrono::duration_cast<Clock::duration>(
                        std::chrono::duration<double>(frameSeconds(frame_)));
}

bool Player::tick(Clock::time_point now) {
    if (paused_ || ends_.empty() || frame_ + 1 >= ends_.size()) {
        return false;
    }
    const std::size_t due = frameAt(std::chrono::duration<double>(now - origin_).count());
    if (due <= frame_) {
        return false;
    }
    seek(due);
    if (frame_ + 1 >= ends_.size()) {
        paused_ = true;  // the end: space plays it again from the start
    }
    return true;
}

bool Player::key(int key, Clock::time_point now) {
    const std::size_t last = ends_.empty() ? 0 : ends_.size() - 1;
    switch (key) {
        case ' ':
            if (paused_ && frame_ >= last) {
                seek(0);
            }
            paused_ = !paused_;
            if (!paused_) {
                play(now);
            }
            return true;
        case ',':
            paused_ = true;
            seek(frame_ > 0 ? frame_ - 1 : 0);
            return true;
        case '.':
            paused_ = true;
            seek(frame_ + 1);
            return true;
        case '<':
            paused_ = true;
            seek(frame_ > jumpFrames ? frame_ - jumpFrames : 0);
            return true;
        case '>':
            paused_ = true;
            seek(frame_ + jumpFrames);
            return true;
        default:
            return false;
    }
}

Sampler::Clock::time_point Player::now() const {
    return Sampler::Clock::time_point{} + std::chrono::round<Sampler::Clock::duration>(
                                              std::chrono::duration<double>(frameSeconds(frame_)));
}

std::string Player::clockLine() const {
    const double seconds = frameSeconds(frame_);
    const std::time_t at = static_cast<std::time_t>(recording_.startUnix + seconds);
    char clock[32] = "";
    std::tm local{};
    if (localtime_r(&at, &local)) {
        std::strftime(clock, sizeof clock, "%Y-%m-%d %H:%M:%S", &local);
    }
    const bool atEnd = frame_ + 1 >= ends_.size();
    return fmt::format("replay {} +{:.1f} s  frame {}/{}  {}", clock, seconds,
                       ends_.empty() ? 0 : frame_ + 1, ends_.size(),
                       paused_ ? (atEnd ? "end" : "paused") : "playing");
}

}  // namespace VelikTop
