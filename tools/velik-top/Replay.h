// Plays a recording back into a sampler, as the fetcher would have fed it.
//
// The recording is cut into frames: a frame ends with a snapshot answer of
// every socket at most once, so a frame is one refresh of every thread.
// Showing frame k means the sampler has taken every answer up to the end of
// frame k; the rates are then those the live view showed at that point.
//
//   VelikTop::Recording recording = VelikTop::loadRecording(path);
//   VelikTop::Sampler sampler(recording.endpoints);
//   VelikTop::Player player(recording, sampler);
//   player.seek(player.frameAt(12.5));        // as shown 12.5 s in
//
// While playing, frames follow one another as far apart as they were
// recorded. Keys: space pauses or plays, `,` and `.` step back and forward
// one frame, `<` and `>` ten frames (stepping pauses).
#pragma once

#include "Hints.h"
#include "Recording.h"
#include "Sampler.h"

#include <chrono>
#include <string>
#include <vector>

namespace VelikTop {

class Player {
  public:
    using Clock = std::chrono::steady_clock;

    // `recording` and `sampler` (made with the recording's endpoints) must
    // outlive the player. `hints`, when given, follows every snapshot the
    // sampler takes. Shows the first frame.
    Player(const Recording& recording, Sampler& sampler, HintBoard* hints = nullptr);

    // Makes `hints` follow the snapshots from now on, brought up to the
    // frame shown.
    void follow(HintBoard* hints);

    std::size_t frames() const { return ends_.size(); }
    std::size_t frame() const { return frame_; }
    // Seconds from the start of the recording to the frame's last snapshot.
    double frameSeconds(std::size_t frame) const;
    // The last frame at or before `seconds`, or the first.
    std::size_t frameAt(double seconds) const;
    // Shows `frame` (the last one if beyond it).
    void seek(std::size_t frame);

    // Plays on to the frame due at `now`; whether the frame changed.
    bool tick(Clock::time_point now = Clock::now());
    // Acts on a replay key; whether it was one.
    bool key(int key, Clock::time_point now = Clock::now());
    bool paused() const { return paused_; }

    // The time of the shown frame on the sampler's clock, for the ages of
    // stale figures.
    Sampler::Clock::time_point now() const;
    // "replay 2024-11-24 03:23:45 +12.0 s  frame 13/60  playing": short
    // enough for 80 columns; the key line names the replay's keys.
    std::string clockLine() const;

  private:
    void apply(std::size_t from, std::size_t to);
    void play(Clock::time_point now);

    const Recording& recording_;
    Sampler& sampler_;
    HintBoard* hints_;
    std::vector<std::size_t> ends_;  // per frame: one past its last answer
    std::vector<double> seconds_;    // per frame
    std::size_t frame_ = 0;
    bool shown_ = false;  // whether the sampler holds a frame yet
    bool paused_ = false;
    // While playing: when, on the wall clock, the recording's start would
    // have been.
    Clock::time_point origin_{};
};

}  // namespace VelikTop
