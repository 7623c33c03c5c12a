#include "Velik/TypeName.h"

#include <cxxabi.h>
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <typeinfo>

#include "Velik/Assert.h"

namespace Velik::TypeNameTest {
struct Local {};

// A name for which the demangler below reports success without a result, the
// one outcome the real demangler never produces.
constexpr const char* successWithoutResult = "VelikTestSuccessWithoutResult";
}  // namespace Velik::TypeNameTest

// Stands in for the runtime's demangler (the library resolves it from this
// program first) and forwards every other name to the real one.
namespace __cxxabiv1 {
extern "C" char* __cxa_demangle(const char* mangled, char* buffer, size_t* length, int* status) {
    if (mangled && std::strcmp(mangled, Velik::TypeNameTest::successWithoutResult) == 0) {
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

TEST(TypeNameTest, DemanglesTypeInformationNames) {
    // The name typeid gives for Velik::TaskScheduler.
    EXPECT_EQ(typeName("N5Velik13TaskSchedulerE"), "Velik::TaskScheduler");
    EXPECT_EQ(typeName(typeid(Velik::TypeNameTest::Local).name()), "Velik::TypeNameTest::Local");
    EXPECT_EQ(typeName(typeid(int).name()), "int");
    EXPECT_EQ(typeName(typeid(std::map<int, const char*>*).name()),
              "std::map<int, char const*, std::less<int>, std::allocator<std::pair<int const, "
              "char const*> > >*");
}

TEST(TypeNameTest, TextThatIsNotAMangledNameIsReturnedUnchanged) {
    EXPECT_EQ(typeName("Velik::TaskScheduler"), "Velik::TaskScheduler");
    EXPECT_EQ(typeName("not a type"), "not a type");
    EXPECT_EQ(typeName("N5Velik"), "N5Velik");  // truncated mangling
    EXPECT_EQ(typeName(""), "");
    EXPECT_EQ(typeName(nullptr), "");
}

TEST(TypeNameDeathTest, SuccessWithoutResultIsAnAssertionAtLine27) {
    EXPECT_DEATH(typeName(Velik::TypeNameTest::successWithoutResult),
                 "Velik::Assert aborting because: TypeNameCpp:27: unable to demangle type "
                 "VelikTestSuccessWithoutResult status:0\n");
}

TEST(TypeNameDeathTest, ThrowingAssertionsStillEndTheProcess) {
    // The AssertException cannot leave typeName, so it terminates instead.
    EXPECT_DEATH(
        {
            Velik::throwOnAssertFailIs(true);
            typeName(Velik::TypeNameTest::successWithoutResult);
        },
        "TypeNameCpp:27: unable to demangle type VelikTestSuccessWithoutResult status:0");
}

TEST(DumpHexTest, GroupsOfFourBytesSeparatedBySingleSpaces) {
    const unsigned char five[] = {0x01, 0x02, 0x03, 0x04, 0x05};
    EXPECT_EQ(dumpHex(five, 5), "01020304 05");
    EXPECT_EQ(dumpHex(five, 4), "01020304");
    EXPECT_EQ(dumpHex(five, 1), "01");
    const unsigned char nine[] = {0, 1, 2, 3, 4, 5, 6, 7, 8};
    EXPECT_EQ(dumpHex(nine, 8), "00010203 04050607");
    EXPECT_EQ(dumpHex(nine, 9), "00010203 04050607 08");
}

TEST(DumpHexTest, LowerCaseZeroFilledInMemoryOrder) {
    const unsigned char bytes[] = {0xAB, 0x0F, 0xF0, 0x00, 0xFF};
    EXPECT_EQ(dumpHex(bytes, 5), "ab0ff000 ff");
    const uint32_t value = 0x11223344;  // little-endian: lowest byte first
    EXPECT_EQ(dumpHex(&value, sizeof value), "44332211");
}

TEST(DumpHexTest, EmptyForZeroOrNegativeLength) {
    const unsigned char byte = 0x42;
    EXPECT_EQ(dumpHex(&byte, 0), "");
    EXPECT_EQ(dumpHex(&byte, -1), "");
    EXPECT_EQ(dumpHex(nullptr, 0), "");
}

}  // namespace
