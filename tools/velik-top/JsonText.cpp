#include "JsonText.h"

#include "TopError.h"

#include <fmt/format.h>
#include <rapidjson/document.h>
#include <rapidjson/error/en.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>

namespace VelikTop {
namespace {

// The writer leaves DEL and the C1 controls raw: valid JSON, but a terminal
// acts on them. Escaped in the writer's own form (upper-case hex). Outside strings the text is
// plain ASCII, so every such byte is inside a string and may be written as an escape.
std::string escapeRawControls(std::string_view json) {
    std::string out;
    out.reserve(json.size());
    for (std::size_t i = 0; i < json.size(); ++i) {
        const auto b = static_cast<unsigned char>(json[i]);
        const auto next = i + 1 < json.size() ? static_cast<unsigned char>(json[i + 1]) : 0;
        if (b == 0x7f) {
            out += "\\u007F";
        } else if (b == 0xc2 && next >= 0x80 && next <= 0x9f) {
            out += fmt::format("\\u{:04X}", next);
            ++i;
        } else {
            out += json[i];
        }
    }
    return out;
}

}  // namespace

std::string terminalSafeJson(const std::string& thread, std::string_view reply) {
    rapidjson::Document doc;
    // Full precision: the numbers are written back as the daemon wrote them.
    doc.Parse<rapidjson::kParseIterativeFlag | rapidjson::kParseValidateEncodingFlag |
              rapidjson::kParseFullPrecisionFlag>(reply.data(), reply.size());
    if (doc.HasParseError()) {
        throw TopError(exitMalformed, thread + ": malformed JSON at offset " +
                                          std::to_string(doc.GetErrorOffset()) + ": " +
                                          rapidjson::GetParseError_En(doc.GetParseError()));
    }
    rapidjson::StringBuffer buffer;
    rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
    doc.Accept(writer);
    return escapeRawControls({buffer.GetString(), buffer.GetSize()});
}

}  // namespace VelikTop
