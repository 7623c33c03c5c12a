#include "SnapshotDelta.h"

#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

#include <algorithm>
#include <optional>
#include <unordered_set>

namespace VelikTop {
namespace {

using Writer = rapidjson::Writer<rapidjson::StringBuffer>;
using Value = rapidjson::Value;

void put(Writer& w, const std::string& v) {
    w.String(v.c_str(), static_cast<rapidjson::SizeType>(v.size()));
}
void put(Writer& w, bool v) {
    w.Bool(v);
}
void put(Writer& w, int v) {
    w.Int(v);
}
void put(Writer& w, std::uint64_t v) {
    w.Uint64(v);
}
void put(Writer& w, double v) {
    w.Double(v);
}
void put(Writer& w, const std::optional<std::uint64_t>& v) {
    if (v) {
        w.Uint64(*v);
    } else {
        w.Null();
    }
}

void get(const Value& v, std::string& out) {
    if (v.IsString()) {
        out.assign(v.GetString(), v.GetStringLength());
    }
}
void get(const Value& v, bool& out) {
    if (v.IsBool()) {
        out = v.GetBool();
    }
}
void get(const Value& v, int& out) {
    if (v.IsInt()) {
        out = v.GetInt();
    }
}
void get(const Value& v, std::uint64_t& out) {
    if (v.IsUint64()) {
        out = v.GetUint64();
    }
}
void get(const Value& v, double& out) {
    if (v.IsNumber()) {
        out = v.GetDouble();
    }
}
void get(const Value& v, std::optional<std::uint64_t>& out) {
    if (v.IsNull()) {
        out.reset();
    } else if (v.IsUint64()) {
        out = v.GetUint64();
    }
}

// One member of a record: its key, and how to write, compare and read it.
template <typename Record>
struct Field {
    const char* key;
    void (*write)(Writer&, const Record&);
    bool (*same)(const Record&, const Record&);
    void (*read)(const Value&, Record&);
};

template <auto Member, typename Record>
constexpr Field<Record> field(const char* key) {
    return {key, [](Writer& w, const Record& r) { put(w, r.*Member); },
            [](const Record& a, const Record& b) { return a.*Member == b.*Member; },
            [](const Value& v, Record& r) { get(v, r.*Member); }};
}

// Short keys: a record is written once per change, in every frame.
constexpr Field<TaskRow> taskFields[] = {
    field<&TaskRow::scope, TaskRow>("scope"),
    field<&TaskRow::scheduler, TaskRow>("sched"),
    field<&TaskRow::depth, TaskRow>("depth"),
    field<&TaskRow::name, TaskRow>("name"),
    field<&TaskRow::address, TaskRow>("addr"),
    field<&TaskRow::priority, TaskRow>("prio"),
    field<&TaskRow::completed, TaskRow>("done"),
    field<&TaskRow::isGroup, TaskRow>("group"),
    field<&TaskRow::standIn, TaskRow>("standIn"),
    field<&TaskRow::childScope, TaskRow>("child"),
    field<&TaskRow::onRunQueue, TaskRow>("queued"),
    field<&TaskRow::currentlyRunning, TaskRow>("running"),
    field<&TaskRow::suspended, TaskRow>("susp"),
    field<&TaskRow::hasTimer, TaskRow>("timer"),
    field<&TaskRow::timerRunning, TaskRow>("armed"),
    field<&TaskRow::runCount, TaskRow>("runs"),
    field<&TaskRow::totalRunTime, TaskRow>("time"),
    field<&TaskRow::lastLatency, TaskRow>("lat"),
    field<&TaskRow::maxLatency, TaskRow>("maxLat"),
    field<&TaskRow::qv200, TaskRow>("qv200"),
    field<&TaskRow::qv500, TaskRow>("qv500"),
    field<&TaskRow::maxMs, TaskRow>("maxMs"),
    field<&TaskRow::completedCount, TaskRow>("count"),
    field<&TaskRow::workTotal, TaskRow>("work"),
    field<&TaskRow::workPending, TaskRow>("pend"),
};

constexpr Field<SchedulerRow> schedulerFields[] = {
    field<&SchedulerRow::scope, SchedulerRow>("scope"),
    field<&SchedulerRow::name, SchedulerRow>("name"),
    field<&SchedulerRow::depth, SchedulerRow>("depth"),
    field<&SchedulerRow::isRoot, SchedulerRow>("root"),
    field<&SchedulerRow::maxSlip, SchedulerRow>("slip"),
    field<&SchedulerRow::skipped, SchedulerRow>("skipped"),
};

// The members of `now` that differ from `before`, as an object.
template <typename Record, std::size_t N>
void writeChanged(Writer& w, const Field<Record> (&fields)[N], const Record& before,
                  const Record& now) {
    w.StartObject();
    for (const Field<Record>& f : fields) {
        if (!f.same(before, now)) {
            w.Key(f.key);
            f.write(w, now);
        }
    }
    w.EndObject();
}

template <typename Record, std::size_t N>
void readFields(const Value& object, const Field<Record> (&fields)[N], Record& out) {
    if (!object.IsObject()) {
        return;
    }
    for (const Field<Record>& f : fields) {
        if (const auto it = object.FindMember(f.key); it != object.MemberEnd()) {
            f.read(it->value, out);
        }
    }
}

std::string schedulersJson(const std::vector<SchedulerRow>& schedulers) {
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    // [[<scheduler>...], [<priority counts>...]]: the counts are a map, not
    // a field.
    w.StartArray();
    w.StartArray();
    for (const SchedulerRow& s : schedulers) {
        writeChanged(w, schedulerFields, SchedulerRow{}, s);
    }
    w.EndArray();
    w.StartArray();
    for (const SchedulerRow& s : schedulers) {
        w.StartObject();
        for (const auto& [name, p] : s.priorities) {
            put(w, name);
            w.StartArray();
            put(w, p.runnable);
            put(w, p.idle);
            put(w, p.completed);
            put(w, p.runs);
            w.EndArray();
        }
        w.EndObject();
    }
    w.EndArray();
    w.EndArray();
    return buffer.GetString();
}

std::vector<SchedulerRow> readSchedulers(const Value& v) {
    std::vector<SchedulerRow> out;
    if (!v.IsArray() || v.Size() != 2 || !v[0].IsArray() || !v[1].IsArray()) {
        return out;
    }
    for (const Value& s : v[0].GetArray()) {
        out.emplace_back();
        readFields(s, schedulerFields, out.back());
    }
    for (rapidjson::SizeType i = 0; i < v[1].Size() && i < out.size(); ++i) {
        if (!v[1][i].IsObject()) {
            continue;
        }
        for (const auto& m : v[1][i].GetObject()) {
            if (m.value.IsArray() && m.value.Size() == 4) {
                PriorityCounts& p = out[i].priorities[m.name.GetString()];
                get(m.value[0], p.runnable);
                get(m.value[1], p.idle);
                get(m.value[2], p.completed);
                get(m.value[3], p.runs);
            }
        }
    }
    return out;
}

bool sameEvent(const HistoryEvent& a, const HistoryEvent& b) {
    return a.nsSinceBoot == b.nsSinceBoot && a.scheduler == b.scheduler && a.type == b.type &&
           a.id == b.id;
}

// How many events lead `now` before the start of `before` takes over (the
// history is newest first, and old events fall off its end), or nothing
// when `now` does not continue `before`.
std::optional<std::size_t> newEvents(const std::vector<HistoryEvent>& before,
                                     const std::vector<HistoryEvent>& now) {
    for (std::size_t lead = 0; lead <= now.size(); ++lead) {
        const std::size_t kept = now.size() - lead;
        if (kept <= before.size() && std::equal(now.begin() + static_cast<std::ptrdiff_t>(lead),
                                                now.end(), before.begin(), sameEvent)) {
            return lead;
        }
    }
    return std::nullopt;
}

void writeEvents(Writer& w, const std::vector<HistoryEvent>& events, std::size_t count) {
    w.StartArray();
    for (std::size_t i = 0; i < count; ++i) {
        w.StartArray();
        w.Int64(events[i].nsSinceBoot);
        put(w, events[i].scheduler);
        put(w, events[i].type);
        put(w, events[i].id);
        w.EndArray();
    }
    w.EndArray();
}

std::vector<HistoryEvent> readEvents(const Value& v) {
    std::vector<HistoryEvent> out;
    if (!v.IsArray()) {
        return out;
    }
    for (const Value& e : v.GetArray()) {
        if (e.IsArray() && e.Size() == 4) {
            HistoryEvent event;
            if (e[0].IsInt64()) {
                event.nsSinceBoot = e[0].GetInt64();
            }
            get(e[1], event.scheduler);
            get(e[2], event.type);
            get(e[3], event.id);
            out.push_back(std::move(event));
        }
    }
    return out;
}

void writeIds(Writer& w, const std::vector<std::uint64_t>& ids) {
    w.StartArray();
    for (const std::uint64_t id : ids) {
        w.Uint64(id);
    }
    w.EndArray();
}

const Value* memberOf(const Value& object, const char* key) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto it = object.FindMember(key);
    return it == object.MemberEnd() ? nullptr : &it->value;
}

}  // namespace

