#include "RespParser.h"

#include <algorithm>
#include <charconv>
#include <cstdio>

namespace VelikRedis {

namespace {

// A whole decimal field, sign allowed; false for anything else.
bool parseNumber(std::string_view text, long long& value) {
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return !text.empty() && ec == std::errc() && ptr == end;
}

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

int hexDigit(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// One escape inside double quotes, at `p` (just past the backslash);
// advances `p` over it.
char unescape(std::string_view line, std::size_t& p) {
    const char c = line[p++];
    if (c == 'x' && p + 1 < line.size() && hexDigit(line[p]) >= 0 && hexDigit(line[p + 1]) >= 0) {
        const int value = hexDigit(line[p]) * 16 + hexDigit(line[p + 1]);
        p += 2;
        return static_cast<char>(value);
    }
    switch (c) {
        case 'n':
            return '\n';
        case 'r':
            return '\r';
        case 't':
            return '\t';
        case 'b':
            return '\b';
        case 'a':
            return '\a';
        default:
            return c;
    }
}

// A byte an inline request may carry as it is: a raw control byte there is
// binary noise, not a command someone typed.
bool inlineByteOk(unsigned char c) {
    return c >= 0x20 ? c != 0x7f : c == '\t' || c == '\r';
}

// The byte that broke a frame, shown so that an error line stays one line
// of text whatever the client sent.
std::string shown(char c) {
    const auto u = static_cast<unsigned char>(c);
    if (u >= 0x20 && u < 0x7f) {
        return std::string(1, c);
    }
    char hex[8];
    std::snprintf(hex, sizeof hex, "\\x%02x", u);
    return hex;
}

}  // namespace

bool splitInline(std::string_view line, std::vector<std::string>& words) {
    words.clear();
    std::size_t p = 0;
    for (;;) {
        while (p < line.size() && isBlank(line[p])) {
            ++p;
        }
        if (p == line.size()) {
            return true;
        }
        std::string& word = words.emplace_back();
        const char quote = line[p] == '"' || line[p] == '\'' ? line[p++] : 0;
        for (;;) {
            if (p == line.size()) {
                return quote == 0;  // an open quote at the end is unbalanced
            }
            const char c = line[p];
            if (quote == 0) {
                if (isBlank(c)) {
                    break;
                }
                word += c;
                ++p;
            } else if (c == quote) {
                ++p;
                if (p < line.size() && !isBlank(line[p])) {
                    return false;  // "a"b: the quote must end the word
                }
                break;
            } else if (c == '\\' && p + 1 < line.size()) {
                ++p;
                if (quote == '"') {
                    word += unescape(line, p);
                } else if (line[p] == '\'') {
                    word += '\'';
                    ++p;
                } else {
                    word += '\\';
                }
            } else {
                word += c;
                ++p;
            }
        }
    }
}

void RespParser::reset() {
    inArray_ = false;
    expected_ = 0;
    scan_ = 0;
    offsets_.clear();
}

RespParser::Status RespParser::fail(std::string_view what) {
    reset();
    error_ = "Protocol error: ";
    error_ += what;
    return Status::error;
}

std::size_t RespParser::lineEnd(std::string_view data, std::size_t pos, std::string_view tooLong,
                                Status& status) {
    const std::size_t limit = std::min(data.size(), pos + limits_.maxInlineLength);
    const std::string_view window = data.substr(0, limit);
    const std::size_t end = window.find("\r\n", pos);
    if (end != std::string_view::npos) {
        return end;
    }
    status = data.size() - pos > limits_.maxInlineLength ? fail(tooLong) : Status::needMore;
    return std::string_view::npos;
}

RespParser::Status RespParser::parse(std::string_view data) {
    args_.clear();
    consumed_ = 0;
    if (inArray_) {
        return parseArray(data);
    }
    if (data.empty()) {
        return Status::needMore;
    }
    return data[0] == '*' ? parseArray(data) : parseInline(data);
}

RespParser::Status RespParser::parseArray(std::string_view data) {
    Status status = Status::needMore;
    if (!inArray_) {
        const std::size_t end = lineEnd(data, 1, "too big mbulk count string", status);
        if (end == std::string_view::npos) {
            return status;
        }
        long long count = 0;
        if (!parseNumber(data.substr(1, end - 1), count) ||
            count > static_cast<long long>(limits_.maxArgs)) {
            return fail("invalid multibulk length");
        }
        if (count <= 0) {  // an empty or null array: nothing to do
            consumed_ = end + 2;
            return Status::request;
        }
        inArray_ = true;
        expected_ = count;
        scan_ = end + 2;
        offsets_.reserve(static_cast<std::size_t>(std::min(count, 1024LL)));
    }
    while (offsets_.size() < static_cast<std::size_t>(expected_)) {
        if (scan_ >= data.size()) {
            return Status::needMore;
        }
        if (data[scan_] != '$') {
            return fail("expected '$', got '" + shown(data[scan_]) + "'");
        }
        const std::size_t end = lineEnd(data, scan_ + 1, "too big bulk count string", status);
        if (end == std::string_view::npos) {
            return status;
        }
        long long length = 0;
        if (!parseNumber(data.substr(scan_ + 1, end - scan_ - 1), length) || length < 0 ||
            static_cast<unsigned long long>(length) > limits_.maxBulkLength) {
            return fail("invalid bulk length");
        }
        const std::size_t start = end + 2;
        const auto size = static_cast<std::size_t>(length);
        if (data.size() < start + size + 2) {
            return Status::needMore;  // the header is read again next time: it is short
        }
        if (data[start + size] != '\r' || data[start + size + 1] != '\n') {
            return fail("bulk string not followed by CRLF");
        }
        offsets_.emplace_back(start, size);
        scan_ = start + size + 2;
    }
    for (const auto& [start, size] : offsets_) {
        args_.push_back(data.substr(start, size));
    }
    consumed_ = scan_;
    reset();
    return Status::request;
}

RespParser::Status RespParser::parseInline(std::string_view data) {
    const std::size_t newline = data.find('\n');
    if (newline == std::string_view::npos || newline > limits_.maxInlineLength) {
        return data.size() > limits_.maxInlineLength ? fail("too big inline request")
                                                     : Status::needMore;
    }
    std::string_view line = data.substr(0, newline);
    if (!std::all_of(line.begin(), line.end(),
                     [](char c) { return inlineByteOk(static_cast<unsigned char>(c)); })) {
        return fail("control byte in inline request");
    }
    if (!line.empty() && line.back() == '\r') {
        line.remove_suffix(1);
    }
    if (!splitInline(line, inlineArgs_)) {
        return fail("unbalanced quotes in request");
    }
    for (const std::string& word : inlineArgs_) {
        args_.push_back(word);
    }
    consumed_ = newline + 1;
    return Status::request;
}

}  // namespace VelikRedis
