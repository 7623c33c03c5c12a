// Writing replies in RESP2, appended to a connection's output buffer, so
// that the replies to every request of one read leave in one write.
#pragma once

#include <fmt/format.h>

#include <cstdint>
#include <string>
#include <string_view>

namespace VelikRedis::Reply {

// +OK: a status line. `text` must hold no CR or LF.
inline void simple(std::string& out, std::string_view text) {
    out += '+';
    out += text;
    out += "\r\n";
}

// -ERR ...: `text` is the whole line after the dash ("ERR syntax error").
inline void error(std::string& out, std::string_view text) {
    out += '-';
    out += text;
    out += "\r\n";
}

inline void integer(std::string& out, std::int64_t value) {
    const fmt::format_int digits(value);
    out += ':';
    out.append(digits.data(), digits.size());
    out += "\r\n";
}

inline void bulk(std::string& out, std::string_view value) {
    const fmt::format_int length(value.size());
    out += '$';
    out.append(length.data(), length.size());
    out += "\r\n";
    out += value;
    out += "\r\n";
}

// The null bulk string: a key that is not there.
inline void null(std::string& out) {
    out += "$-1\r\n";
}

inline void arrayHeader(std::string& out, std::size_t count) {
    const fmt::format_int digits(count);
    out += '*';
    out.append(digits.data(), digits.size());
    out += "\r\n";
}

}  // namespace VelikRedis::Reply
