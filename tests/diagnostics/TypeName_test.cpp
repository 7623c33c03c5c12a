#include "Velik/TypeName.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstring>

#include "Velik/Assert.h"

namespace {
// A name for which the demangler below reports success without a result, the
// one outcome the real demangler never produces.
constexpr const char* successWithoutResult = "VelikTestSuccessWithoutResult";
}  // namespace

// Stands in for the runtime's demangler (the library resolves it from this
// program first) and forwards every other name to the real one.
namespace __cxxabiv1 {
extern "C" char* __cxa_demangle(const char* mangled, char* buffer, size_t* length, int* status) {
    if (mangled && std::strcmp(mangled, successWithoutResult) == 0) {
        *status = 0;
        return nullptr;
    }
    using Demangler = char* (*)(const char*, char*, size_t*, int*);
    static const auto real = reinterpret_cast<Demangler>(dlsym(RTLD_NEXT, "__cxa_demangle"));
    return real(mangled, buffer, length, status);
}
}  // namespace __cxxabiv1

namespace {

using Velik::dumpHex;
using Velik::typeName;

TEST(TypeNameTest, DemanglesTypeNamesAndReturnsOtherTextUnchanged) {
    EXPECT_EQ(typeName("N5Velik13TaskSchedulerE"), "Velik::TaskScheduler");
    for (const char* text : {"Velik::TaskScheduler", "not a type", "N5Velik", ""}) {
        EXPECT_EQ(typeName(text), text);
    }
    EXPECT_EQ(typeName(nullptr), "");
}

// The assertion cannot leave typeName, so the process ends even when
// assertions are set to throw.
TEST(TypeNameDeathTest, SuccessWithoutResultEndsTheProcess) {
    EXPECT_DEATH(
        {
            Velik::throwOnAssertFailIs(true);
            typeName(successWithoutResult);
        },
        "TypeNameCpp:27: unable to demangle type VelikTestSuccessWithoutResult status:0");
}

TEST(DumpHexTest, LowerCaseByteGroupsOfFourInMemoryOrder) {
    const unsigned char bytes[] = {0x01, 0x02, 0x03, 0x04, 0x05, 0xAB, 0x0F, 0xF0, 0x00};
    const std::pair<int, const char*> cases[] = {
        {-1, ""}, {4, "01020304"}, {9, "01020304 05ab0ff0 00"}};
    for (const auto& [length, text] : cases) {
        EXPECT_EQ(dumpHex(bytes, length), text) << length;
    }
}

}  // namespace
