// Tests of the timing-wheel library (Velik/Timeouts.h).

#include "Velik/Timeouts.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <type_traits>
#include <vector>

namespace {

constexpr int kBits = TIMEOUTS_WHEEL_BIT;
constexpr int kLevels = TIMEOUTS_WHEEL_NUM;
// Ticks covered below the top level's wrap: 64^levels.
constexpr timeout_t kRange = timeout_t(1) << (kBits * kLevels);
constexpr timeout_t kTopUnit = timeout_t(1) << (kBits * (kLevels - 1));
constexpr timeout_t kDay = 100ull * 60 * 60 * 24;  // ticks per day at 100 Hz

static_assert(std::is_standard_layout_v<timeout>);

struct WheelCloser {
    void operator()(timeouts* T) const { timeouts_close(T); }
};
using Wheel = std::unique_ptr<timeouts, WheelCloser>;

Wheel openWheel() {
    int err = 0;
    Wheel w(timeouts_open(100, &err));
    EXPECT_NE(w, nullptr);
    EXPECT_EQ(err, 0);
    return w;
}

std::vector<timeout*> drain(timeouts* T) {
    std::vector<timeout*> out;
    while (timeout* to = timeouts_get(T)) {
        out.push_back(to);
    }
    return out;
}

// Advances like an event loop: jump by timeouts_timeout() until `to` expires,
// checking that no step passes its expiry. Returns the number of steps.
size_t stepUntilExpired(timeouts* T, timeout* to, timeout_t expiry, size_t maxSteps) {
    size_t steps = 0;
    while (!timeout_expired(to)) {
        EXPECT_TRUE(timeout_pending(to));
        const timeout_t t = timeouts_timeout(T);
        EXPECT_NE(t, TIMEOUT_NEVER);
        EXPECT_GE(t, 1u);
        const timeout_t now = timeouts_now(T);
        EXPECT_LE(t, expiry - now) << "timeouts_timeout overestimates";
        if (t == TIMEOUT_NEVER || t > expiry - now || ++steps > maxSteps) {
            ADD_FAILURE() << "stepping failed at now=" << now << " expiry=" << expiry;
            return steps;
        }
        timeouts_update(T, now + t);
        EXPECT_TRUE(timeouts_check(T));
    }
    EXPECT_EQ(timeouts_now(T), expiry);
    return steps;
}

std::vector<timeout_t> boundaryDeltas() {
    std::vector<timeout_t> d = {1, 2, 3};
    for (int level = 1; level <= kLevels; ++level) {
        const timeout_t b = timeout_t(1) << (kBits * level);
        d.insert(d.end(), {b - 1, b, b + 1});
    }
    // The top level's own boundaries and wrap-around beyond it.
    d.insert(d.end(), {63 * kTopUnit - 1, 63 * kTopUnit, 63 * kTopUnit + 1, 64 * kTopUnit + 1,
                       65 * kTopUnit - 1, 2 * kRange, 3 * kRange + 12345, 3 * kDay, 20 * kDay});
    return d;
}

}  // namespace

TEST(Timeouts, OpenAndEmptyWheel) {
    Wheel w = openWheel();
    EXPECT_FALSE(timeouts_pending(w.get()));
    EXPECT_FALSE(timeouts_expired(w.get()));
    EXPECT_EQ(timeouts_timeout(w.get()), TIMEOUT_NEVER);
    EXPECT_EQ(timeouts_get(w.get()), nullptr);
    EXPECT_EQ(timeouts_now(w.get()), 0u);
    EXPECT_EQ(timeouts_hz(w.get()), 100u);
    EXPECT_TRUE(timeouts_check(w.get()));
    EXPECT_GE(timeouts_footprint(), sizeof(timeout_node) * 64 * kLevels);
    timeouts_update(w.get(), 1000);
    EXPECT_EQ(timeouts_now(w.get()), 1000u);
    EXPECT_EQ(timeouts_get(w.get()), nullptr);
}

TEST(Timeouts, OpenRejectsZeroHz) {
    int err = 0;
    EXPECT_EQ(timeouts_open(0, &err), nullptr);
    EXPECT_EQ(err, EINVAL);
    EXPECT_EQ(timeouts_open(0, nullptr), nullptr);
}

