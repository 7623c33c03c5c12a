#include "report/JsonWriter.h"

#include "report/StatsPrintable.h"

#include <string>

namespace Velik::Impl {

namespace {

bool isUtf8(std::string_view s) {
    std::size_t ascii = 0;  // the usual name is plain ASCII: one cheap pass
    while (ascii < s.size() && static_cast<unsigned char>(s[ascii]) < 0x80) {
        ++ascii;
    }
    for (std::size_t i = ascii; i < s.size();) {
        const std::size_t n = utf8SequenceLength(s.substr(i));
        if (n == 0) {
            return false;
        }
        i += n;
    }
    return true;
}

std::string replaceInvalidUtf8(std::string_view s) {
    std::string out;
    out.reserve(s.size() + 8);
    for (std::size_t i = 0; i < s.size();) {
        const std::size_t n = utf8SequenceLength(s.substr(i));
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++i;
        } else {
            out.append(s, i, n);
            i += n;
        }
    }
    return out;
}

}  // namespace

void jsonString(JsonWriter& writer, std::string_view text) {
    if (isUtf8(text)) [[likely]] {
        writer.String(text.data(), static_cast<rapidjson::SizeType>(text.size()));
        return;
    }
    const std::string valid = replaceInvalidUtf8(text);
    writer.String(valid.data(), static_cast<rapidjson::SizeType>(valid.size()));
}

}  // namespace Velik::Impl
