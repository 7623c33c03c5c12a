#include "Histograms.h"

#include "TopError.h"

#include <rapidjson/document.h>

namespace VelikTop {
namespace {

using Value = rapidjson::Value;

std::string textOf(const Value& object, const char* key) {
    const auto it = object.FindMember(key);
    return it != object.MemberEnd() && it->value.IsString()
               ? std::string(it->value.GetString(), it->value.GetStringLength())
               : std::string();
}

double secondsOf(const Value& object, const char* key) {
    const auto it = object.FindMember(key);
    return it != object.MemberEnd() && it->value.IsNumber() ? it->value.GetDouble() / 1e9 : 0.0;
}

std::optional<Quantiles> quantilesOf(const Value& object, const char* key) {
    const auto it = object.FindMember(key);
    if (it == object.MemberEnd() || !it->value.IsObject()) {
        return std::nullopt;
    }
    const Value& h = it->value;
    Quantiles q;
    const auto count = h.FindMember("count");
    q.count = count != h.MemberEnd() && count->value.IsUint64() ? count->value.GetUint64() : 0;
    q.p50 = secondsOf(h, "p50");
    q.p90 = secondsOf(h, "p90");
    q.p99 = secondsOf(h, "p99");
    q.p999 = secondsOf(h, "p999");
    q.max = secondsOf(h, "max");
    return q;
}

RunHistograms histogramsIn(const Value& entry) {
    return {quantilesOf(entry, "runTime"), quantilesOf(entry, "latency"),
            quantilesOf(entry, "timerLateness")};
}

const Value* arrayMember(const Value& object, const char* key) {
    const auto it = object.FindMember(key);
    return it != object.MemberEnd() && it->value.IsArray() ? &it->value : nullptr;
}

}  // namespace

HistogramSet parseHistograms(std::string_view json) {
    rapidjson::Document doc;
    doc.Parse(json.data(), json.size());
    if (doc.HasParseError() || !doc.IsObject()) {
        throw TopError(exitMalformed, "the histograms reply is not a JSON object");
    }
    HistogramSet set;
    if (const Value* schedulers = arrayMember(doc, "schedulers")) {
        for (const Value& s : schedulers->GetArray()) {
            if (!s.IsObject()) {
                continue;
            }
            const std::string name = textOf(s, "name");
            if (textOf(s, "kind") == "root" && set.root.empty()) {
                set.root = name;
            }
            set.schedulers[name] = histogramsIn(s);
        }
    }
    if (const Value* tasks = arrayMember(doc, "tasks")) {
        for (const Value& t : tasks->GetArray()) {
            if (t.IsObject()) {
                set.tasks[{textOf(t, "scheduler"), textOf(t, "name")}] = histogramsIn(t);
            }
        }
    }
    return set;
}

const RunHistograms* histogramsOf(const HistogramSet& set, const TaskRow& row,
                                  const ThreadSnapshot& snapshot) {
    if (row.isGroup) {
        for (const SchedulerRow& s : snapshot.schedulers) {
            if (s.scope == row.childScope) {
                const auto it = set.schedulers.find(s.name);
                return it == set.schedulers.end() ? nullptr : &it->second;
            }
        }
        return nullptr;
    }
    const auto it = set.tasks.find({row.scheduler, row.name});
    return it == set.tasks.end() ? nullptr : &it->second;
}

}  // namespace VelikTop
