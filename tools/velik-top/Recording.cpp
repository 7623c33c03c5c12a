#include "Recording.h"

#include "TopError.h"

#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <zlib.h>

#include <cerrno>
#include <cstring>

namespace VelikTop {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using Value = rapidjson::Value;

constexpr const char* formatName = "velik-top recording";
constexpr int formatVersion = 1;
// A file that inflates beyond this is refused rather than read into memory:
// an hour of a large daemon stays far below it.
constexpr std::size_t maxRecordingBytes = std::size_t{1} << 30;

void putString(Writer& w, const char* key, const std::string& s) {
    w.Key(key);
    w.String(s.c_str(), static_cast<rapidjson::SizeType>(s.size()));
}

const char* verbName(FetchResult::Verb verb) {
    switch (verb) {
        case FetchResult::Verb::status:
            return "status";
        case FetchResult::Verb::stalls:
            return "stalls";
        case FetchResult::Verb::snapshot:
            break;
    }
    return "snapshot";
}

void writeStatus(Writer& w, const std::vector<RootStatus>& roots) {
    w.StartArray();
    for (const RootStatus& r : roots) {
        w.StartObject();
        putString(w, "root", r.root);
        w.Key("tid");
        w.Uint64(r.tid);
        putString(w, "thread", r.thread);
        putString(w, "state", r.state);
        w.Key("for");
        w.Double(r.forSeconds);
        putString(w, "task", r.task);
        putString(w, "top", r.top);
        w.EndObject();
    }
    w.EndArray();
}

void writeStalls(Writer& w, const std::vector<StallRoot>& roots) {
    w.StartArray();
    for (const StallRoot& r : roots) {
        w.StartObject();
        putString(w, "root", r.root);
        w.Key("tid");
        w.Uint64(r.tid);
        putString(w, "thread", r.thread);
        w.Key("live");
        w.Bool(r.live);
        w.Key("stalls");
        w.StartArray();
        for (const StallRecord& s : r.stalls) {
            w.StartObject();
            w.Key("id");
            w.Uint64(s.id);
            putString(w, "task", s.task);
            w.Key("start");
            w.Int64(s.startNs);
            w.Key("threshold");
            w.Int64(s.thresholdNs);
            w.Key("duration");
            w.Int64(s.durationNs);
            w.Key("ended");
            w.Bool(s.ended);
            w.Key("samples");
            w.StartArray();
            for (const StallSample& sample : s.samples) {
                w.StartObject();
                w.Key("at");
                w.Int64(sample.atNs);
                w.Key("frames");
                w.StartArray();
                for (const std::string& f : sample.frames) {
                    w.String(f.c_str(), static_cast<rapidjson::SizeType>(f.size()));
                }
                w.EndArray();
                w.EndObject();
            }
            w.EndArray();
            w.EndObject();
        }
        w.EndArray();
        w.EndObject();
    }
    w.EndArray();
}

// Lenient readers, as for the daemon's own documents.
std::string textOf(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsString()
               ? std::string(it->value.GetString(), it->value.GetStringLength())
               : std::string();
}
double numberOf(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsNumber() ? it->value.GetDouble() : 0.0;
}
std::int64_t int64Of(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsInt64() ? it->value.GetInt64() : 0;
}
std::uint64_t uint64Of(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsUint64() ? it->value.GetUint64() : 0;
}
bool flagOf(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsBool() && it->value.GetBool();
}
const Value* arrayOf(const Value& o, const char* key) {
    const auto it = o.FindMember(key);
    return it != o.MemberEnd() && it->value.IsArray() ? &it->value : nullptr;
}

std::vector<RootStatus> readStatus(const Value& v) {
    std::vector<RootStatus> out;
    for (const Value& r : v.GetArray()) {
        if (r.IsObject()) {
            out.push_back({textOf(r, "root"), uint64Of(r, "tid"), textOf(r, "thread"),
                           textOf(r, "state"), numberOf(r, "for"), textOf(r, "task"),
                           textOf(r, "top")});
        }
    }
    return out;
}

StallRecord readStall(const Value& s) {
    StallRecord record{uint64Of(s, "id"),
                       textOf(s, "task"),
                       int64Of(s, "start"),
                       int64Of(s, "threshold"),
                       int64Of(s, "duration"),
                       flagOf(s, "ended"),
                       {}};
    if (const Value* samples = arrayOf(s, "samples")) {
        for (const Value& sample : samples->GetArray()) {
            if (!sample.IsObject()) {
                continue;
            }
            StallSample out{int64Of(sample, "at"), {}};
            if (const Value* frames = arrayOf(sample, "frames")) {
                for (const Value& f : frames->GetArray()) {
                    if (f.IsString()) {
                        out.frames.emplace_back(f.GetString(), f.GetStringLength());
                    }
                }
            }
            record.samples.push_back(std::move(out));
        }
    }
    return record;
}

std::vector<StallRoot> readStalls(const Value& v) {
    std::vector<StallRoot> out;
    for (const Value& r : v.GetArray()) {
        if (!r.IsObject()) {
            continue;
        }
        StallRoot root{
            textOf(r, "root"), uint64Of(r, "tid"), textOf(r, "thread"), flagOf(r, "live"), {}};
        if (const Value* stalls = arrayOf(r, "stalls")) {
            for (const Value& s : stalls->GetArray()) {
                if (s.IsObject()) {
                    root.stalls.push_back(readStall(s));
                }
            }
        }
        out.push_back(std::move(root));
    }
    return out;
}

ExitStatus exitStatusFrom(std::int64_t n) {
    switch (n) {
        case exitUsage:
        case exitUnreachable:
        case exitRefused:
        case exitMalformed:
            return static_cast<ExitStatus>(n);
        default:
            return exitUnreachable;
    }
}

// The whole inflated text of `path`; a stream cut short gives what came
// before the cut.
std::string inflateFile(const std::string& path) {
    gzFile file = gzopen(path.c_str(), "rb");
    if (!file) {
        throw TopError(exitUnreachable, path + ": cannot open: " + std::strerror(errno));
    }
    std::string text;
    char chunk[1 << 16];
    for (;;) {
        const int n = gzread(file, chunk, sizeof chunk);
        if (n <= 0) {
            break;
        }
        text.append(chunk, static_cast<std::size_t>(n));
        if (text.size() > maxRecordingBytes) {
            gzclose(file);
            throw TopError(exitMalformed, path + ": not read: larger than 1 GiB inflated");
        }
    }
    gzclose(file);
    return text;
}

// One answer line read back; false for a line that is not one.
bool readAnswer(const Value& line, std::vector<SnapshotDeltaReader>& deltas,
                const std::vector<Endpoint>& endpoints, FetchResult& out) {
    const auto socket = line.FindMember("socket");
    if (!line.IsObject() || socket == line.MemberEnd() || !socket->value.IsUint64() ||
        socket->value.GetUint64() >= endpoints.size()) {
        return false;
    }
    out.thread = static_cast<std::size_t>(socket->value.GetUint64());
    out.askedAt =
        FetchResult::Clock::time_point{} + std::chrono::round<FetchResult::Clock::duration>(
                                               std::chrono::duration<double>(numberOf(line, "t")));
    out.roundEnded = flagOf(line, "end");
    const std::string verb = textOf(line, "verb");
    if (verb == "status") {
        out.verb = FetchResult::Verb::status;
        if (const Value* status = arrayOf(line, "status")) {
            out.status = readStatus(*status);
        }
    } else if (verb == "stalls") {
        out.verb = FetchResult::Verb::stalls;
        if (const Value* stalls = arrayOf(line, "stalls")) {
            out.stalls = readStalls(*stalls);
        }
    } else if (verb == "snapshot") {
        out.verb = FetchResult::Verb::snapshot;
        if (const auto s = line.FindMember("snapshot"); s != line.MemberEnd()) {
            out.snapshot = deltas[out.thread].read(s->value, endpoints[out.thread].thread);
        } else if (const auto b = line.FindMember("busy");
                   b != line.MemberEnd() && b->value.IsObject()) {
            out.busy = BusyReply{numberOf(b->value, "seconds"), textOf(b->value, "task")};
        } else if (const auto e = line.FindMember("error");
                   e != line.MemberEnd() && e->value.IsObject()) {
            out.error =
                TopError(exitStatusFrom(int64Of(e->value, "status")), textOf(e->value, "message"));
        }
    } else {
        return false;
    }
    return true;
}

Recording readHeader(const std::string& path, std::string_view line) {
    rapidjson::Document doc;
    doc.Parse(line.data(), line.size());
    if (doc.HasParseError() || !doc.IsObject() || textOf(doc, "format") != formatName) {
        throw TopError(exitMalformed, path + ": not a velik-top recording");
    }
    if (int64Of(doc, "version") != formatVersion) {
        throw TopError(exitMalformed, path + ": a recording of version " +
                                          std::to_string(int64Of(doc, "version")) +
                                          ", this viewer reads version 1");
    }
    Recording r;
    r.startUnix = numberOf(doc, "start");
    r.interval = numberOf(doc, "interval");
    if (const Value* sockets = arrayOf(doc, "sockets")) {
        for (const Value& s : sockets->GetArray()) {
            if (s.IsObject()) {
                r.endpoints.push_back({textOf(s, "path"), textOf(s, "thread")});
            }
        }
    }
    if (r.endpoints.empty()) {
        throw TopError(exitMalformed, path + ": a recording without sockets");
    }
    return r;
}

}  // namespace

