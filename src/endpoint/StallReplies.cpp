// Status, stall records and the busy line: read from any thread, never from
// the root.
#include "endpoint/StallReplies.h"

#include "Velik/RunPublication.h"
#include "Velik/StallSentinel.h"
#include "report/JsonWriter.h"
#include "report/StatsPrintable.h"

#include <fmt/format.h>

#include <algorithm>
#include <sstream>

namespace Velik::Impl {

namespace {

double seconds(TaskTimeDuration duration) {
    return static_cast<double>(duration.count()) / 1e9;
}

std::uintptr_t idOf(const RunPublication* publication) {
    return reinterpret_cast<std::uintptr_t>(publication);
}

// `items` with the one of `own` moved to the front, the others in order.
template <typename T>
void ownFirst(std::vector<T>& items, const RunPublication* own) {
    std::stable_partition(items.begin(), items.end(),
                          [&](const T& item) { return item.rootId == idOf(own); });
}

// The top frame of the stall in progress on `status`'s root, if any.
std::string topFrameOf(const RootRunStatus& status, const std::vector<RootStalls>& rings) {
    for (const RootStalls& ring : rings) {
        if (ring.rootId == status.rootId && !ring.stalls.empty()) {
            const StallRecord& last = ring.stalls.back();
            if (!last.ended && last.taskId == status.taskId) {
                return stallTopFrame(last);
            }
        }
    }
    return {};
}

void statusLine(std::string& out, const RootRunStatus& status, const std::string& taskName,
                const std::vector<RootStalls>& rings) {
    out += fmt::format(R"(root="{}" tid={} thread="{}" state=)", quotedText(status.rootName),
                       status.tid, quotedText(status.threadName));
    if (!status.running) {
        out += "idle\n";
        return;
    }
    out +=
        fmt::format(R"({} for={:.3f} task="{}")", status.stalled ? "stalled" : "running",
                    seconds(status.runningFor), quotedText(shownTaskName(status.taskId, taskName)));
    if (status.stalled) {
        out += fmt::format(R"( top="{}")", quotedText(topFrameOf(status, rings)));
    }
    out += '\n';
}

void writeStall(JsonWriter& writer, const StallRecord& stall) {
    writer.StartObject();
    jsonKey(writer, "id");
    writer.Uint64(stall.id);
    jsonKey(writer, "task");
    jsonString(writer, shownTaskName(stall.taskId, stall.taskName));
    jsonKey(writer, "startNs");
    writer.Int64(stall.start.time_since_epoch().count());
    jsonKey(writer, "thresholdNs");
    writer.Int64(stall.threshold.count());
    jsonKey(writer, "durationNs");
    writer.Int64(stall.duration.count());
    jsonKey(writer, "ended");
    writer.Bool(stall.ended);
    jsonKey(writer, "samples");
    writer.StartArray();
    for (const StallSample& sample : stall.samples) {
        writer.StartObject();
        jsonKey(writer, "atNs");
        writer.Int64(sample.takenAt.time_since_epoch().count());
        jsonKey(writer, "frames");
        writer.StartArray();
        for (const std::string& frame : sample.frames) {
            jsonString(writer, frame);
        }
        writer.EndArray();
        writer.EndObject();
    }
    writer.EndArray();
    writer.EndObject();
}

void writeRoot(JsonWriter& writer, const RootStalls& ring) {
    writer.StartObject();
    jsonKey(writer, "root");
    jsonString(writer, ring.rootName);
    jsonKey(writer, "tid");
    writer.Int64(ring.tid);
    jsonKey(writer, "thread");
    jsonString(writer, ring.threadName);
    jsonKey(writer, "live");
    writer.Bool(ring.live);
    jsonKey(writer, "stalls");
    writer.StartArray();
    for (const StallRecord& stall : ring.stalls) {
        writeStall(writer, stall);
    }
    writer.EndArray();
    writer.EndObject();
}

}  // namespace

std::string quotedText(std::string_view text) {
    std::string escaped;
    escaped.reserve(text.size());
    for (const char c : text) {
        if (c == '\\' || c == '"') {
            escaped += '\\';
        }
        escaped += c;
    }
    // Adds "\xNN" escapes only: the backslashes above stay as they are.
    return printableText(escaped);
}

std::string shownTaskName(std::uintptr_t taskId, const std::string& taskName) {
    return taskName.empty() ? fmt::format("#{:x}", taskId) : taskName;
}

std::string renderStatusReply(const RunPublication* own,
                              const std::optional<std::string>& ownTaskName) {
    std::vector<RootRunStatus> statuses = rootRunStatuses();
    ownFirst(statuses, own);
    // Read after the statuses, so that a stall they show is in the records.
    const std::vector<RootStalls> rings = stallRecords();
    std::string out;
    for (const RootRunStatus& status : statuses) {
        const bool named = ownTaskName && status.rootId == idOf(own) && status.taskName.empty();
        statusLine(out, status, named ? *ownTaskName : status.taskName, rings);
    }
    return out;
}

std::string renderStallsReply(const RunPublication* own) {
    std::vector<RootStalls> rings = stallRecords();
    ownFirst(rings, own);
    std::ostringstream stream;
    {
        JsonOStreamBuffer buffer(stream);
        JsonWriter writer(buffer);
        writer.StartObject();
        jsonKey(writer, "roots");
        writer.StartArray();
        for (const RootStalls& ring : rings) {
            writeRoot(writer, ring);
        }
        writer.EndArray();
        writer.EndObject();
    }
    stream << '\n';
    return std::move(stream).str();
}

std::optional<std::string> busyLine(const RunPublication& own) {
    for (const RootRunStatus& status : rootRunStatuses()) {
        if (status.rootId == idOf(&own)) {
            if (!status.running) {
                return std::nullopt;
            }
            return fmt::format("error: thread busy for {:.1f} s in task \"{}\"\n",
                               seconds(status.runningFor),
                               quotedText(shownTaskName(status.taskId, status.taskName)));
        }
    }
    return std::nullopt;
}

}  // namespace Velik::Impl
