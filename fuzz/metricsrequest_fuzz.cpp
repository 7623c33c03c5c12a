// The metrics endpoint's HTTP request reader: any bytes, in any cuts, give
// one decision of the known statuses, never more than the limit is taken,
// and a request that is read whole (200, 404, 405) is read the same however
// it is cut. A request both malformed and too large may be refused for
// either, depending on which the cuts show first.
#include <cstring>
#include <string>

#include "FuzzCheck.h"
#include "endpoint/MetricsRequest.h"

using VelikFuzz::check;

namespace {

constexpr Velik::Impl::MetricsRequestLimits limits{512, 8};

// Feeds `bytes` in pieces of `step` bytes, then the end of input.
int decide(std::string_view bytes, std::size_t step, bool* headOnly) {
    Velik::Impl::MetricsRequestReader reader(limits);
    std::size_t taken = 0;
    for (std::size_t at = 0; at < bytes.size() && !reader.decided(); at += step) {
        taken += reader.feed(bytes.substr(at, step));
        check(taken <= limits.maxBytes, "never more than the limit");
    }
    reader.endOfInput();
    check(reader.decided(), "the end of input decides");
    *headOnly = reader.headOnly();
    return reader.status();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0) {
        return 0;
    }
    // The first byte chooses how the rest is cut.
    const std::size_t step = 1 + data[0] % 16;
    const std::string_view bytes = VelikFuzz::asText(data + 1, size - 1);
    bool headOnly = false, headOnlyWhole = false;
    const int status = decide(bytes, step, &headOnly);
    check(status == 200 || status == 400 || status == 404 || status == 405 || status == 413 ||
              status == 431,
          "a known status");
    const int whole = decide(bytes, bytes.size() + 1, &headOnlyWhole);
    const auto read = [](int s) { return s == 200 || s == 404 || s == 405; };
    check(read(status) == read(whole) &&
              (!read(status) || (status == whole && headOnly == headOnlyWhole)),
          "the cuts do not change what a readable request asks for");
    const std::string reply = Velik::Impl::metricsErrorReply(status);
    check(reply.rfind("HTTP/1.1 ", 0) == 0 && reply.find("\r\n\r\n") != std::string::npos,
          "a whole reply");
    return 0;
}
