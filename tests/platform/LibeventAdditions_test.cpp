// The two additions to libevent, on a base of their own: every kind of
// pending time-out (a plain timer, a descriptor's, a common one) is seen and
// moved, exactly and in order.
#include <Velik/LibeventAdditions.h>

#include "platform/Pipe.h"

#include <event2/event_struct.h>
#include <gtest/gtest.h>

#include <algorithm>
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

// Added out of order: those pulled into the past fire in their old order,
// the first left moves by exactly the offset, descriptor events keep
// watching their descriptor, and a shift exactly onto an expiry makes a
// timer due.
TEST(LibeventAdditions, SubtractMovesEveryTimerExactlyAndKeepsTheirOrder) {
    event_base* base = event_base_new();
    VelikTest::Pipe pipe;
    Log log;
    std::deque<Named> events;
    // A pure timer, or a read on the pipe when `flags` are given.
    const auto add = [&](const char* name, const timeval* timeout, short flags = 0) {
        Named& named = events.emplace_back(Named{{}, name, &log});
        event_assign(&named.ev, base, flags ? pipe.fds[0] : -1, flags, record, &named);
        event_add(&named.ev, timeout);
        return &named.ev;
    };
    const auto subtractAndPass = [&](timeval delta) {
        EXPECT_EQ(event_base_timeout_subtract_offset(base, &delta), 0);
        event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK);
    };
    const timeval t2{20, 0}, t1{10, 500000}, d{150, 0}, t5{500, 0}, common{7, 0};
    add("t2", &t2);
    add("t1", &t1, EV_READ);
    add("d", &d, EV_READ);
    event* last = add("t5", &t5);
    add("reader", nullptr, EV_READ | EV_PERSIST);
    add("c", event_base_init_common_timeout(base, &common));
    subtractAndPass({100, 250000});
    EXPECT_EQ(log, (Log{"c", "t1", "t2"}));
    timeval first, now = Velik::Impl::leBaseNow(base), shift;
    ASSERT_EQ(event_base_get_first_timeout(base, &first), 0);
    timersub(&first, &now, &shift);
    EXPECT_NEAR(shift.tv_sec + shift.tv_usec / 1e6, 49.75, 0.01);
    log.clear();
    pipe.put();
    subtractAndPass({0, 0});
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (Log{"d!", "reader!"}));

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
