#include "SnapshotModel.h"

#include "TopError.h"

#include <rapidjson/document.h>
#include <rapidjson/error/en.h>

#include <cctype>

namespace VelikTop {
namespace {

using Value = rapidjson::Value;

// Group nesting deeper than this is not followed: no daemon nests so deep,
// and the viewer must not recurse without end on a hostile document.
constexpr int maxDepth = 64;

const Value* member(const Value& object, const char* key) {
    if (!object.IsObject()) {
        return nullptr;
    }
    const auto it = object.FindMember(key);
    return it == object.MemberEnd() ? nullptr : &it->value;
}

const Value* objectMember(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsObject() ? v : nullptr;
}

std::string text(const Value& v) {
    return v.IsString() ? std::string(v.GetString(), v.GetStringLength()) : std::string();
}

std::string textOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v ? text(*v) : std::string();
}

double numberOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsNumber() ? v->GetDouble() : 0.0;
}

std::uint64_t countOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    if (!v || !v->IsNumber()) {
        return 0;
    }
    if (v->IsUint64()) {
        return v->GetUint64();
    }
    const double d = v->GetDouble();
    return d > 0 && d < 1.8e19 ? static_cast<std::uint64_t>(d) : 0;
}

bool flagOf(const Value& object, const char* key) {
    const Value* v = member(object, key);
    return v && v->IsBool() && v->GetBool();
}

TaskRow readTask(const Value& t, const std::string& scope, const std::string& scheduler, int depth,
                 bool completed) {
    TaskRow row;
    row.scope = scope;
    row.scheduler = scheduler;
    row.depth = depth;
    row.completed = completed;
    row.name = textOf(t, "name");
    row.address = textOf(t, "address");
    row.priority = textOf(t, "priority");
    if (const Value* sub = member(t, "subScheduler"); sub && sub->IsString() && !completed) {
        row.isGroup = true;
        row.childScope = scope + "/" + text(*sub);
    }
    row.onRunQueue = flagOf(t, "onRunQueue");
    row.currentlyRunning = flagOf(t, "currentlyRunning");
    row.suspended = flagOf(t, "suspended");
    row.hasTimer = flagOf(t, "hasTimer");
    row.timerRunning = flagOf(t, "timerRunning");
    row.runCount = countOf(t, "runCount");
    row.totalRunTime = numberOf(t, "totalRunTime");
    row.lastLatency = numberOf(t, "lastSchedulingLatency");
    row.maxLatency = numberOf(t, "schedulingLatencyHighWaterMark");
    row.qv200 = countOf(t, "qv200");
    row.qv500 = countOf(t, "qv500");
    row.maxMs = countOf(t, "maxMs");
    row.completedCount = countOf(t, "completedCount");
    if (const Value* work = objectMember(t, "workCount")) {
        row.workTotal = countOf(*work, "total");
    }
    if (const Value* pending = objectMember(t, "workPending")) {
        row.workPending = countOf(*pending, "pending");
    }
    return row;
}

class Reader {
  public:
    explicit Reader(ThreadSnapshot& out) : out_(out) {}

    void readScheduler(const Value& s, const std::string& scope, int depth) {
        if (!s.IsObject() || depth > maxDepth) {
            return;
        }
        SchedulerRow sched;
        sched.scope = scope;
        sched.depth = depth;
        sched.name = textOf(s, "schedulerName");
        if (sched.name.empty()) {
            sched.name = std::string(lastScopeComponent(scope));
        }
        if (const Value* root = member(s, "isRootScheduler"); root && root->IsBool()) {
            sched.isRoot = root->GetBool();
        }
        sched.maxSlip = numberOf(s, "maxSchedulerSlip");
        if (const Value* stats = objectMember(s, "priorityStats")) {
            for (const auto& p : stats->GetObject()) {
                sched.priorities[text(p.name)] = {
                    countOf(p.value, "runnableTasks"), countOf(p.value, "idleTasks"),
                    countOf(p.value, "completedTasks"), countOf(p.value, "totalRunCount")};
            }
        }
        const Value* live = objectMember(s, "tasks");
        sched.skipped = live ? countOf(*live, "skipped") : 0;
        out_.schedulers.push_back(sched);
        readHistory(s, sched.name);

        const Value* subs = objectMember(s, "subSchedulers");
        std::map<std::string, bool> groupSeen;
        readTasks(live, scope, sched.name, depth, false, subs, groupSeen);
        readTasks(objectMember(s, "completedTasks"), scope, sched.name, depth, true, subs,
                  groupSeen);
        if (!subs) {
            return;
        }
        // A group whose own task was left out (it never ran) still shows
        // its tasks, under a row standing in for it.
        for (const auto& m : subs->GetObject()) {
            const std::string key = text(m.name);
            if (groupSeen.count(key)) {
                continue;
            }
            TaskRow stand;
            stand.scope = scope;
            stand.scheduler = sched.name;
            stand.depth = depth;
            stand.name = textOf(m.value, "schedulerName");
            stand.isGroup = true;
            stand.standIn = true;
            stand.childScope = scope + "/" + key;
            out_.tasks.push_back(stand);
            readScheduler(m.value, stand.childScope, depth + 1);
        }
    }