std::string SnapshotDeltaWriter::write(const ThreadSnapshot& snapshot) {
    rapidjson::StringBuffer buffer;
    Writer w(buffer);
    w.StartObject();

    // Two records of one key in one snapshot stay apart by their rank.
    std::unordered_map<std::string, Known> now;
    std::unordered_map<std::string, int> seen;
    std::vector<std::uint64_t> order, added;
    w.Key("set");
    w.StartArray();
    for (const TaskRow& row : snapshot.tasks) {
        std::string key = row.identity();
        key += '\n' + std::to_string(seen[key]++);
        const auto it = tasks_.find(key);
        const bool known = it != tasks_.end();
        const std::uint64_t id = known ? it->second.id : nextId_++;
        const TaskRow& before = known ? it->second.row : TaskRow{};
        const bool changed =
            !known || std::any_of(std::begin(taskFields), std::end(taskFields),
                                  [&](const Field<TaskRow>& f) { return !f.same(before, row); });
        if (changed) {
            w.StartArray();
            w.Uint64(id);
            writeChanged(w, taskFields, before, row);
            w.EndArray();
        }
        if (!known) {
            added.push_back(id);
        }
        order.push_back(id);
        now.emplace(std::move(key), Known{id, row});
    }
    w.EndArray();

    std::unordered_set<std::uint64_t> dropped;
    for (const auto& [key, known] : tasks_) {
        if (!now.count(key)) {
            dropped.insert(known.id);
        }
    }
    if (!dropped.empty()) {
        w.Key("drop");
        std::vector<std::uint64_t> ids(dropped.begin(), dropped.end());
        std::sort(ids.begin(), ids.end());
        writeIds(w, ids);
    }
    // The order the reader arrives at by itself: the old one without the
    // tasks that went, then the new ones.
    std::vector<std::uint64_t> implied;
    for (const std::uint64_t id : order_) {
        if (!dropped.count(id)) {
            implied.push_back(id);
        }
    }
    implied.insert(implied.end(), added.begin(), added.end());
    if (implied != order) {
        w.Key("order");
        writeIds(w, order);
    }

    if (const auto lead = newEvents(history_, snapshot.history)) {
        w.Key("events");
        writeEvents(w, snapshot.history, *lead);
        w.Key("kept");
        w.Uint64(snapshot.history.size() - *lead);
    } else {
        w.Key("history");
        writeEvents(w, snapshot.history, snapshot.history.size());
    }

    std::string schedulers = schedulersJson(snapshot.schedulers);
    if (schedulers != schedulers_) {
        w.Key("schedulers");
        w.RawValue(schedulers.c_str(), schedulers.size(), rapidjson::kArrayType);
        schedulers_ = std::move(schedulers);
    }
    w.EndObject();

    tasks_ = std::move(now);
    order_ = std::move(order);
    history_ = snapshot.history;
    return buffer.GetString();
}

