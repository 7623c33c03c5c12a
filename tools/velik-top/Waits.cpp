#include "Waits.h"

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

const Value* entriesOf(const Value& doc) {
    if (doc.IsArray()) {
        return &doc;
    }
    if (doc.IsObject()) {
        for (const auto& m : doc.GetObject()) {
            if (m.value.IsArray()) {
                return &m.value;
            }
        }
    }
    return nullptr;
}

}  // namespace

std::vector<WaitEntry> parseWaits(std::string_view json) {
    rapidjson::Document doc;
    doc.Parse(json.data(), json.size());
    if (doc.HasParseError()) {
        throw TopError(exitMalformed, "the waits reply is not JSON");
    }
    std::vector<WaitEntry> out;
    const Value* entries = entriesOf(doc);
    if (!entries) {
        return out;
    }
    for (const Value& e : entries->GetArray()) {
        if (e.IsObject()) {
            out.push_back({textOf(e, "name"), textOf(e, "scheduler"), textOf(e, "priority"),
                           textOf(e, "wait"), textOf(e, "detail")});
        }
    }
    return out;
}

}  // namespace VelikTop
