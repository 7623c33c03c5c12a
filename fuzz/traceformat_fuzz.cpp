// The TRACEFORMAT setting: any format expands without harm, text without a
// conversion comes out as written, and a line is written through the trace
// manager with the format taken from the environment.
#include <Kiv/Trace.h>

#include <cstdlib>
#include <string>

#include "FuzzCheck.h"

using VelikFuzz::check;

namespace {

const std::string_view message = "message";

// Lines go nowhere: only the path to the writer is of interest here.
const bool traceToNull = [] {
    setenv("TRACEFILE", "/dev/null", 1);
    return true;
}();

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view format = VelikFuzz::asText(data, size);
    std::string line;
    Kiv::formatTraceLine(line, format, "Velik", 5, "FuzzCpp", 42, "fuzz", message);
    if (!format.empty() && format.find('%') == std::string_view::npos) {
        check(line == format, "a format without conversions is copied as it is");
    }
    if (format == "%m") {
        check(line == message, "%m is the message");
    }

    const std::string terminated(format.substr(0, format.find('\0')));
    setenv("TRACEFORMAT", terminated.c_str(), 1);
    Kiv::TraceManager& manager = Kiv::TraceManager::instance();
    manager.readEnvironment();
    manager.write("Velik", 5, "FuzzCpp", 42, "fuzz", message.data(), message.size());
    return 0;
}
