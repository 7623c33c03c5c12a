#include <Velik/EventPriority.h>
#include <Velik/Platform.h>

#include <gtest/gtest.h>

#include <cstdint>

namespace {

using namespace Velik::Platform;

TEST(EventPriority, NamesValidityAndFormatting) {
    EXPECT_STREQ(eventPriorityToString(eventPriorityStrictHigh), "eventPriorityStrictHigh");
    EXPECT_STREQ(eventPriorityToString(eventPriorityDefault), "eventPriorityDefault");
    EXPECT_STREQ(eventPriorityToString(static_cast<EventPriority>(2)), "");
    EXPECT_TRUE(isEventPriorityValid(eventPriorityStrictHigh));
    EXPECT_TRUE(isEventPriorityValid(eventPriorityDefault));
    EXPECT_FALSE(isEventPriorityValid(static_cast<EventPriority>(2)));
    EXPECT_FALSE(isEventPriorityValid(static_cast<EventPriority>(255)));

    EXPECT_EQ(fmt::format("{}", eventPriorityDefault), "eventPriorityDefault");
    EXPECT_EQ(fmt::format("{}", static_cast<EventPriority>(7)), "Invalid EventPriority=7");
    EXPECT_EQ(fmt::format("{}", static_cast<EventPriority>(255)), "Invalid EventPriority=255");
    EXPECT_EQ(sizeof(EventPriority), 1u);
}

TEST(Handlers, ExceptionHooksRefuseByDefault) {
    struct T : TimeoutHandler {
        void timeout() override {}
    } t;
    struct C : CallbackHandler {
        void callback() override {}
    } c;
    struct F : FdEventHandler {
        void readFdEvent(int) override {}
        void writeFdEvent(int) override {}
    } f;
    EXPECT_FALSE(t.handleTimeoutException());
    EXPECT_FALSE(c.handleCallbackException());
    EXPECT_FALSE(f.handleFdException(3));
}

TEST(RefCounting, ProcessWideSwitchStartsOn) {
    EXPECT_TRUE(refCountingEnabled());
    refCountingEnabledIs(false);
    EXPECT_FALSE(refCountingEnabled());
    refCountingEnabledIs(true);
    EXPECT_TRUE(refCountingEnabled());
}

TEST(ValuePrinter, HexDumpWithoutRegisteredRoutine) {
    const uint8_t bytes[] = {0x01, 0x02, 0x03, 0x04, 0xab};
    ValuePrinter printer("ControlsTest.unregistered", sizeof bytes);
    EXPECT_EQ(printer.customToString(bytes), "");
    EXPECT_EQ(printer.toString(bytes), "01020304 ab");
}

TEST(ValuePrinter, RegisteredRoutineWinsUnlessItPrintsNothing) {
    registerValueFormatter("ControlsTest.int", [](const void* v) {
        return fmt::format("int:{}", *static_cast<const int*>(v));
    });
    registerValueFormatter("ControlsTest.silent", [](const void*) { return std::string(); });
    int value = 0x11223344;
    EXPECT_EQ(ValuePrinter("ControlsTest.int", sizeof value).toString(&value), "int:287454020");
    // An empty custom text falls back to the bytes.
    EXPECT_EQ(ValuePrinter("ControlsTest.silent", sizeof value).toString(&value), "44332211");
    EXPECT_EQ(valueFormatter("ControlsTest.none"), nullptr);
}

}  // namespace