TEST(Timeouts, NullArgumentsAreHarmless) {
    timeouts_close(nullptr);
    timeouts_update(nullptr, 5);
    timeouts_del(nullptr, nullptr);
    EXPECT_EQ(timeouts_get(nullptr), nullptr);
    EXPECT_FALSE(timeouts_pending(nullptr));
    EXPECT_FALSE(timeouts_expired(nullptr));
    EXPECT_EQ(timeouts_timeout(nullptr), TIMEOUT_NEVER);
    EXPECT_EQ(timeout_init(nullptr, 0), nullptr);
    Wheel w = openWheel();
    timeouts_add(w.get(), nullptr, 5);
    EXPECT_FALSE(timeouts_pending(w.get()));
}

TEST(Timeouts, InitStoresFlagsAndIsIdle) {
    timeout to;
    EXPECT_EQ(timeout_init(&to, TIMEOUT_ABS | 0x04), &to);
    EXPECT_EQ(to.flags, TIMEOUT_ABS | 0x04);
    EXPECT_FALSE(timeout_pending(&to));
    EXPECT_FALSE(timeout_expired(&to));
}

TEST(Timeouts, RelativeAddExpiresExactly) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, 0);
    timeouts_update(w.get(), 10);
    timeouts_add(w.get(), &to, 5);
    EXPECT_TRUE(timeout_pending(&to));
    EXPECT_TRUE(timeouts_pending(w.get()));
    EXPECT_EQ(timeouts_timeout(w.get()), 5u);
    timeouts_update(w.get(), 14);
    EXPECT_FALSE(timeouts_expired(w.get()));
    EXPECT_EQ(timeouts_timeout(w.get()), 1u);
    timeouts_update(w.get(), 15);
    EXPECT_TRUE(timeouts_expired(w.get()));
    EXPECT_FALSE(timeouts_pending(w.get()));
    EXPECT_EQ(timeouts_timeout(w.get()), 0u);
    EXPECT_EQ(timeouts_get(w.get()), &to);
    EXPECT_FALSE(timeout_pending(&to));
    EXPECT_FALSE(timeout_expired(&to));
    EXPECT_EQ(timeouts_timeout(w.get()), TIMEOUT_NEVER);
}

TEST(Timeouts, NotLaterThanNowGoesStraightToExpired) {
    Wheel w = openWheel();
    timeouts_update(w.get(), 500);
    timeout rel0, absPast, absNow;
    timeout_init(&rel0, 0);
    timeout_init(&absPast, TIMEOUT_ABS);
    timeout_init(&absNow, TIMEOUT_ABS);
    timeouts_add(w.get(), &rel0, 0);
    timeouts_add(w.get(), &absPast, 3);
    timeouts_add(w.get(), &absNow, 500);
    EXPECT_TRUE(timeout_expired(&rel0));
    EXPECT_FALSE(timeouts_pending(w.get()));
    EXPECT_EQ(timeouts_timeout(w.get()), 0u);
    EXPECT_EQ(drain(w.get()), (std::vector<timeout*>{&rel0, &absPast, &absNow}));
}

TEST(Timeouts, UpdateNeverGoesBackwards) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, TIMEOUT_ABS);
    timeouts_update(w.get(), 100);
    timeouts_add(w.get(), &to, 150);
    timeouts_update(w.get(), 20);
    EXPECT_EQ(timeouts_now(w.get()), 100u);
    EXPECT_EQ(timeouts_timeout(w.get()), 28u);  // level 1, slot range [128, 192)
    EXPECT_TRUE(timeouts_check(w.get()));
    timeouts_del(w.get(), &to);
}

