// Control characters and broken UTF-8 shown as "\xNN".
#include "report/StatsPrintable.h"

namespace Velik::Impl {

namespace {

bool isControlByte(unsigned char b) {
    return b < 0x20 || b == 0x7f;
}

// A C1 control's UTF-8 form: 0xc2 then 0x80 to 0x9f.
bool isC1(std::string_view sequence) {
    return sequence.size() == 2 && static_cast<unsigned char>(sequence[0]) == 0xc2 &&
           static_cast<unsigned char>(sequence[1]) <= 0x9f;
}

void appendEscaped(std::string& out, std::string_view bytes) {
    static constexpr char digits[] = "0123456789abcdef";
    for (const char c : bytes) {
        const auto b = static_cast<unsigned char>(c);
        out += "\\x";
        out += digits[b >> 4];
        out += digits[b & 0xf];
    }
}

// The length of the next piece of `text` and whether it is shown escaped.
std::size_t nextPiece(std::string_view text, bool& escaped) {
    const auto b = static_cast<unsigned char>(text[0]);
    if (b < 0x80) {
        escaped = isControlByte(b);
        return 1;
    }
    const std::size_t n = utf8SequenceLength(text);
    escaped = n == 0 || isC1(text.substr(0, n));
    return n == 0 ? 1 : n;
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) {
    if (text.empty()) {
        return 0;
    }
    const auto byte = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char b = byte(0);
    std::size_t n;
    unsigned char lo = 0x80, hi = 0xbf;  // the second byte's range
    if (b < 0x80) {
        return 1;
    } else if (b >= 0xc2 && b <= 0xdf) {
        n = 2;
    } else if (b >= 0xe0 && b <= 0xef) {
        n = 3;
        lo = b == 0xe0 ? 0xa0 : 0x80;  // no overlong forms
        hi = b == 0xed ? 0x9f : 0xbf;  // no surrogates
    } else if (b >= 0xf0 && b <= 0xf4) {
        n = 4;
        lo = b == 0xf0 ? 0x90 : 0x80;
        hi = b == 0xf4 ? 0x8f : 0xbf;  // nothing beyond U+10FFFF
    } else {
        return 0;
    }
    if (text.size() < n || byte(1) < lo || byte(1) > hi) {
        return 0;
    }
    for (std::size_t i = 2; i < n; ++i) {
        if ((byte(i) & 0xc0) != 0x80) {
            return 0;
        }
    }
    return n;
}

bool needsPrintable(std::string_view text) {
    for (std::size_t i = 0; i < text.size();) {
        bool escaped;
        i += nextPiece(text.substr(i), escaped);
        if (escaped) {
            return true;
        }
    }
    return false;
}

std::string printableText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        bool escaped;
        const std::size_t n = nextPiece(text.substr(i), escaped);
        if (escaped) {
            appendEscaped(out, text.substr(i, n));
        } else {
            out.append(text.substr(i, n));
        }
        i += n;
    }
    return out;
}

}  // namespace Velik::Impl
