#include <Velik/Platform.h>

#include <gtest/gtest.h>

namespace {

using namespace Velik::Platform;

// A registered routine wins unless it prints nothing; then, as without one,
// the bytes are dumped.
TEST(ValuePrinter, RegisteredRoutineElseHexDump) {
    registerValueFormatter("ControlsTest.int", [](const void* v) {
        return fmt::format("int:{}", *static_cast<const int*>(v));
    });
    registerValueFormatter("ControlsTest.silent", [](const void*) { return std::string(); });
    int value = 0x11223344;
    EXPECT_EQ(ValuePrinter("ControlsTest.int", sizeof value).toString(&value), "int:287454020");
    EXPECT_EQ(ValuePrinter("ControlsTest.silent", sizeof value).toString(&value), "44332211");
    const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0xab};
    EXPECT_EQ(ValuePrinter("ControlsTest.none", sizeof bytes).toString(bytes), "01020304 ab");
}

}  // namespace
