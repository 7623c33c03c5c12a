// Reading client requests in the Redis serialization protocol (RESP2), and
// in the inline form that telnet users and redis-benchmark's PING_INLINE send.
//
//   *2\r\n$3\r\nGET\r\n$1\r\nk\r\n     one request: an array of bulk strings
//   GET k\r\n                           the same, inline: words split on blanks
//
// The parser works on the bytes a connection has gathered but not yet used,
// and returns one request at a time:
//
//   RespParser parser;
//   while (parser.parse(unused) == RespParser::Status::request) {
//       execute(parser.args());         // views into `unused` (or the parser)
//       unused.remove_prefix(parser.consumed());
//   }
//
// A request that has not fully arrived gives `needMore`; the parser keeps
// how far it got, so feeding it the same bytes plus more resumes the scan
// instead of starting again (a huge request that arrives in small reads
// costs linear time). Bad input gives `error` with the reply text for the
// client ("Protocol error: ..."); the connection is then to be closed, as
// nothing after a framing error can be trusted.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

namespace VelikRedis {

// Bounds on what one request may announce, so a client cannot make the
// server reserve or wait for more than this.
struct RespLimits {
    std::size_t maxBulkLength = 512u << 20;   // bytes in one argument
    std::size_t maxArgs = 1u << 20;           // arguments in one request
    std::size_t maxInlineLength = 64u << 10;  // one inline line, and one header line
};

class RespParser {
  public:
    enum class Status { request, needMore, error };

    explicit RespParser(RespLimits limits = {}) : limits_(limits) {}

    // Parses the request at the start of `data`. On `request`, `args()` and
    // `consumed()` describe it until the next call; `args()` may be empty (a
    // blank inline line or an empty array: nothing to answer). On
    // `needMore`, call again with the same bytes followed by more. On
    // `error`, `error()` is the reply text without its "-ERR " prefix.
    Status parse(std::string_view data);

    const std::vector<std::string_view>& args() const { return args_; }
    std::size_t consumed() const { return consumed_; }
    const std::string& error() const { return error_; }
    const RespLimits& limits() const { return limits_; }

  private:
    Status parseArray(std::string_view data);
    Status parseInline(std::string_view data);
    Status fail(std::string_view what);
    // The end of the header line starting at `pos`, or npos; fails the
    // parse (with `tooLong`) when no CRLF comes within the limit.
    std::size_t lineEnd(std::string_view data, std::size_t pos, std::string_view tooLong,
                        Status& status);
    void reset();

    RespLimits limits_;
    // Progress through an array request that has not fully arrived.
    bool inArray_ = false;
    long long expected_ = 0;  // arguments announced
    std::size_t scan_ = 0;    // where the next argument's header starts
    std::vector<std::pair<std::size_t, std::size_t>> offsets_;  // (start, length) in the request
    std::vector<std::string_view> args_;
    std::vector<std::string> inlineArgs_;  // inline words, unquoted
    std::size_t consumed_ = 0;
    std::string error_;
};

// Splits one inline line into words: blanks separate them; "double quotes"
// take \n \r \t \b \a \\ \" and \xHH escapes, 'single quotes' take \'; a
// closing quote must be followed by a blank or the end. False for unbalanced
// quotes.
bool splitInline(std::string_view line, std::vector<std::string>& words);

}  // namespace VelikRedis
