#include "Velik/Random.h"

#include <fmt/format.h>
#include <time.h>

#include <cstdio>
#include <cstdlib>
#include <random>

namespace Velik {

namespace {

// Default-constructed: seeded with 5489, state to be regenerated on first draw.
std::mt19937_64 engine;

constexpr char randomStringAlphabet[] =
    "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz";
// 62 characters and the terminating zero, which is drawn on purpose.
constexpr int randomStringChoices = sizeof(randomStringAlphabet);
static_assert(randomStringChoices == 63);

uint32_t monotonicNanoseconds() {
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint32_t>(now.tv_nsec);
}

}  // namespace

bool Random::firstSetSeedFlag = true;
uint32_t Random::seed = 0;

void Random::setSeed() {
    const char* fromEnvironment = std::getenv("QOTEST_RANDSEED");
    // One seed for the life of the process: later calls only restart the sequences.
    if (firstSetSeedFlag) {
        firstSetSeedFlag = false;
        seed = fromEnvironment ? Impl::seedFromText(fromEnvironment) : monotonicNanoseconds();
    }
    fmt::print(stderr, "Velik::Random::setSeed(), setting seed to {}\n", seed);
    std::fflush(stderr);
    std::srand(seed);
    engine.seed(uint64_t{seed});
}

uint32_t Random::getSeed() {
    return seed;
}

uint64_t Random::rand64() {
    return engine();
}

std::string Random::randomString(unsigned length) {
    std::string result;
    result.reserve(length);
    for (unsigned i = 0; i < length; ++i) {
        result.push_back(randomStringAlphabet[std::rand() % randomStringChoices]);
    }
    return result;
}

namespace Impl {

uint32_t seedFromText(const char* text) {
    // strtoul semantics on purpose: garbage parses as 0 rather than failing.
    return static_cast<uint32_t>(std::strtoul(text, nullptr, 10));
}

}  // namespace Impl

}  // namespace Velik
