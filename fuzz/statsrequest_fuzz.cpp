// The stats endpoint's request line: any bytes give a verb or one error,
// only the three verbs (with at most a CR before the line's end) are taken,
// and the error line never echoes the client's bytes.
#include <string>

#include "FuzzCheck.h"
#include "endpoint/StatsRequest.h"
#include "report/StatsPrintable.h"

using VelikFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view line = VelikFuzz::asText(data, size);
    const Velik::Impl::StatsRequest request = Velik::Impl::parseStatsRequest(line);
    check(request.verb.has_value() == request.error.empty(), "a verb or an error, never both");
    if (request.verb) {
        std::string_view bare = line;
        if (!bare.empty() && bare.back() == '\r') {
            bare.remove_suffix(1);
        }
        check(bare == "snapshot" || bare == "report" || bare == "history",
              "only the three verbs are taken");
    } else {
        const std::string reply = Velik::Impl::statsErrorLine(request.error);
        check(reply.rfind("error: ", 0) == 0 && reply.back() == '\n' &&
                  reply.find('\n') == reply.size() - 1,
              "one error line");
        check(!Velik::Impl::needsPrintable(reply.substr(0, reply.size() - 1)),
              "the error line is plain text");
    }
    // The escaping the replies use: valid, control-free, and the identity on
    // text that needs none.
    const std::string shown = Velik::Impl::printableText(line);
    check(!Velik::Impl::needsPrintable(shown), "printable text needs no more escaping");
    check(Velik::Impl::needsPrintable(line) || shown == line, "clean text is kept as it is");
    return 0;
}
