#include <Velik/LibeventAdditions.h>

#include <event2/event_struct.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

namespace {

// A base of its own (no Velik loop) with a log of callback names.
class AdditionsTest : public testing::Test {
  protected:
    void SetUp() override {
        base = event_base_new();
        ASSERT_EQ(pipe(fds), 0);
    }
    void TearDown() override {
        for (auto& ev : events) {
            event_del(ev.get());
        }
        event_base_free(base);
        close(fds[0]);
        close(fds[1]);
    }

    struct Named {
        AdditionsTest* test;
        std::string name;
    };

    static void record(evutil_socket_t, short what, void* arg) {
        auto* named = static_cast<Named*>(arg);
        named->test->log.push_back(named->name + ((what & EV_TIMEOUT) ? "" : "!"));
    }

    // An event named `name`: a pure timer for fd -1, else a read on the pipe.
    event* make(const std::string& name, int fd = -1, short flags = 0) {
        names.push_back(std::make_unique<Named>(Named{this, name}));
        events.push_back(std::make_unique<event>());
        event* ev = events.back().get();
        event_assign(ev, base, fd, flags, record, names.back().get());
        return ev;
    }
    event* add(const std::string& name, double seconds, int fd = -1, short flags = 0) {
        event* ev = make(name, fd, flags);
        timeval tv{static_cast<time_t>(seconds),
                   static_cast<suseconds_t>((seconds - static_cast<time_t>(seconds)) * 1e6)};
        event_add(ev, &tv);
        return ev;
    }
    timeval expiry(const event* ev) { return ev->ev_timeout; }
    static double seconds(const timeval& tv) { return tv.tv_sec + tv.tv_usec / 1e6; }
    void onePass() { event_base_loop(base, EVLOOP_ONCE | EVLOOP_NONBLOCK); }

    event_base* base = nullptr;
    int fds[2];
    std::vector<std::unique_ptr<event>> events;
    std::vector<std::unique_ptr<Named>> names;
    std::vector<std::string> log;
};

TEST_F(AdditionsTest, FirstTimeoutOverTimersAndDescriptorEvents) {
    timeval out{123, 456};
    EXPECT_NE(event_base_get_first_timeout(base, &out), 0);
    EXPECT_EQ(out.tv_sec, 123);  // untouched

    // A descriptor event without a time-out is no timer.
    event* reader = make("reader", fds[0], EV_READ | EV_PERSIST);
    event_add(reader, nullptr);
    EXPECT_NE(event_base_get_first_timeout(base, &out), 0);

    event* timer = add("timer", 30);
    add("later", 60);
    ASSERT_EQ(event_base_get_first_timeout(base, &out), 0);
    EXPECT_EQ(seconds(out), seconds(expiry(timer)));

    // A descriptor event whose time-out comes first.
    event* watched = add("watched", 10, fds[0], EV_READ);
    ASSERT_EQ(event_base_get_first_timeout(base, &out), 0);
    EXPECT_EQ(seconds(out), seconds(expiry(watched)));
    EXPECT_NEAR(seconds(out) - seconds(Velik::Impl::leBaseNow(base)), 10, 0.01);

    event_del(watched);
    ASSERT_EQ(event_base_get_first_timeout(base, &out), 0);
    EXPECT_EQ(seconds(out), seconds(expiry(timer)));
}

// Each timer moves by exactly the offset, so timers that expired together
// still do.
TEST_F(AdditionsTest, SubtractMovesEveryTimerByExactlyTheOffset) {
    std::vector<event*> timed = {add("a", 100), add("b", 200.5), add("c", 100),
                                 add("d", 150, fds[0], EV_READ)};
    event* reader = make("reader", fds[0], EV_READ | EV_PERSIST);
    event_add(reader, nullptr);
    std::vector<timeval> before;
    for (event* ev : timed) {
        before.push_back(expiry(ev));
    }
    timeval delta{40, 250000};
    ASSERT_EQ(event_base_timeout_subtract_offset(base, &delta), 0);
    for (size_t i = 0; i < timed.size(); ++i) {
        timeval expected;
        timersub(&before[i], &delta, &expected);
        EXPECT_EQ(expiry(timed[i]).tv_sec, expected.tv_sec) << i;
        EXPECT_EQ(expiry(timed[i]).tv_usec, expected.tv_usec) << i;
    }
    // The descriptor events still watch their descriptor.
    ASSERT_EQ(write(fds[1], "x", 1), 1);
    onePass();
    std::sort(log.begin(), log.end());
    EXPECT_EQ(log, (std::vector<std::string>{"d!", "reader!"}));
    EXPECT_FALSE(event_pending(reader, EV_TIMEOUT, nullptr));
}

TEST_F(AdditionsTest, TimersPulledIntoThePastFireInTheirOldOrder) {
    // Added out of order, with ties and a descriptor event among them.
    add("t4", 40);
    add("t1", 10);
    add("t3", 30, fds[0], EV_READ);
    add("t2", 20);
    add("t5", 500);
    add("t0", 5);
    timeval delta{100, 0};
    event_base_timeout_subtract_offset(base, &delta);
    onePass();
    EXPECT_EQ(log, (std::vector<std::string>{"t0", "t1", "t2", "t3", "t4"}));
    timeval first;
    ASSERT_EQ(event_base_get_first_timeout(base, &first), 0);
    EXPECT_NEAR(seconds(first) - seconds(Velik::Impl::leBaseNow(base)), 400, 0.01);
}

TEST_F(AdditionsTest, ShiftExactlyOntoNowMakesTheTimerDue) {
    event* timer = add("t", 3600);
    timeval now = Velik::Impl::leBaseNow(base);
    timeval due = expiry(timer), delta;
    timersub(&due, &now, &delta);
    event_base_timeout_subtract_offset(base, &delta);
    onePass();
    EXPECT_EQ(log, (std::vector<std::string>{"t"}));
}

TEST_F(AdditionsTest, PersistentTimerKeepsItsPeriod) {
    event* periodic = make("p", -1, EV_PERSIST);
    timeval period{10, 0};
    event_add(periodic, &period);
    timeval before = expiry(periodic);
    timeval delta{10, 0};
    event_base_timeout_subtract_offset(base, &delta);
    onePass();
    ASSERT_EQ(log, (std::vector<std::string>{"p"}));
    // Re-scheduled one period after the (shifted) expiry, not after the
    // shortened delay used for the shift.
    timeval expected;
    timeradd(&before, &period, &expected);
    timersub(&expected, &delta, &expected);
    EXPECT_NEAR(seconds(expiry(periodic)), seconds(expected), 0.01);
}

TEST_F(AdditionsTest, CommonTimeoutEventsAreSeenAndShifted) {
    timeval common{30, 0};
    const timeval* queued = event_base_init_common_timeout(base, &common);
    event* ev = make("common");
    event_add(ev, queued);
    add("plain", 60);
    timeval first;
    ASSERT_EQ(event_base_get_first_timeout(base, &first), 0);
    EXPECT_NEAR(seconds(first) - seconds(Velik::Impl::leBaseNow(base)), 30, 0.01);
    timeval delta{31, 0};
    event_base_timeout_subtract_offset(base, &delta);
    onePass();
    EXPECT_EQ(log, (std::vector<std::string>{"common"}));
}

}  // namespace