ThreadSnapshot SnapshotDeltaReader::read(const Value& delta, const std::string& thread) {
    if (const Value* drop = memberOf(delta, "drop"); drop && drop->IsArray()) {
        std::unordered_set<std::uint64_t> gone;
        for (const Value& id : drop->GetArray()) {
            if (id.IsUint64()) {
                gone.insert(id.GetUint64());
                tasks_.erase(id.GetUint64());
            }
        }
        std::erase_if(order_, [&gone](std::uint64_t id) { return gone.count(id) > 0; });
    }
    if (const Value* set = memberOf(delta, "set"); set && set->IsArray()) {
        for (const Value& entry : set->GetArray()) {
            if (!entry.IsArray() || entry.Size() != 2 || !entry[0].IsUint64()) {
                continue;
            }
            const std::uint64_t id = entry[0].GetUint64();
            const auto [it, added] = tasks_.try_emplace(id);
            if (added) {
                order_.push_back(id);
            }
            readFields(entry[1], taskFields, it->second);
        }
    }
    if (const Value* order = memberOf(delta, "order"); order && order->IsArray()) {
        order_.clear();
        for (const Value& id : order->GetArray()) {
            if (id.IsUint64() && tasks_.count(id.GetUint64())) {
                order_.push_back(id.GetUint64());
            }
        }
    }
    if (const Value* events = memberOf(delta, "events")) {
        std::vector<HistoryEvent> history = readEvents(*events);
        const Value* kept = memberOf(delta, "kept");
        const std::size_t keep = std::min<std::size_t>(
            kept && kept->IsUint64() ? kept->GetUint64() : 0, history_.size());
        history.insert(history.end(), history_.begin(),
                       history_.begin() + static_cast<std::ptrdiff_t>(keep));
        history_ = std::move(history);
    } else if (const Value* whole = memberOf(delta, "history")) {
        history_ = readEvents(*whole);
    }
    if (const Value* schedulers = memberOf(delta, "schedulers")) {
        schedulers_ = readSchedulers(*schedulers);
    }

    ThreadSnapshot out;
    out.thread = thread;
    out.schedulers = schedulers_;
    out.history = history_;
    out.tasks.reserve(order_.size());
    for (const std::uint64_t id : order_) {
        out.tasks.push_back(tasks_.at(id));
    }
    return out;
}

}  // namespace VelikTop
