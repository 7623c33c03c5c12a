// Recordings: played back, one shows the table the live view showed.
#include "Recording.h"
#include "Replay.h"
#include "TableText.h"

#include "FakeSnapshot.h"

#include <filesystem>
#include <fstream>

namespace {

using VelikTop::FetchResult;
using VelikTopTest::fakeSnapshot;
using VelikTopTest::FakeTask;

// A socket's answers over a few rounds, as the fetcher hands them over.
class RecordingTest : public ::testing::Test {
  protected:
    void SetUp() override {
        path_ = std::filesystem::temp_directory_path() /
                ("velik-top-recording-" + std::to_string(::getpid()) + ".vtr");
        for (int round = 0; round < 4; ++round) {
            const auto at = [round](int ms) {
                return FetchResult::Clock::time_point{} +
                       std::chrono::milliseconds(1000 * round + ms);
            };
            FetchResult status;
            status.verb = FetchResult::Verb::status;
            status.askedAt = at(0);
            status.status = std::vector<VelikTop::RootStatus>{
                {"main", 42, "main", round == 3 ? "stalled" : "idle", 1.5, "spin", "f()"}};
            answers_.push_back(status);
            for (std::size_t socket = 0; socket < 2; ++socket) {
                FetchResult snap;
                snap.thread = socket;
                snap.askedAt = at(10 + static_cast<int>(socket));
                snap.roundEnded = true;
                const std::uint64_t n = static_cast<std::uint64_t>(round) * 100;
                if (socket == 1 && round == 2) {
                    snap.error = VelikTop::TopError(VelikTop::exitUnreachable, "b.sock: timed out");
                } else if (socket == 0 && round == 3) {
                    snap.busy = VelikTop::BusyReply{2.5, "spin"};
                } else {
                    snap.snapshot = fakeSnapshot(
                        {{"a", "0x1", n, 0.001 * static_cast<double>(n), 0.002, n / 50},
                         {"b", socket ? "0x2" : "0x3", 2 * n, 0.0005 * static_cast<double>(n)}},
                        socket ? "b" : "a");
                }
                answers_.push_back(snap);
            }
        }
    }
    void TearDown() override { std::filesystem::remove(path_); }

    // The table and failures the live view shows after the first `count`
    // answers.
    std::vector<std::string> liveAfter(std::size_t count) const {
        VelikTop::Sampler sampler(endpoints_);
        for (std::size_t i = 0; i < count; ++i) {
            sampler.apply(answers_[i]);
        }
        return shown(sampler, answers_[count - 1].askedAt);
    }
    static std::vector<std::string> shown(const VelikTop::Sampler& sampler,
                                          VelikTop::Sampler::Clock::time_point now) {
        const auto lines = VelikTop::buildTable(sampler.views(now), {});
        const VelikTop::TableLayout layout(lines, VelikTop::defaultColumns(true));
        std::vector<std::string> out{layout.heading()};
        for (const auto& line : lines) {
            out.push_back(layout.line(line));
        }
        const auto summary = VelikTop::formatSummary(sampler.views(now), {}, lines.size(), 1);
        out.insert(out.end(), summary.begin() + 1, summary.end());  // not the clock
        for (const auto& t : sampler.threads()) {
            out.push_back(t.problem());
        }
        return out;
    }
    void record() const {
        VelikTop::Recorder recorder(path_.string(), endpoints_, 1.0,
                                    FetchResult::Clock::time_point{});
        for (const auto& a : answers_) {
            recorder.write(a);
        }
    }

    std::filesystem::path path_;
    std::vector<VelikTop::Endpoint> endpoints_{{"/run/x/a.sock", "a"}, {"/run/x/b.sock", "b"}};
    std::vector<FetchResult> answers_;
};

TEST_F(RecordingTest, ReplayShowsWhatTheLiveViewShowedAtEachFrame) {
    record();
    const VelikTop::Recording recording = VelikTop::loadRecording(path_.string());
    EXPECT_EQ(recording.endpoints[1].path, "/run/x/b.sock");
    VelikTop::Sampler sampler(recording.endpoints);
    VelikTop::Player player(recording, sampler);
    ASSERT_EQ(player.frames(), 4u);
    // A round's frame ends with its last snapshot answer: 3 answers a round.
    for (std::size_t frame = 0; frame < 4; ++frame) {
        player.seek(frame);
        EXPECT_EQ(shown(sampler, player.now()), liveAfter(3 * frame + 3)) << "frame " << frame;
    }
    // Back again: the rates are those of that frame, not of the last one.
    player.seek(1);
    EXPECT_EQ(shown(sampler, player.now()), liveAfter(6));
    EXPECT_EQ(sampler.stalledRoots().size(), 0u);
    player.seek(3);
    EXPECT_EQ(sampler.stalledRoots().at(0).task, "spin");
    EXPECT_EQ(player.frameAt(2.5), 2u);
    EXPECT_EQ(player.frameAt(-1), 0u);
    EXPECT_EQ(player.frameAt(1e9), 3u);
}

TEST_F(RecordingTest, StepKeysStopAtTheEndsAndPause) {
    record();
    const VelikTop::Recording recording = VelikTop::loadRecording(path_.string());
    VelikTop::Sampler sampler(recording.endpoints);
    VelikTop::Player player(recording, sampler);
    const auto t0 = VelikTop::Player::Clock::now();
    EXPECT_TRUE(player.key(',', t0));
    EXPECT_EQ(player.frame(), 0u);
    EXPECT_TRUE(player.paused());
    player.key('.', t0);
    EXPECT_EQ(player.frame(), 1u);
    EXPECT_FALSE(player.key('q', t0));
    // Playing follows the recorded times.
    player.key(' ', t0);
    EXPECT_FALSE(player.tick(t0 + std::chrono::milliseconds(500)));
    EXPECT_TRUE(player.tick(t0 + std::chrono::milliseconds(1100)));
    EXPECT_EQ(player.frame(), 2u);
    EXPECT_NE(player.clockLine().find("frame 3/4  playing"), std::string::npos)
        << player.clockLine();
    player.key('>', t0);
    EXPECT_EQ(player.frame(), 3u);
}

TEST_F(RecordingTest, AFileCutShortReadsUpToItsLastWholeRound) {
    {
        VelikTop::Recorder recorder(path_.string(), endpoints_, 1.0,
                                    FetchResult::Clock::time_point{});
        for (std::size_t i = 0; i < 6; ++i) {
            recorder.write(answers_[i]);
        }
        // Killed here: the file is as the last round's flush left it.
        std::filesystem::copy_file(path_, path_.string() + ".cut");
        for (std::size_t i = 6; i < answers_.size(); ++i) {
            recorder.write(answers_[i]);
        }
    }
    const auto cut = VelikTop::loadRecording(path_.string() + ".cut");
    std::filesystem::remove(path_.string() + ".cut");
    EXPECT_EQ(cut.answers.size(), 6u);

    std::ofstream(path_) << "{\"schedulers\":{}}\n";
    EXPECT_EQ(VelikTopTest::failureOf([&] { VelikTop::loadRecording(path_.string()); }),
              VelikTop::exitMalformed);
    EXPECT_EQ(VelikTopTest::failureOf([&] { VelikTop::loadRecording(path_.string() + ".none"); }),
              VelikTop::exitUnreachable);
}

}  // namespace