// Every boundary delta from several start ticks: not expired one tick early
// (direct update), expired exactly at the tick; and the same by event-loop
// stepping with timeouts_timeout().
TEST(Timeouts, ExpiryAtLevelBoundaries) {
    const std::vector<timeout_t> starts = {0,    1,         63,         64 + 5,         4095,
                                           4096, 123456789, kRange - 1, 5 * kRange + 77};
    for (timeout_t start : starts) {
        for (timeout_t delta : boundaryDeltas()) {
            SCOPED_TRACE(testing::Message() << "start=" << start << " delta=" << delta);
            const timeout_t expiry = start + delta;
            {
                Wheel w = openWheel();
                timeouts_update(w.get(), start);
                timeout to;
                timeout_init(&to, 0);
                timeouts_add(w.get(), &to, delta);
                ASSERT_TRUE(timeouts_check(w.get()));
                const timeout_t t = timeouts_timeout(w.get());
                EXPECT_GE(t, 1u);
                EXPECT_LE(t, delta);
                if (delta < 64 && ((start ^ expiry) >> kBits) == 0) {
                    EXPECT_EQ(t, delta);  // level 0 is exact
                }
                timeouts_update(w.get(), expiry - 1);
                ASSERT_TRUE(timeouts_check(w.get()));
                EXPECT_TRUE(timeout_pending(&to));
                EXPECT_FALSE(timeouts_expired(w.get()));
                timeouts_update(w.get(), expiry);
                ASSERT_TRUE(timeouts_check(w.get()));
                EXPECT_TRUE(timeout_expired(&to));
                EXPECT_EQ(timeouts_get(w.get()), &to);
                EXPECT_EQ(timeouts_get(w.get()), nullptr);
            }
            {
                Wheel w = openWheel();
                timeouts_update(w.get(), start);
                timeout to;
                timeout_init(&to, TIMEOUT_ABS);
                timeouts_add(w.get(), &to, expiry);
                // Far timers re-park once per top rotation (63 top units).
                const size_t maxSteps = 4 * kLevels + 2 + size_t(delta / (63 * kTopUnit)) * 2;
                stepUntilExpired(w.get(), &to, expiry, maxSteps);
                EXPECT_EQ(timeouts_get(w.get()), &to);
            }
        }
    }
}

TEST(Timeouts, TimeoutUnderestimatesOnHigherLevels) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, TIMEOUT_ABS);
    timeouts_add(w.get(), &to, 100);  // level 1, slot 1: range [64, 128)
    EXPECT_EQ(timeouts_timeout(w.get()), 64u);
    timeouts_update(w.get(), 64);  // cascades to level 0
    EXPECT_TRUE(timeout_pending(&to));
    EXPECT_EQ(timeouts_timeout(w.get()), 36u);
    timeouts_update(w.get(), 100);
    EXPECT_EQ(timeouts_get(w.get()), &to);
}

TEST(Timeouts, CascadesThroughEveryLevelTickByTickAroundBoundaries) {
    Wheel w = openWheel();
    std::vector<timeout_t> expiries;
    for (int level = 1; level < kLevels && level <= 3; ++level) {
        const timeout_t b = timeout_t(1) << (kBits * level);
        expiries.insert(expiries.end(), {b - 1, b, b + 1, 2 * b - 1, 2 * b, 2 * b + 1});
    }
    std::vector<timeout> recs(expiries.size());
    for (size_t i = 0; i < recs.size(); ++i) {
        timeout_init(&recs[i], TIMEOUT_ABS);
        timeouts_add(w.get(), &recs[i], expiries[i]);
    }
    ASSERT_TRUE(timeouts_check(w.get()));
    std::map<timeout_t, std::vector<timeout*>> expect;
    for (size_t i = 0; i < recs.size(); ++i) {
        expect[expiries[i]].push_back(&recs[i]);
    }
    const timeout_t last = *std::max_element(expiries.begin(), expiries.end());
    for (timeout_t now = 1; now <= last + 2; ++now) {
        timeouts_update(w.get(), now);
        if ((now & 63) <= 1 || (now & 63) == 63) {
            ASSERT_TRUE(timeouts_check(w.get())) << now;
        }
        std::vector<timeout*> got = drain(w.get());
        auto it = expect.find(now);
        if (it == expect.end()) {
            ASSERT_TRUE(got.empty()) << "unexpected expiry at " << now;
        } else {
            ASSERT_EQ(got, it->second) << "at " << now;
        }
    }
    EXPECT_FALSE(timeouts_pending(w.get()));
}

TEST(Timeouts, SameTickArrivalOrderAcrossCascades) {
    Wheel w = openWheel();
    // Within the wheel's range (the documented exception is beyond it).
    const timeout_t expiry = kLevels >= 3 ? 3 * 4096 + 2 * 64 + 7 : 2 * 64 + 7;
    std::vector<timeout> recs(12);
    std::vector<timeout*> order;
    timeout_t now = 0;
    for (auto& r : recs) {
        timeout_init(&r, TIMEOUT_ABS);
        timeouts_add(w.get(), &r, expiry);  // added at different levels over time
        order.push_back(&r);
        now += expiry / 11;
        timeouts_update(w.get(), std::min(now, expiry - 1));
    }
    // Re-adding moves a timer to the end of its tick's order.
    timeouts_add(w.get(), &recs[0], expiry);
    order.erase(order.begin());
    order.push_back(&recs[0]);
    timeouts_update(w.get(), expiry + 1000);
    EXPECT_EQ(drain(w.get()), order);
}

