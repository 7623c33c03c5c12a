// Makes failed assertions throw `Velik::AssertException` for the life of the
// object, so a test can catch them and read their messages.
#pragma once

#include <Velik/Assert.h>
#include <Velik/Exception.h>

#include <gtest/gtest.h>

namespace VelikTest {

class ThrowingAsserts {
  public:
    ThrowingAsserts() : previous_(Velik::throwOnAssertFail()) { Velik::throwOnAssertFailIs(true); }
    ~ThrowingAsserts() { Velik::throwOnAssertFailIs(previous_); }
    ThrowingAsserts(const ThrowingAsserts&) = delete;
    ThrowingAsserts& operator=(const ThrowingAsserts&) = delete;

  private:
    bool previous_;
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
