// Task names through the JSON snapshot: tasks (and a task group) named by the
// input, separated by 0xFF bytes, are rendered; the document must parse as
// valid UTF-8 JSON, and every name that is valid UTF-8 must come back exactly.
#include <Velik/Platform.h>
#include <Velik/Task.h>
#include <Velik/TaskGroup.h>
#include <Velik/TaskSchedulerRoot.h>

#include <rapidjson/document.h>
#include <rapidjson/encodings.h>
#include <rapidjson/memorystream.h>
#include <rapidjson/stringbuffer.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

#include "FuzzCheck.h"

using VelikFuzz::check;

namespace {

constexpr size_t maxNames = 32;
constexpr char separator = '\xff';

class NullCallbackControl : public Velik::Platform::CallbackControl {
  public:
    void requestCallback() override {}
    void cancelCallback() override {}
    bool pendingCallback() const override { return false; }
};

class NamedTask : public Velik::Task {
  public:
    NamedTask(Velik::TaskScheduler* scheduler, std::string_view name)
        : Task(scheduler, Velik::TaskPriority::normal, name) {}
    void taskExecute() override {}
};

std::vector<std::string> splitNames(std::string_view input) {
    std::vector<std::string> names;
    while (names.size() < maxNames) {
        const size_t end = input.find(separator);
        names.emplace_back(input.substr(0, end));
        if (end == std::string_view::npos) {
            break;
        }
        input.remove_prefix(end + 1);
    }
    return names;
}

bool validUtf8(const std::string& text) {
    // A memory stream reads zeros past its end, where a truncated sequence
    // at the end of the text makes the validator look.
    rapidjson::MemoryStream in(text.data(), text.size());
    rapidjson::GenericStringBuffer<rapidjson::UTF8<>> ignored;
    while (in.Tell() < text.size()) {
        if (!rapidjson::UTF8<>::Validate(in, ignored)) {
            return false;
        }
    }
    return true;
}

void collectNames(const rapidjson::Value& scheduler, std::vector<std::string>& names);

// The names of every scheduler object that is a member of `schedulers`.
// (Indexing, not a range loop: rapidjson's member iterators compare
// ambiguously under C++20.)
void collectMembersNames(const rapidjson::Value& schedulers, std::vector<std::string>& names) {
    check(schedulers.IsObject(), "schedulers are an object");
    for (rapidjson::SizeType i = 0; i < schedulers.MemberCount(); ++i) {
        collectNames((schedulers.MemberBegin() + i)->value, names);
    }
}

// Every "name" of every task list of `scheduler` and its sub-schedulers.
void collectNames(const rapidjson::Value& scheduler, std::vector<std::string>& names) {
    check(scheduler.IsObject() && scheduler.HasMember("tasks"), "a scheduler has a task list");
    for (const auto& task : scheduler["tasks"]["tasks"].GetArray()) {
        const rapidjson::Value& name = task["name"];
        names.emplace_back(name.GetString(), name.GetStringLength());
    }
    collectMembersNames(scheduler["subSchedulers"], names);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::vector<std::string> names = splitNames(VelikFuzz::asText(data, size));
    auto root = std::make_shared<Velik::TaskSchedulerRoot>(
        "fuzz",
        [](Velik::Platform::CallbackHandler*) { return std::make_shared<NullCallbackControl>(); });
    auto group = Velik::TaskGroupIs(names.front(), Velik::TaskPriority::low, false, root);
    std::string json;
    {
        std::vector<std::shared_ptr<NamedTask>> tasks;
        tasks.push_back(std::make_shared<NamedTask>(group.get(), names.front()));
        for (const std::string& name : names) {
            tasks.push_back(std::make_shared<NamedTask>(root.get(), name));
        }
        tasks.back()->scheduleTask();
        json = root->statsRenderJsonToString(true, true, true);
    }

    rapidjson::Document document;
    document.Parse<rapidjson::kParseValidateEncodingFlag>(json.data(), json.size());
    check(!document.HasParseError(), "the snapshot is valid UTF-8 JSON");
    std::vector<std::string> rendered;
    collectMembersNames(document["schedulers"], rendered);
    for (const std::string& name : names) {
        if (validUtf8(name)) {
            check(std::find(rendered.begin(), rendered.end(), name) != rendered.end(),
                  "a valid UTF-8 task name comes back exactly");
        }
    }
    group.reset();
    return 0;
}