TEST(Timeouts, ReAddExpiredAndGotTimers) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, 0);
    timeouts_add(w.get(), &to, 5);
    timeouts_update(w.get(), 5);
    ASSERT_TRUE(timeout_expired(&to));
    // Re-add while on the expired list: leaves the list, pending again.
    timeouts_add(w.get(), &to, 10);
    EXPECT_FALSE(timeouts_expired(w.get()));
    EXPECT_TRUE(timeout_pending(&to));
    EXPECT_TRUE(timeouts_check(w.get()));
    timeouts_update(w.get(), 14);
    EXPECT_FALSE(timeouts_expired(w.get()));
    timeouts_update(w.get(), 15);
    EXPECT_EQ(timeouts_get(w.get()), &to);
    // Re-add after get, relative to the new current tick, on a higher level.
    timeouts_add(w.get(), &to, 5000);
    EXPECT_TRUE(timeout_pending(&to));
    timeouts_update(w.get(), 5014);
    EXPECT_FALSE(timeouts_expired(w.get()));
    timeouts_update(w.get(), 5015);
    EXPECT_EQ(timeouts_get(w.get()), &to);
    // Re-add an expired timer as already expired: it moves to the list's end.
    timeout other;
    timeout_init(&other, 0);
    timeouts_add(w.get(), &to, 0);
    timeouts_add(w.get(), &other, 0);
    timeouts_add(w.get(), &to, 0);
    EXPECT_EQ(drain(w.get()), (std::vector<timeout*>{&other, &to}));
}

TEST(Timeouts, ReAddPendingMovesIt) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, 0);
    timeouts_add(w.get(), &to, 100000);
    timeouts_add(w.get(), &to, 10);  // earlier
    EXPECT_EQ(timeouts_timeout(w.get()), 10u);
    EXPECT_TRUE(timeouts_check(w.get()));
    timeouts_add(w.get(), &to, 300);  // later
    timeouts_update(w.get(), 299);
    EXPECT_FALSE(timeouts_expired(w.get()));
    timeouts_update(w.get(), 300);
    EXPECT_EQ(drain(w.get()), std::vector<timeout*>{&to});
}

TEST(Timeouts, AddToAnotherWheelLeavesTheFirst) {
    Wheel a = openWheel();
    Wheel b = openWheel();
    timeout to;
    timeout_init(&to, 0);
    timeouts_add(a.get(), &to, 70);
    timeouts_add(b.get(), &to, 70);
    EXPECT_FALSE(timeouts_pending(a.get()));
    EXPECT_TRUE(timeouts_pending(b.get()));
    EXPECT_TRUE(timeouts_check(a.get()));
    EXPECT_TRUE(timeouts_check(b.get()));
    timeouts_del(a.get(), &to);  // the record's own wheel is used
    EXPECT_FALSE(timeouts_pending(b.get()));
    EXPECT_TRUE(timeouts_check(b.get()));
}

TEST(Timeouts, DeleteFromEveryLevelAndTheExpiredList) {
    std::vector<timeout_t> deltas = {1, 63};
    for (int level = 1; level < kLevels; ++level) {
        deltas.push_back(timeout_t(1) << (kBits * level));
        deltas.push_back((timeout_t(1) << (kBits * (level + 1))) - 1);
    }
    deltas.push_back(kRange + 5);     // parked beyond the top level
    deltas.push_back(TIMEOUT_NEVER);  // saturates at the largest tick
    for (timeout_t delta : deltas) {
        SCOPED_TRACE(delta);
        Wheel w = openWheel();
        timeouts_update(w.get(), 1000);
        timeout keep, del;
        timeout_init(&keep, 0);
        timeout_init(&del, 0);
        timeouts_add(w.get(), &keep, delta);
        timeouts_add(w.get(), &del, delta);
        timeouts_del(w.get(), &del);
        EXPECT_FALSE(timeout_pending(&del));
        EXPECT_TRUE(timeout_pending(&keep));
        EXPECT_TRUE(timeouts_check(w.get()));
        timeouts_del(w.get(), &keep);  // last one in its slot: bitmap cleared
        EXPECT_FALSE(timeouts_pending(w.get()));
        EXPECT_EQ(timeouts_timeout(w.get()), TIMEOUT_NEVER);
        EXPECT_TRUE(timeouts_check(w.get()));
        timeouts_update(w.get(), TIMEOUT_NEVER);
        EXPECT_FALSE(timeouts_expired(w.get()));
    }
    Wheel w = openWheel();
    timeout a, b, c;
    for (timeout* t : {&a, &b, &c}) {
        timeout_init(t, 0);
        timeouts_add(w.get(), t, 3);
    }
    timeouts_update(w.get(), 3);
    timeouts_del(w.get(), &b);  // from the expired list
    EXPECT_FALSE(timeout_expired(&b));
    EXPECT_TRUE(timeouts_check(w.get()));
    EXPECT_EQ(drain(w.get()), (std::vector<timeout*>{&a, &c}));
}

