// The Redis-protocol example's request parser: any bytes, cut into reads
// anywhere, give requests and at most one protocol error; a request never
// reaches past the bytes given, and the same bytes parsed whole or a byte at
// a time give the same requests.
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "RespParser.h"

using VelikFuzz::check;
using VelikRedis::RespLimits;
using VelikRedis::RespParser;

namespace {

struct Outcome {
    std::vector<std::vector<std::string>> requests;
    std::string error;
    bool operator==(const Outcome&) const = default;
};

Outcome parseAll(std::string_view input, std::size_t chunk) {
    RespLimits limits;
    limits.maxBulkLength = 1000;
    limits.maxArgs = 100;
    limits.maxInlineLength = 200;
    RespParser parser(limits);
    Outcome outcome;
    std::string buffer;
    for (std::size_t at = 0; at < input.size() && outcome.error.empty(); at += chunk) {
        buffer += input.substr(at, chunk);
        for (;;) {
            const auto status = parser.parse(buffer);
            if (status == RespParser::Status::needMore) {
                break;
            }
            if (status == RespParser::Status::error) {
                outcome.error = parser.error();
                check(outcome.error.rfind("Protocol error: ", 0) == 0, "a protocol error");
                check(outcome.error.find_first_of("\r\n") == std::string::npos,
                      "the error is one line");
                break;
            }
            check(parser.consumed() > 0 && parser.consumed() <= buffer.size(),
                  "a request lies within the bytes given");
            check(parser.args().size() <= limits.maxArgs, "no more arguments than allowed");
            outcome.requests.emplace_back(parser.args().begin(), parser.args().end());
            buffer.erase(0, parser.consumed());
        }
    }
    return outcome;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = VelikFuzz::asText(data, size);
    if (input.empty()) {
        return 0;
    }
    const Outcome whole = parseAll(input, input.size());
    check(parseAll(input, 1) == whole, "byte by byte gives the same requests");
    check(parseAll(input, 7) == whole, "odd reads give the same requests");
    return 0;
}
