#include "StallModel.h"

#include "TopError.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cstdlib>

namespace VelikTop {
namespace {

using Value = rapidjson::Value;

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Reads the quoted text at the start of `in` (past its opening quote) and
// moves `in` past the closing quote. An unknown escape is kept as it stands.
std::string unquote(std::string_view& in) {
    std::string out;
    std::size_t i = 0;
    for (; i < in.size() && in[i] != '"'; ++i) {
        if (in[i] != '\\' || i + 1 >= in.size()) {
            out += in[i];
            continue;
        }
        const char next = in[i + 1];
        if (next == '\\' || next == '"') {
            out += next;
            ++i;
        } else if (next == 'x' && i + 3 < in.size() && hexDigit(in[i + 2]) >= 0 &&
                   hexDigit(in[i + 3]) >= 0) {
            out += static_cast<char>(hexDigit(in[i + 2]) * 16 + hexDigit(in[i + 3]));
            i += 3;
        } else {
            out += in[i];
        }
    }
    in.remove_prefix(std::min(i + 1, in.size()));
    return out;
}

// Calls `take(key, value)` for every key=value or key="text" of `line`.
template <typename F>
void forEachField(std::string_view line, F&& take) {
    while (!line.empty()) {
        while (!line.empty() && line.front() == ' ') {
            line.remove_prefix(1);
        }
        const auto eq = line.find('=');
        if (eq == std::string_view::npos) {
            return;
        }
        const std::string_view key = line.substr(0, eq);
        line.remove_prefix(eq + 1);
        if (!line.empty() && line.front() == '"') {
            line.remove_prefix(1);
            take(key, unquote(line));
        } else {
            const auto end = std::min(line.find(' '), line.size());
            take(key, std::string(line.substr(0, end)));
            line.remove_prefix(end);
        }
    }
}

const Value* member(const Value& object, const char* key) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto it = object.FindMember(key);
    return it == object.MemberEnd() ? nullptr : &it->value;
}

std::string textOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsString() ? std::string(v->GetString(), v->GetStringLength()) : std::string();
}

std::int64_t numberOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsInt64() ? v->GetInt64() : 0;
}

std::uint64_t countOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsUint64() ? v->GetUint64() : 0;
}

bool flagOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsBool() && v->GetBool();
}

// Calls `f` for every element of the array `object[key]`, if it is one.
template <typename F>
void forEachOf(const Value& object, const char* key, F&& f) {
    const Value* v = member(object, key);
    if (v && v->IsArray()) {
        for (const Value& e : v->GetArray()) {
            f(e);
        }
    }
}

StallRecord readStall(const Value& s) {
    StallRecord r;
    r.id = countOf(s, "id");
    r.task = textOf(s, "task");
    r.startNs = numberOf(s, "startNs");
    r.thresholdNs = numberOf(s, "thresholdNs");
    r.durationNs = numberOf(s, "durationNs");
    r.ended = flagOf(s, "ended");
    forEachOf(s, "samples", [&](const Value& sample) {
        StallSample out;
        out.atNs = numberOf(sample, "atNs");
        forEachOf(sample, "frames", [&](const Value& f) {
            if (f.IsString()) {
                out.frames.emplace_back(f.GetString(), f.GetStringLength());
            }
        });
        r.samples.push_back(std::move(out));
    });
    return r;
}

}  // namespace

std::vector<RootStatus> parseStatus(std::string_view reply) {
    std::vector<RootStatus> out;
    while (!reply.empty()) {
        const auto end = std::min(reply.find('\n'), reply.size());
        RootStatus r;
        bool hasRoot = false;
        forEachField(reply.substr(0, end), [&](std::string_view key, std::string value) {
            if (key == "root") {
                r.root = std::move(value);
                hasRoot = true;
            } else if (key == "tid") {
                r.tid = std::strtoull(value.c_str(), nullptr, 10);
            } else if (key == "thread") {
                r.thread = std::move(value);
            } else if (key == "state") {
                r.state = std::move(value);
            } else if (key == "for") {
                r.forSeconds = std::strtod(value.c_str(), nullptr);
            } else if (key == "task") {
                r.task = std::move(value);
            } else if (key == "top") {
                r.top = std::move(value);
            }
        });
        if (hasRoot && !r.state.empty()) {
            out.push_back(std::move(r));
        }
        reply.remove_prefix(std::min(end + 1, reply.size()));
    }
    return out;
}

std::vector<StallRoot> parseStalls(std::string_view json) {
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseStopWhenDoneFlag>(json.data(),
                                                                                  json.size());
    if (doc.HasParseError()) {
        throw TopError(exitMalformed, std::string("stalls: malformed JSON: ") +
                                          rapidjson::GetParseError_En(doc.GetParseError()));
    }
    const Value* roots = member(doc, "roots");
    if (!roots || !roots->IsArray()) {
        throw TopError(exitMalformed, "stalls: no \"roots\" array");
    }
    std::vector<StallRoot> out;
    for (const Value& r : roots->GetArray()) {
        StallRoot root;
        root.root = textOf(r, "root");
        root.tid = countOf(r, "tid");
        root.thread = textOf(r, "thread");
        root.live = flagOf(r, "live");
        forEachOf(r, "stalls", [&](const Value& s) { root.stalls.push_back(readStall(s)); });
        out.push_back(std::move(root));
    }
    return out;
}

std::optional<BusyReply> parseBusy(std::string_view reason) {
    constexpr std::string_view head = "thread busy for ";
    constexpr std::string_view middle = " s in task \"";
    if (reason.substr(0, head.size()) != head) {
        return std::nullopt;
    }
    reason.remove_prefix(head.size());
    const auto at = reason.find(middle);
    if (at == std::string_view::npos) {
        return std::nullopt;
    }
    BusyReply busy;
    busy.seconds = std::strtod(std::string(reason.substr(0, at)).c_str(), nullptr);
    reason.remove_prefix(at + middle.size());
    busy.task = unquote(reason);
    return busy;
}

}  // namespace VelikTop