Recorder::Recorder(const std::string& path, const std::vector<Endpoint>& endpoints, double interval,
                   Clock::time_point start)
    : path_(path), start_(start), deltas_(endpoints.size()) {
    file_ = gzopen(path.c_str(), "wb");
    if (!file_) {
        throw TopError(exitUsage, path + ": cannot record: " + std::strerror(errno));
    }
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    w.StartObject();
    putString(w, "format", formatName);
    w.Key("version");
    w.Int(formatVersion);
    // The wall clock now, less the time since `start` on the steady clock.
    const double sinceStart = std::chrono::duration<double>(Clock::now() - start).count();
    w.Key("start");
    w.Double(
        std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count() -
        sinceStart);
    w.Key("interval");
    w.Double(interval);
    w.Key("sockets");
    w.StartArray();
    for (const Endpoint& e : endpoints) {
        w.StartObject();
        putString(w, "path", e.path);
        putString(w, "thread", e.thread);
        w.EndObject();
    }
    w.EndArray();
    w.EndObject();
    writeLine(buffer.GetString());
}

Recorder::~Recorder() {
    gzclose(static_cast<gzFile>(file_));
}

void Recorder::writeLine(const std::string& line) {
    gzFile file = static_cast<gzFile>(file_);
    if (gzwrite(file, line.data(), static_cast<unsigned>(line.size())) !=
            static_cast<int>(line.size()) ||
        gzputc(file, '\n') != '\n') {
        throw TopError(exitUsage, path_ + ": cannot record: write failed");
    }
}