// Level 0 slots go to the expired list whole; deleting such a record later
// must not disturb the slot it came from, now reused by a newer timer.
TEST(Timeouts, DeleteExpiredFromReusedLevel0Slot) {
    Wheel w = openWheel();
    timeout a, b, c;
    timeout_init(&a, TIMEOUT_ABS);
    timeout_init(&b, TIMEOUT_ABS);
    timeout_init(&c, TIMEOUT_ABS);
    timeouts_add(w.get(), &a, 5);
    timeouts_add(w.get(), &b, 5);
    timeouts_update(w.get(), 5);
    ASSERT_TRUE(timeout_expired(&a));
    timeouts_update(w.get(), 64);
    timeouts_add(w.get(), &c, 64 + 5);  // same level 0 slot index as a and b had
    timeouts_del(w.get(), &a);
    EXPECT_TRUE(timeouts_check(w.get()));
    EXPECT_TRUE(timeout_pending(&c));
    EXPECT_EQ(timeouts_timeout(w.get()), 0u);
    EXPECT_EQ(timeouts_get(w.get()), &b);
    EXPECT_EQ(timeouts_timeout(w.get()), 5u);
    timeouts_add(w.get(), &b, 64 + 5);  // re-add a got record into that slot
    timeouts_update(w.get(), 64 + 5);
    EXPECT_EQ(drain(w.get()), (std::vector<timeout*>{&c, &b}));
}

TEST(Timeouts, DeleteIdleIsSafe) {
    Wheel w = openWheel();
    timeout to;
    timeout_init(&to, 0);
    timeouts_del(w.get(), &to);
    timeouts_add(w.get(), &to, 2);
    timeouts_del(w.get(), &to);
    timeouts_del(w.get(), &to);
    timeouts_add(w.get(), &to, 2);
    timeouts_update(w.get(), 2);
    EXPECT_EQ(timeouts_get(w.get()), &to);
    timeouts_del(w.get(), &to);
    EXPECT_TRUE(timeouts_check(w.get()));
    EXPECT_FALSE(timeouts_expired(w.get()));
}

TEST(Timeouts, CloseReleasesRecords) {
    timeout pend, exp;
    timeout_init(&pend, 0);
    timeout_init(&exp, 0);
    {
        Wheel w = openWheel();
        timeouts_add(w.get(), &pend, 100000);
        timeouts_add(w.get(), &exp, 0);
    }
    EXPECT_FALSE(timeout_pending(&pend));
    EXPECT_FALSE(timeout_expired(&exp));
    timeouts_del(nullptr, &pend);  // idle: nothing to touch
}

