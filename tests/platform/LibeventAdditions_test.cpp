// The two additions to libevent, on a base of their own: every kind of
// pending time-out is seen and moved, exactly and in order.
#include <Velik/LibeventAdditions.h>

#include "platform/Pipe.h"

#include <event2/event_struct.h>
#include <gtest/gtest.h>

namespace {

class AdditionsTest : public testing::Test {
  protected:
    void TearDown() override {
        for (auto& ev : events) {
            event_del(&ev->ev);
        }
        event_base_free(base);
    }

    struct Named {
        event ev;
        std::string name;
        std::vector<std::string>* log;
    };
    static void record(evutil_socket_t, short what, void* arg) {
        auto* named = static_cast<Named*>(arg);
        named->log->push_back(named->name + ((what & EV_TIMEOUT) ? "" : "!"));
    }

    // Adds an event named `name` (a pure timer for fd -1, else a read on the
    // pipe) with a time-out of `seconds`, none when negative.
    event* add(const std::string& name, double seconds, int fd = -1, short flags = 0) {
        events.push_back(std::make_unique<Named>(Named{{}, name, &log}));
        event* ev = &events.back()->ev;
        event_assign(ev, base, fd, flags, record, events.back().get());
        timeval tv{static_cast<time_t>(seconds),
                   static_cast<suseconds_t>((seconds - static_cast<time_t>(seconds)) * 1e6)};
        event_add(ev, seconds < 0 ? nullptr : &tv);
        return ev;
    }
    static double seconds(const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; }
    double firstFromNow() {
        timeval first;
        EXPECT_EQ(event_base_get_first_timeout(base, &first), 0);
        return seconds(first) - seconds(Velik::Impl::leBaseNow(base));
    }
    void subtract(timeval delta) { ASSERT_EQ(event_base_timeout_subtract_offset(base, &delta), 0); }
    void onePass() { event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }

    event_base* base = event_base_new();
    VelikTest::Pipe pipe;
    int* fds = pipe.fds;
    std::vector<std::unique_ptr<Named>> events;
    std::vector<std::string> log;
};

// Added out of order, with descriptor events and a common time-out among
// them: those pulled into the past fire in their old order, the first left
// moves by exactly the offset, descriptor events keep watching their
// descriptor, and a shift exactly onto an expiry makes a timer due.
TEST_F(AdditionsTest, SubtractMovesEveryTimerExactlyAndKeepsTheirOrder) {
    add("t4", 40);
    add("t1", 10.5);
    add("t3", 30, fds[0], EV_READ);
    add("t2", 20);
    add("d", 150, fds[0], EV_READ);
    add("t0", 5);
    event* last = add("t5", 500);
    event* reader = add("reader", -1, fds[0], EV_READ | EV_PERSIST);
    timeval common{7, 0};
    event_add(add("c", -1), event_base_init_common_timeout(base, &common));
    subtract({100, 250000});
    onePass();
    EXPECT_EQ(log, (std::vector<std::string>{"t0", "c", "t1", "t2", "t3", "t4"}));
    EXPECT_NEAR(firstFromNow(), 49.75, 0.01);
    log.clear();
    pipe.put();
    onePass();
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (std::vector<std::string>{"d!", "reader!"}));
    EXPECT_FALSE(event_pending(reader, EV_TIMEOUT, nullptr));

    timeval now = Velik::Impl::leBaseNow(base), shift;
    timersub(&last->ev_timeout, &now, &shift);
    subtract(shift);
    onePass();
    EXPECT_EQ(log.back(), "t5");
}

}  // namespace