void Recorder::write(const FetchResult& answer) {
    if (answer.thread >= deltas_.size()) {
        return;
    }
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    w.StartObject();
    w.Key("t");
    w.Double(std::chrono::duration<double>(answer.askedAt - start_).count());
    w.Key("socket");
    w.Uint64(answer.thread);
    putString(w, "verb", verbName(answer.verb));
    w.Key("end");
    w.Bool(answer.roundEnded);
    if (answer.status) {
        w.Key("status");
        writeStatus(w, *answer.status);
    }
    if (answer.stalls) {
        w.Key("stalls");
        writeStalls(w, *answer.stalls);
    }
    if (answer.snapshot) {
        const std::string delta = deltas_[answer.thread].write(*answer.snapshot);
        w.Key("snapshot");
        w.RawValue(delta.c_str(), delta.size(), rapidjson::kObjectType);
    } else if (answer.busy) {
        w.Key("busy");
        w.StartObject();
        w.Key("seconds");
        w.Double(answer.busy->seconds);
        putString(w, "task", answer.busy->task);
        w.EndObject();
    } else if (answer.error) {
        w.Key("error");
        w.StartObject();
        w.Key("status");
        w.Int(answer.error->status());
        putString(w, "message", answer.error->what());
        w.EndObject();
    }
    w.EndObject();
    writeLine(buffer.GetString());
    if (answer.roundEnded && gzflush(static_cast<gzFile>(file_), Z_SYNC_FLUSH) != Z_OK) {
        throw TopError(exitUsage, path_ + ": cannot record: write failed");
    }
}

Recording loadRecording(const std::string& path) {
    const std::string text = inflateFile(path);
    std::string_view rest = text;
    const auto nextLine = [&rest]() {
        const std::size_t end = rest.find('\n');
        // A line without its newline was cut short: left out.
        if (end == std::string_view::npos) {
            rest = {};
            return std::string_view();
        }
        const std::string_view line = rest.substr(0, end);
        rest.remove_prefix(end + 1);
        return line;
    };
    Recording r = readHeader(path, nextLine());
    std::vector<SnapshotDeltaReader> deltas(r.endpoints.size());
    while (!rest.empty()) {
        const std::string_view line = nextLine();
        rapidjson::Document doc;
        doc.Parse<rapidjson::kParseFullPrecisionFlag>(line.data(), line.size());
        FetchResult answer;
        if (!doc.HasParseError() && readAnswer(doc, deltas, r.endpoints, answer)) {
            r.answers.push_back(std::move(answer));
        }
    }
    return r;
}

void refreshAndRecord(Fetcher& fetcher, Sampler& sampler, Recorder* recorder) {
    fetcher.startRound();
    for (FetchResult& r : fetcher.takeWhenDone()) {
        if (recorder) {
            recorder->write(r);
        }
        sampler.apply(std::move(r));
    }
}

}  // namespace VelikTop