  private:
    void readTasks(const Value* list, const std::string& scope, const std::string& scheduler,
                   int depth, bool completed, const Value* subs,
                   std::map<std::string, bool>& groupSeen) {
        const Value* tasks = list ? member(*list, "tasks") : nullptr;
        if (!tasks || !tasks->IsArray()) {
            return;
        }
        for (const Value& t : tasks->GetArray()) {
            if (!t.IsObject()) {
                continue;
            }
            out_.tasks.push_back(readTask(t, scope, scheduler, depth, completed));
            if (!out_.tasks.back().isGroup) {
                continue;
            }
            const std::string key = textOf(t, "subScheduler");
            const Value* sub = subs ? objectMember(*subs, key.c_str()) : nullptr;
            if (sub && !groupSeen[key]) {
                groupSeen[key] = true;
                const std::string childScope = out_.tasks.back().childScope;
                readScheduler(*sub, childScope, depth + 1);
            }
        }
    }

    void readHistory(const Value& s, const std::string& scheduler) {
        const Value* outer = objectMember(s, "history");
        const Value* events = outer ? member(*outer, "history") : nullptr;
        if (!events || !events->IsArray()) {
            return;
        }
        for (const Value& e : events->GetArray()) {
            if (!e.IsObject()) {
                continue;
            }
            const Value* ns = member(e, "nsSinceBoot");
            out_.history.push_back({ns && ns->IsInt64() ? ns->GetInt64() : 0, scheduler,
                                    textOf(e, "eventType"), textOf(e, "eventId")});
        }
    }

    ThreadSnapshot& out_;
};

char priorityLetter(const std::string& priority) {
    if (priority == "absolute")
        return 'A';
    if (priority == "high")
        return 'H';
    if (priority == "normal")
        return 'N';
    if (priority == "low")
        return 'L';
    if (priority == "scavenge")
        return 'S';
    return '?';
}

}  // namespace

std::string TaskRow::statusLetters() const {
    std::string s(2, ' ');
    if (currentlyRunning) {
        s[0] = '*';
    } else if (suspended) {
        s[0] = 'S';
    } else if (hasTimer) {
        s[0] = timerRunning ? 'T' : 't';
    }
    const char letter = priorityLetter(priority);
    s[1] = onRunQueue ? letter : static_cast<char>(std::tolower(letter));
    return s;
}

std::string TaskRow::identity() const {
    return scope + '\n' + name + '\n' + address + (completed ? "\nC" : "\nL");
}

std::string_view lastScopeComponent(std::string_view scope) {
    const auto slash = scope.rfind('/');
    return slash == std::string_view::npos ? scope : scope.substr(slash + 1);
}

ThreadSnapshot parseSnapshot(const std::string& thread, std::string_view json) {
    rapidjson::Document doc;
    doc.Parse<rapidjson::kParseIterativeFlag>(json.data(), json.size());
    if (doc.HasParseError()) {
        throw TopError(exitMalformed, thread + ": malformed JSON at offset " +
                                          std::to_string(doc.GetErrorOffset()) + ": " +
                                          rapidjson::GetParseError_En(doc.GetParseError()));
    }
    const Value* schedulers = objectMember(doc, "schedulers");
    if (!schedulers) {
        throw TopError(exitMalformed, thread + ": not a snapshot (no \"schedulers\" object)");
    }
    ThreadSnapshot snap;
    snap.thread = thread;
    Reader reader(snap);
    for (const auto& m : schedulers->GetObject()) {
        reader.readScheduler(m.value, text(m.name), 0);
    }
    return snap;
}

}  // namespace VelikTop
