// Makes failed assertions throw `Velik::AssertException` for the life of the
// object, so a test can catch them and read their messages.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Exception.h>

#include <gtest/gtest.h>

namespace VelikTest {

struct ThrowingAsserts {
    ThrowingAsserts() { Velik::throwOnAssertFailIs(true); }
    ~ThrowingAsserts() { Velik::throwOnAssertFailIs(previous); }
    const bool previous = Velik::throwOnAssertFail();
};

// The message of the assertion `body` raises; fails the test when it raises
// none.
template <typename Body>
std::string assertMessageOf(Body&& body) {
    ThrowingAsserts throwing;
    try {
        body();
    } catch (const Velik::AssertException& e) {
        return e.message();
    }
    ADD_FAILURE() << "no assertion raised";
    return {};
}

}  // namespace VelikTest
