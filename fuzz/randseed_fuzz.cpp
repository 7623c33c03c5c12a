// The random seed variable: any text gives a seed, and a plain decimal
// number that fits gives itself.
#include <Velik/Random.h>

#include <string>

#include "FuzzCheck.h"

using VelikFuzz::check;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view input = VelikFuzz::asText(data, size);
    const std::string text(input.substr(0, input.find('\0')));
    const uint32_t seed = Velik::Impl::seedFromText(text.c_str());

    if (!text.empty() && text.size() <= 9 &&
        text.find_first_not_of("0123456789") == std::string::npos) {
        check(seed == std::stoul(text), "a decimal number is its own seed");
    }
    if (text.empty() || text.find_first_of("0123456789") == std::string::npos) {
        check(seed == 0, "text without digits is seed 0");
    }
    return 0;
}
