// A file of what velik-top fetched, to look at again later or elsewhere.
//
// The file is gzip-compressed text, one JSON document a line. The first line
// says what the file is and holds all it needs to be read on its own: the
// wall-clock time the recording began, the interval, and the sockets with
// the thread names they were shown under:
//
//   {"format":"velik-top recording","version":1,"start":1732423425.25,
//    "interval":1,"sockets":[{"path":"/run/d/main.sock","thread":"main"}]}
//
// Then one line per answer, in the order the answers arrived: the seconds
// since the start at which its request began ("t"), the socket's index, the
// request, whether it ended the socket's round, and the answer: a `status`
// or `stalls` reply as read, or for `snapshot` the snapshot as its change
// since the socket's last one (see `SnapshotDeltaWriter`), the busy reply,
// or the failure:
//
//   {"t":1.003,"socket":0,"verb":"snapshot","end":true,"snapshot":{"set":[...]}}
//   {"t":2.004,"socket":0,"verb":"snapshot","end":true,"busy":{"seconds":2.5,"task":"x"}}
//
// The stream is flushed at the end of every round, so a viewer killed while
// recording leaves a file that reads up to its last whole round.
//
//   VelikTop::Recorder recorder("bad-minute.vtr", endpoints, 1.0);
//   recorder.write(answer);  // each answer, before the sampler takes it
//   VelikTop::Recording r = VelikTop::loadRecording("bad-minute.vtr");
#pragma once

#include "Fetcher.h"
#include "Options.h"
#include "Sampler.h"
#include "SnapshotDelta.h"

#include <chrono>
#include <string>
#include <vector>

namespace VelikTop {

struct Recording {
    double startUnix = 0;  // wall-clock seconds since the epoch at the start
    double interval = 1;
    std::vector<Endpoint> endpoints;
    // Every answer, each `askedAt` the time since the start on the epoch of
    // `FetchResult::Clock`, so differences between answers are as recorded.
    std::vector<FetchResult> answers;
};

class Recorder {
  public:
    using Clock = FetchResult::Clock;

    // Creates (or replaces) `path` and writes the first line. Throws
    // `TopError` (`exitUsage`) when the file cannot be made.
    Recorder(const std::string& path, const std::vector<Endpoint>& endpoints, double interval,
             Clock::time_point start = Clock::now());
    // Closes the file, ending the gzip stream.
    ~Recorder();
    Recorder(const Recorder&) = delete;
    Recorder& operator=(const Recorder&) = delete;

    // Appends one answer. Throws `TopError` (`exitUsage`) when the file
    // cannot be written.
    void write(const FetchResult& answer);

  private:
    void writeLine(const std::string& line);

    std::string path_;
    void* file_ = nullptr;  // gzFile
    Clock::time_point start_;
    std::vector<SnapshotDeltaWriter> deltas_;  // per socket
};

// Reads a recording. Throws `TopError`: `exitUnreachable` when the file
// cannot be opened, `exitMalformed` when it is not a recording. A last line
// cut short (the recording viewer was killed) is left out.
Recording loadRecording(const std::string& path);

// Asks every socket once, waits for all the answers, and writes each to
// `recorder` (when there is one) before `sampler` takes it.
void refreshAndRecord(Fetcher& fetcher, Sampler& sampler, Recorder* recorder);

}  // namespace VelikTop
