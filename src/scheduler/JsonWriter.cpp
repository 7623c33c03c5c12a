#include "scheduler/JsonWriter.h"

#include <string>

namespace Velik::Impl {

namespace {

// The length of the well-formed UTF-8 sequence at the start of `s`, or 0.
std::size_t utf8SequenceLength(std::string_view s) {
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char b = byte(0);
    std::size_t n;
    unsigned char lo = 0x80, hi = 0xBF;  // range of the second byte
    if (b < 0x80) {
        return 1;
    } else if (b >= 0xC2 && b <= 0xDF) {
        n = 2;
    } else if (b >= 0xE0 && b <= 0xEF) {
        n = 3;
        lo = b == 0xE0 ? 0xA0 : 0x80;  // no overlong forms
        hi = b == 0xED ? 0x9F : 0xBF;  // no surrogates
    } else if (b >= 0xF0 && b <= 0xF4) {
        n = 4;
        lo = b == 0xF0 ? 0x90 : 0x80;
        hi = b == 0xF4 ? 0x8F : 0xBF;  // nothing beyond U+10FFFF
    } else {
        return 0;
    }
    if (s.size() < n || byte(1) < lo || byte(1) > hi) {
        return 0;
    }
    for (std::size_t i = 2; i < n; ++i) {
        if ((byte(i) & 0xC0) != 0x80) {
            return 0;
        }
    }
    return n;
}

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