TEST(Timeouts, HugeJumpsInOneUpdate) {
    Wheel w = openWheel();
    std::mt19937_64 rng(42);
    const size_t n = 20000;
    std::vector<timeout> recs(n);
    std::vector<timeout_t> exp(n);
    for (size_t i = 0; i < n; ++i) {
        timeout_init(&recs[i], TIMEOUT_ABS);
        // Up to 40 days, some beyond the wheel's range.
        exp[i] = (i % 10 == 0) ? kRange + rng() % (4 * kRange) : 1 + rng() % (40 * kDay);
        timeouts_add(w.get(), &recs[i], exp[i]);
    }
    ASSERT_TRUE(timeouts_check(w.get()));
    std::vector<timeout_t> nows = {kDay,       3 * kDay + 17, 30 * kDay,
                                   kRange + 5, 3 * kRange,    6 * kRange};
    std::sort(nows.begin(), nows.end());
    for (timeout_t now : nows) {
        timeouts_update(w.get(), now);
        ASSERT_TRUE(timeouts_check(w.get()));
        std::set<timeout*> got;
        for (timeout* to : drain(w.get())) {
            got.insert(to);
        }
        size_t stillPending = 0;
        for (size_t i = 0; i < n; ++i) {
            if (exp[i] <= now) {
                EXPECT_FALSE(timeout_pending(&recs[i]));
            } else {
                EXPECT_TRUE(timeout_pending(&recs[i]));
                EXPECT_EQ(got.count(&recs[i]), 0u);
                ++stillPending;
                EXPECT_LE(timeouts_timeout(w.get()), exp[i] - now);
            }
        }
        EXPECT_EQ(timeouts_pending(w.get()), stillPending > 0);
    }
    // A jump to near the end of time must not walk ticks (it would never end).
    timeout far;
    timeout_init(&far, TIMEOUT_ABS);
    timeouts_add(w.get(), &far, TIMEOUT_NEVER - 1);
    timeouts_update(w.get(), TIMEOUT_NEVER - 2);
    for (timeout* to : drain(w.get())) {
        EXPECT_NE(to, &far);
    }
    EXPECT_TRUE(timeout_pending(&far));
    EXPECT_EQ(timeouts_timeout(w.get()), 1u);
    timeouts_update(w.get(), TIMEOUT_NEVER);
    EXPECT_EQ(drain(w.get()), std::vector<timeout*>{&far});
    EXPECT_FALSE(timeouts_pending(w.get()));
    for (auto& r : recs) {
        EXPECT_FALSE(timeout_pending(&r));
        EXPECT_FALSE(timeout_expired(&r));
    }
    EXPECT_TRUE(timeouts_check(w.get()));
}

TEST(Timeouts, WrapAroundBeyondTheTopLevel) {
    Wheel w = openWheel();
    timeouts_update(w.get(), 7 * kTopUnit + 3);  // top digit 7, not 0
    const timeout_t now0 = timeouts_now(w.get());
    // Expiries whose top digit is at, just below and just above the current
    // one a rotation later, and several rotations away.
    std::vector<timeout_t> exp = {
        now0 + kRange - kTopUnit, now0 + kRange - 1,        now0 + kRange,
        now0 + kRange + 1,        now0 + kRange + kTopUnit, now0 + 5 * kRange + 9,
        (now0 | (kRange - 1)) + 1};
    std::vector<timeout> recs(exp.size());
    for (size_t i = 0; i < exp.size(); ++i) {
        timeout_init(&recs[i], TIMEOUT_ABS);
        timeouts_add(w.get(), &recs[i], exp[i]);
    }
    std::multiset<timeout_t> left(exp.begin(), exp.end());
    size_t steps = 0;
    while (!left.empty()) {
        ASSERT_LT(++steps, 10000u);
        const timeout_t t = timeouts_timeout(w.get());
        const timeout_t now = timeouts_now(w.get());
        ASSERT_GE(t, 1u);
        ASSERT_LE(t, *left.begin() - now);
        timeouts_update(w.get(), now + t);
        ASSERT_TRUE(timeouts_check(w.get()));
        for (timeout* to : drain(w.get())) {
            const size_t i = static_cast<size_t>(to - recs.data());
            ASSERT_EQ(exp[i], now + t);
            left.erase(left.find(exp[i]));
        }
    }
    EXPECT_EQ(timeouts_timeout(w.get()), TIMEOUT_NEVER);
}

TEST(Timeouts, RelativeAddSaturatesAtTheLargestTick) {
    Wheel w = openWheel();
    timeouts_update(w.get(), TIMEOUT_NEVER - 10);
    timeout to;
    timeout_init(&to, 0);
    timeouts_add(w.get(), &to, 100);
    EXPECT_TRUE(timeout_pending(&to));
    EXPECT_EQ(timeouts_timeout(w.get()), 10u);
    timeouts_update(w.get(), TIMEOUT_NEVER - 1);
    EXPECT_FALSE(timeouts_expired(w.get()));
    timeouts_update(w.get(), TIMEOUT_NEVER);
    EXPECT_EQ(timeouts_get(w.get()), &to);
}

