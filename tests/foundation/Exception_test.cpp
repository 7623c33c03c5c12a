#include <Velik/BacktraceTracker.h>
#include <Velik/Exception.h>
#include <Velik/Thread.h>

#include <gtest/gtest.h>

#include <cmath>
#include <typeindex>

#include "foundation/ThrowingAsserts.h"

namespace {

TEST(ExceptionTest, MsgIsNameWithQuotedMessage) {
    Velik::RuntimeException e("x");
    EXPECT_EQ(e.msg(), "Velik::RuntimeException(\"x\")");
    EXPECT_EQ(e.message(), "x");
    EXPECT_EQ(Velik::Exception("", false).msg(), "Velik::Exception(\"\")");
    // Quotes inside the message are kept as they are.
    EXPECT_EQ(Velik::Exception("say \"hi\"", false).msg(), "Velik::Exception(\"say \"hi\"\")");
}

TEST(ExceptionTest, WhatIsMsgLineFeedAndBacktraceBuiltOnce) {
    Velik::RuntimeException e("x");
    const char* first = e.what();
    EXPECT_EQ(std::string(first), e.msg() + "\n" + e.backtrace().pretty());
    // The cached text comes back as the very same characters.
    EXPECT_EQ(e.what(), first);
}

TEST(ExceptionTest, CaptureFlagDecidesWhetherTheStackIsTaken) {
    Velik::Exception without("m", false);
    EXPECT_EQ(without.backtrace().count(), 0u);
    EXPECT_TRUE(std::isinf(without.backtrace().timestamp()));
    EXPECT_NE(std::string(without.what()).find("No backtrace available"), std::string::npos);

    Velik::Exception with("m", true);
    EXPECT_GT(with.backtrace().count(), 0u);
    EXPECT_TRUE(std::isfinite(with.backtrace().timestamp()));
    EXPECT_EQ(with.backtrace().tid(), Velik::gettid());
    // Taken in the constructor, so the innermost frame is the library's
    // exception constructor.
    EXPECT_NE(with.backtrace().pretty().find("(_ZN5Velik9ExceptionC"), std::string::npos)
        << with.backtrace().pretty();
}

struct Kind {
    void (*throwIt)(const std::string&);
    std::type_index type;
    const char* name;
};

TEST(ExceptionTest, EachThrowExceptionThrowsExactlyItsOwnClass) {
    VelikTest::ThrowingAsserts throwing;  // AssertException throws only then
    const Kind kinds[] = {
        {&Velik::Exception::throwException, typeid(Velik::Exception), "Velik::Exception"},
        {&Velik::MemoryResourceException::throwException, typeid(Velik::MemoryResourceException),
         "Velik::MemoryResourceException"},
        {&Velik::NoPermissionException::throwException, typeid(Velik::NoPermissionException),
         "Velik::NoPermissionException"},
        {&Velik::UnimplementedException::throwException, typeid(Velik::UnimplementedException),
         "Velik::UnimplementedException"},
        {&Velik::InvalidInitializeException::throwException,
         typeid(Velik::InvalidInitializeException), "Velik::InvalidInitializeException"},
        {&Velik::RuntimeException::throwException, typeid(Velik::RuntimeException),
         "Velik::RuntimeException"},
        {&Velik::OutOfRangeException::throwException, typeid(Velik::OutOfRangeException),
         "Velik::OutOfRangeException"},
        {&Velik::CorruptionDetectedException::throwException,
         typeid(Velik::CorruptionDetectedException), "Velik::CorruptionDetectedException"},
        {&Velik::InvalidSizeException::throwException, typeid(Velik::InvalidSizeException),
         "Velik::InvalidSizeException"},
        {&Velik::AssertException::throwException, typeid(Velik::AssertException),
         "Velik::AssertException"},
    };
    for (const Kind& kind : kinds) {
        SCOPED_TRACE(kind.name);
        try {
            kind.throwIt("why");
            ADD_FAILURE() << "returned";
        } catch (const Velik::Exception& e) {
            EXPECT_EQ(std::type_index(typeid(e)), kind.type);
            EXPECT_STREQ(e.name(), kind.name);
            EXPECT_EQ(e.msg(), std::string(kind.name) + "(\"why\")");
            EXPECT_GT(e.backtrace().count(), 0u);
        }
    }
}

class ExceptionTrackingTest : public testing::Test {
  protected:
    void SetUp() override {
        Velik::BacktraceTracker::enabledIs(false);
        Velik::BacktraceTracker::clear();
    }
    void TearDown() override { SetUp(); }
};

TEST_F(ExceptionTrackingTest, EveryConstructedExceptionIsRecordedWhileTrackingIsOn) {
    Velik::RuntimeException("off");
    EXPECT_TRUE(Velik::BacktraceTracker::tracked().empty());

    Velik::BacktraceTracker::enabledIs(true);
    Velik::RuntimeException kept("never thrown");
    try {
        Velik::NoPermissionException::throwException("thrown");
    } catch (const Velik::Exception&) {
    }
    Velik::Exception bare("bare", false);

    const auto tracked = Velik::BacktraceTracker::tracked();
    ASSERT_EQ(tracked.size(), 3u);
    EXPECT_EQ(tracked[0].message(), "never thrown");
    EXPECT_EQ(tracked[0].backtrace().frames()[0], kept.backtrace().frames()[0]);
    EXPECT_EQ(tracked[1].message(), "thrown");
    EXPECT_EQ(tracked[2].message(), "bare");
    EXPECT_EQ(tracked[2].backtrace().count(), 0u);
}

}  // namespace
