// A pipe, or a socket pair, that a test watches at `fds[0]` and writes to at
// `fds[1]`; the ends still open are closed with the object.
#pragma once

#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

namespace VelikTest {

struct Pipe {
    explicit Pipe(bool sockets = false) {
        EXPECT_EQ(sockets ? socketpair(AF_UNIX, SOCK_STREAM, 0, fds) : pipe(fds), 0);
    }
    ~Pipe() {
        closeEnd(0);
        closeEnd(1);
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    // Makes `fds[0]` readable.
    void put() { EXPECT_EQ(write(fds[1], "x", 1), 1); }
    void closeEnd(int i) {
        if (fds[i] >= 0) {
            close(fds[i]);
            fds[i] = -1;
        }
    }

    int fds[2] = {-1, -1};
};

}  // namespace VelikTest