TEST(Timeouts, UserFlagBitsPreserved) {
    Wheel w = openWheel();
    for (int user = 0; user <= TIMEOUT_USER_BITS; user += 0x04) {
        for (int lib : {0, TIMEOUT_ABS, TIMEOUT_INT, TIMEOUT_ABS | TIMEOUT_INT}) {
            const int flags = user | lib;
            timeout to;
            timeout_init(&to, flags);
            EXPECT_EQ(to.flags, flags);
            const timeout_t base = timeouts_now(w.get());
            for (timeout_t d : {timeout_t(0), timeout_t(5), timeout_t(5000), 3 * kRange}) {
                timeouts_add(w.get(), &to, (flags & TIMEOUT_ABS) ? base + d : d);
                EXPECT_EQ(to.flags, flags);
                timeouts_del(w.get(), &to);
                EXPECT_EQ(to.flags, flags);
            }
            timeouts_add(w.get(), &to, (flags & TIMEOUT_ABS) ? base + 70 : 70);
            timeouts_update(w.get(), base + 69);
            EXPECT_EQ(to.flags, flags);
            timeouts_update(w.get(), base + 70);
            EXPECT_EQ(to.flags, flags);
            ASSERT_EQ(timeouts_get(w.get()), &to);
            EXPECT_EQ(to.flags, flags);
            // The user may change its bits while the record is in the wheel.
            timeouts_add(w.get(), &to, (flags & TIMEOUT_ABS) ? base + 200 : 130);
            to.flags ^= TIMEOUT_USER_BITS;
            timeouts_update(w.get(), base + 200);
            ASSERT_EQ(timeouts_get(w.get()), &to);
            EXPECT_EQ(to.flags, flags ^ TIMEOUT_USER_BITS);
        }
    }
}

