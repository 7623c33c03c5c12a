// The TRACE setting: any text parses without harm, every setting accepted
// reads back as itself, and the negation clearVelikDebug builds parses too.
// After a tab, the rest of the input is a facility name matched against each
// pattern (the glob matcher must stay fast on any pattern).
#include <Velik/Debug.h>

#include <Kiv/Trace.h>

#include <string>
#include <vector>

#include "FuzzCheck.h"

using VelikFuzz::check;

namespace {

bool sameSetting(const Kiv::TraceSetting& a, const Kiv::TraceSetting& b) {
    return a.pattern == b.pattern && a.levels == b.levels && a.on == b.on;
}

std::string withoutStars(const std::string& pattern) {
    std::string literal;
    for (char c : pattern) {
        if (c != '*') {
            literal += c;
        }
    }
    return literal;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string_view input = VelikFuzz::asText(data, size);
    const size_t tab = input.find('\t');
    const std::string_view spec = input.substr(0, tab);
    const std::string_view name =
        tab == std::string_view::npos ? std::string_view() : input.substr(tab + 1);

    std::vector<std::string> errors;
    const std::vector<Kiv::TraceSetting> settings = Kiv::parseTraceSettings(spec, &errors);
    for (const Kiv::TraceSetting& setting : settings) {
        check(!setting.pattern.empty(), "an accepted setting names a facility");
        check(setting.levels != 0, "an accepted setting covers some level");
        std::vector<std::string> againErrors;
        const auto again = Kiv::parseTraceSettings(setting.toString(), &againErrors);
        check(again.size() == 1 && againErrors.empty() && sameSetting(again[0], setting),
              "a setting's text form parses back to the same setting");
        check(Kiv::traceNameMatches(setting.pattern, withoutStars(setting.pattern)),
              "a pattern matches its own text with the stars left out");
        Kiv::traceNameMatches(setting.pattern, name);
    }

    // strings from the environment end at the first NUL
    const std::string terminated(spec.substr(0, spec.find('\0')));
    Kiv::parseTraceSettings(Velik::Platform::negateTraceSpec(terminated.c_str()));
    return 0;
}
