// The timing-wheel library (Velik/Timeouts.h): a randomized run against a
// brute-force model, which reaches every level boundary and wrap-around, and
// the misuse it cannot reach.
#include "Velik/Timeouts.h"

#include <gtest/gtest.h>

#include <map>
#include <random>

namespace {

constexpr int kBits = TIMEOUTS_WHEEL_BIT;
constexpr int kLevels = TIMEOUTS_WHEEL_NUM;
// Ticks covered below the top level's wrap: 64^levels.
constexpr timeout_t kRange = timeout_t(1) << (kBits * kLevels);
constexpr timeout_t kTopUnit = timeout_t(1) << (kBits * (kLevels - 1));
constexpr timeout_t kDay = 100ull * 60 * 60 * 24;  // ticks per day at 100 Hz

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

}  // namespace

// What the model below cannot reach: a record moved to another wheel
// leaves the first (no dangling link), and is deleted from its own wheel
// whichever the caller names.
TEST(Timeouts, MovesBetweenWheels) {
    Wheel a = openWheel(), b = openWheel();
    timeout rec;
    timeouts_add(a.get(), timeout_init(&rec, 0), 70);
    timeouts_add(b.get(), &rec, 70);
    EXPECT_TRUE(!timeouts_pending(a.get()) && timeouts_pending(b.get()));
    timeouts_del(a.get(), &rec);
    EXPECT_FALSE(timeouts_pending(b.get()));
}

// Random adds (relative and absolute), re-adds, deletes, updates (forwards
// by every reach and by the wheel's own estimate) and gets, checked after
// every step against a model: the set of expired records, pending and
// expired answers, timeouts_timeout never overestimating and exact on level
// 0, and same-tick arrival order. Closing the wheel at the end leaves every
// record idle.
TEST(Timeouts, RandomizedAgainstModel) {
    std::mt19937_64 rng(0x5eed1234);
    enum State { idle, pending, expired };
    struct Rec {
        timeout to;
        State state = idle;
        timeout_t expires = 0;
        uint64_t seq = 0;  // arrival number of the last add
        bool far = false;  // added beyond the top level's reach: no order promise
    };
    std::vector<Rec> recs(300);
    for (size_t i = 0; i < recs.size(); ++i) {
        timeout_init(&recs[i].to, (i % 2) ? TIMEOUT_ABS : 0);
    }
    Wheel w = openWheel();
    timeouts* T = w.get();
    uint64_t seq = 0;
    std::map<timeout_t, uint64_t> lastSeqGot;
    // The expired records' count and the earliest pending expiry (never: none
    // pending; no add reaches it).
    const auto model = [&] {
        std::pair<size_t, timeout_t> m{0, TIMEOUT_NEVER};
        for (const Rec& r : recs) {
            m.first += r.state == expired;
            m.second = r.state == pending ? std::min(m.second, r.expires) : m.second;
        }
        return m;
    };
    auto randomDelta = [&]() -> timeout_t {
        static const timeout_t spans[] = {3, 70, 70, 5000, 6000, 3 * kDay, 3 * kRange, 300000};
        const size_t pick = rng() % 10;
        if (pick < 8) {
            return rng() % spans[pick];
        }
        // Just around a level's span, or 63 spans ahead.
        const timeout_t b = timeout_t(1) << (kBits * (rng() % (kLevels + 1)));
        return (pick == 9 ? 63 : 1) * b - 1 + rng() % 3;
    };
    for (int op = 0; op < 30000; ++op) {
        SCOPED_TRACE(op);
        const timeout_t now = timeouts_now(T);
        Rec& r = recs[rng() % recs.size()];
        const unsigned kind = rng() % 100;
        if (kind < 45) {
            const timeout_t d = std::min(randomDelta(), TIMEOUT_NEVER - now);
            timeouts_add(T, &r.to, (r.to.flags & TIMEOUT_ABS) ? now + d : d);
            r.expires = now + d;
            r.seq = ++seq;
            r.far = (r.expires >> (kBits * (kLevels - 1))) - (now >> (kBits * (kLevels - 1))) >= 64;
            r.state = d == 0 ? expired : pending;
        } else if (kind < 60) {
            timeouts_del(T, &r.to);
            r.state = idle;
        } else if (kind < 85) {
            static const timeout_t reach[] = {64, 20000, kDay / 4, 2 * kTopUnit, 2 * kRange};
            const timeout_t t = timeouts_timeout(T);
            const unsigned how = rng() % 7;
            timeout_t target = now + 1 + rng() % reach[how % 5];
            if (how >= 5) {
                target = (t == 0 || t == TIMEOUT_NEVER) ? now + 1 : now + t;
            }
            timeouts_update(T, target);
            ASSERT_EQ(timeouts_now(T), target);
            for (Rec& each : recs) {
                each.state = each.state == pending && each.expires <= target ? expired : each.state;
            }
        } else {
            for (int k = static_cast<int>(rng() % 8); k > 0; --k) {
                timeout* to = timeouts_get(T);
                if (to == nullptr) {
                    ASSERT_EQ(model().first, 0u);
                    break;
                }
                Rec& got = *reinterpret_cast<Rec*>(to);  // the record's first member
                ASSERT_EQ(got.state, expired);
                ASSERT_LE(got.expires, timeouts_now(T));
                if (!got.far) {
                    auto [last, fresh] = lastSeqGot.try_emplace(got.expires, got.seq);
                    ASSERT_TRUE(fresh || last->second < got.seq) << "same-tick order";
                    last->second = got.seq;
                }
                got.state = idle;
            }
        }

        const timeout_t cur = timeouts_now(T);
        const auto [expiredCount, first] = model();
        ASSERT_EQ(timeouts_expired(T), expiredCount > 0);
        ASSERT_EQ(timeouts_pending(T), first != TIMEOUT_NEVER);
        const timeout_t t = timeouts_timeout(T);
        if (expiredCount > 0 || first == TIMEOUT_NEVER) {
            ASSERT_EQ(t, expiredCount > 0 ? 0 : TIMEOUT_NEVER);
        } else {
            ASSERT_GE(t, 1u);
            ASSERT_LE(t, first - cur) << "overestimates";
            if (((first ^ cur) >> kBits) == 0) {
                ASSERT_EQ(t, first - cur) << "level 0 must be exact";
            }
        }
        ASSERT_TRUE(op % 64 != 0 || timeouts_check(T));
    }
    w.reset();
    for (const Rec& each : recs) {
        EXPECT_FALSE(timeout_pending(&each.to) || timeout_expired(&each.to));
    }
}