// Randomized property test against a brute-force model: the set of expired
// records after every update, timeouts_pending/expired, per-record state,
// timeouts_timeout never overestimating (and exact on level 0), same-tick
// arrival order, and user flag bits untouched.
TEST(Timeouts, RandomizedAgainstModel) {
    std::mt19937_64 rng(0x5eed1234);
    Wheel w = openWheel();
    constexpr size_t kRecords = 400;
    constexpr int kOps = 60000;
    std::vector<timeout> recs(kRecords);
    std::vector<int> flagsOf(kRecords);
    struct ModelRec {
        enum { idle, pending, expired } state = idle;
        timeout_t expires = 0;
        uint64_t seq = 0;  // arrival number of the last add
        bool far = false;  // added beyond the top level's 63-slot reach
    };
    std::vector<ModelRec> model(kRecords);
    std::multiset<std::pair<timeout_t, size_t>> pendingModel;  // (expiry, index)
    std::set<size_t> expiredModel;
    uint64_t seq = 0;
    std::map<timeout_t, uint64_t> lastSeqGot;  // same-tick arrival order
    for (size_t i = 0; i < kRecords; ++i) {
        flagsOf[i] = static_cast<int>(rng() % 8) << 2 | ((i % 2) ? TIMEOUT_ABS : 0);
        timeout_init(&recs[i], flagsOf[i]);
    }
    auto randomDelta = [&]() -> timeout_t {
        switch (rng() % 10) {
            case 0:
                return rng() % 3;
            case 1:
            case 2:
                return rng() % 70;
            case 3:
                return rng() % 5000;
            case 4: {
                const int level = static_cast<int>(rng() % (kLevels + 1));
                const timeout_t b = timeout_t(1) << (kBits * level);
                const timeout_t k = rng() % 4 == 0 ? 63 : 1;
                return k * b - 1 + rng() % 3;
            }
            case 5:
                return rng() % (60 * 100);
            case 6:
                return rng() % (3 * kDay);
            case 7:
                return rng() % (3 * kRange);
            default:
                return rng() % 300000;
        }
    };
    auto removeFromModel = [&](size_t i) {
        if (model[i].state == ModelRec::pending) {
            pendingModel.erase(pendingModel.find({model[i].expires, i}));
        } else if (model[i].state == ModelRec::expired) {
            expiredModel.erase(i);
        }
        model[i].state = ModelRec::idle;
    };
    timeouts* T = w.get();
    for (int op = 0; op < kOps; ++op) {
        const timeout_t now = timeouts_now(T);
        const size_t i = rng() % kRecords;
        const unsigned kind = rng() % 100;
        if (kind < 45) {  // add / re-add
            timeout_t d = randomDelta();
            if (d > TIMEOUT_NEVER - now) {
                d = TIMEOUT_NEVER - now;
            }
            const timeout_t expiry = now + d;
            timeouts_add(T, &recs[i], (flagsOf[i] & TIMEOUT_ABS) ? expiry : d);
            removeFromModel(i);
            model[i].expires = expiry;
            model[i].seq = ++seq;
            const int sh = kBits * (kLevels - 1);
            model[i].far = (expiry >> sh) - (now >> sh) >= 64;
            if (expiry <= now) {
                model[i].state = ModelRec::expired;
                expiredModel.insert(i);
            } else {
                model[i].state = ModelRec::pending;
                pendingModel.insert({expiry, i});
            }
        } else if (kind < 60) {  // delete
            timeouts_del(T, &recs[i]);
            removeFromModel(i);
        } else if (kind < 85) {  // advance
            timeout_t target;
            const timeout_t t = timeouts_timeout(T);
            switch (rng() % 16) {
                case 0:
                case 1:
                case 2:
                case 3:
                    target = now + 1 + rng() % 64;
                    break;
                case 4:
                case 5:
                case 6:
                case 7:
                    target = (t == TIMEOUT_NEVER || t == 0) ? now + 1 : now + t;
                    break;
                case 8:
                case 9:
                case 10:
                    target = now + rng() % 20000;
                    break;
                case 11:
                case 12:
                case 13:
                    target = now + rng() % (kDay / 4);
                    break;
                case 14:
                    target = now + rng() % (2 * kTopUnit);
                    break;  // top-level steps
                default:
                    target = now + rng() % (2 * kRange);
                    break;  // wrap-around
            }
            timeouts_update(T, target);
            while (!pendingModel.empty() && pendingModel.begin()->first <= target) {
                const size_t j = pendingModel.begin()->second;
                pendingModel.erase(pendingModel.begin());
                model[j].state = ModelRec::expired;
                expiredModel.insert(j);
            }
        } else {  // get some
            const int n = static_cast<int>(rng() % 8);
            for (int k = 0; k < n; ++k) {
                timeout* to = timeouts_get(T);
                if (to == nullptr) {
                    ASSERT_TRUE(expiredModel.empty()) << "op " << op;
                    break;
                }
                const size_t j = static_cast<size_t>(to - recs.data());
                ASSERT_LT(j, kRecords);
                ASSERT_EQ(model[j].state, ModelRec::expired) << "op " << op;
                ASSERT_LE(model[j].expires, timeouts_now(T));
                if (!model[j].far) {
                    auto [it, fresh] = lastSeqGot.try_emplace(model[j].expires, model[j].seq);
                    if (!fresh) {
                        ASSERT_LT(it->second, model[j].seq) << "same-tick order, op " << op;
                        it->second = model[j].seq;
                    }
                }
                expiredModel.erase(j);
                model[j].state = ModelRec::idle;
            }
        }

        // Compare with the model.
        const timeout_t cur = timeouts_now(T);
        ASSERT_EQ(timeouts_expired(T), !expiredModel.empty()) << "op " << op;
        ASSERT_EQ(timeouts_pending(T), !pendingModel.empty()) << "op " << op;
        const timeout_t t = timeouts_timeout(T);
        if (!expiredModel.empty()) {
            ASSERT_EQ(t, 0u) << "op " << op;
        } else if (pendingModel.empty()) {
            ASSERT_EQ(t, TIMEOUT_NEVER) << "op " << op;
        } else {
            const timeout_t exact = pendingModel.begin()->first - cur;
            ASSERT_GE(t, 1u) << "op " << op;
            ASSERT_LE(t, exact) << "timeouts_timeout overestimates, op " << op;
            if (((pendingModel.begin()->first ^ cur) >> kBits) == 0) {
                ASSERT_EQ(t, exact) << "level 0 must be exact, op " << op;
            }
        }
        if (op % 64 == 0) {
            ASSERT_TRUE(timeouts_check(T)) << "op " << op;
            for (size_t j = 0; j < kRecords; ++j) {
                ASSERT_EQ(timeout_pending(&recs[j]), model[j].state == ModelRec::pending) << j;
                ASSERT_EQ(timeout_expired(&recs[j]), model[j].state == ModelRec::expired) << j;
                ASSERT_EQ(recs[j].flags, flagsOf[j]) << j;
            }
        }
    }
    for (size_t j = 0; j < kRecords; ++j) {
        timeouts_del(T, &recs[j]);
    }
    EXPECT_FALSE(timeouts_pending(T));
    EXPECT_FALSE(timeouts_expired(T));
}
