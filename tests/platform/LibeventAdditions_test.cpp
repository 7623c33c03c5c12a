// The two additions to libevent, on a base of their own: every kind of
// pending time-out is seen and moved, exactly and in order.
#include <Velik/LibeventAdditions.h>

#include "platform/Pipe.h"

#include <event2/event_struct.h>
#include <gtest/gtest.h>

#include <cmath>
#include <deque>

namespace {

using Log = std::vector<std::string>;

struct Named {
    event ev;
    std::string name;
    Log* log;
};

void record(evutil_socket_t, short what, void* arg) {
    auto* named = static_cast<Named*>(arg);
    named->log->push_back(named->name + ((what & EV_TIMEOUT) ? "" : "!"));
}

// Added out of order, with descriptor events and a common time-out among
// them: those pulled into the past fire in their old order, the first left
// moves by exactly the offset, descriptor events keep watching their
// descriptor, and a shift exactly onto an expiry makes a timer due.
TEST(LibeventAdditions, SubtractMovesEveryTimerExactlyAndKeepsTheirOrder) {
    event_base* base = event_base_new();
    VelikTest::Pipe pipe;
    Log log;
    std::deque<Named> events;
    // A pure timer for fd -1, else a read on the pipe; no time-out when
    // `seconds` is negative.
    const auto add = [&](const char* name, double seconds, int fd = -1, short flags = 0) {
        Named& named = events.emplace_back(Named{{}, name, &log});
        event_assign(&named.ev, base, fd, flags, record, &named);
        const timeval tv{static_cast<time_t>(seconds),
                         static_cast<suseconds_t>(std::fmod(seconds, 1.0) * 1e6)};
        event_add(&named.ev, seconds < 0 ? nullptr : &tv);
        return &named.ev;
    };
    const auto subtractAndPass = [&](timeval delta) {
        EXPECT_EQ(event_base_timeout_subtract_offset(base, &delta), 0);
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    };
    add("t4", 40);
    add("t1", 10.5);
    add("t3", 30, pipe.fds[0], EV_READ);
    add("t2", 20);
    add("d", 150, pipe.fds[0], EV_READ);
    add("t0", 5);
    event* last = add("t5", 500);
    event* reader = add("reader", -1, pipe.fds[0], EV_READ | EV_PERSIST);
    const timeval common{7, 0};
    event_add(add("c", -1), event_base_init_common_timeout(base, &common));
    subtractAndPass({100, 250000});
    EXPECT_EQ(log, (Log{"t0", "c", "t1", "t2", "t3", "t4"}));
    timeval first, now = Velik::Impl::leBaseNow(base), shift;
    ASSERT_EQ(event_base_get_first_timeout(base, &first), 0);
    timersub(&first, &now, &shift);
    EXPECT_NEAR(shift.tv_sec + shift.tv_usec / 1e6, 49.75, 0.01);
    log.clear();
    pipe.put();
    subtractAndPass({0, 0});
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{"d!", "reader!"}));
    EXPECT_FALSE(event_pending(reader, EV_TIMEOUT, nullptr));

    now = Velik::Impl::leBaseNow(base);
    timersub(&last->ev_timeout, &now, &shift);
    subtractAndPass(shift);
    EXPECT_EQ(log.back(), "t5");
    for (Named& named : events) {
        event_del(&named.ev);
    }
    event_base_free(base);
}

}  // namespace
