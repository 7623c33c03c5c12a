/*
 * Velik/Timeouts.h - libKivVelik's hierarchical, tickless timing wheel.
 *
 * A self-contained C-style library (C and C++ callers; C++ implementation in
 * src/platform/Timeouts.cpp, no dependency on the rest of libKivVelik). The
 * TimerWheel uses it with absolute ticks at 100 ticks per second, keeping its
 * own state in the user flag bits.
 *
 * Model
 * -----
 * Time is counted in ticks (timeout_t, unsigned 64 bits). A wheel has a
 * current tick (0 when opened) that only the caller moves, with
 * timeouts_update(). The wheel is tickless: nothing runs between calls, and a
 * call may advance it by any amount (one tick or years) at a cost that does
 * not depend on the size of the jump.
 *
 * A timer is a `struct timeout` record embedded in the caller's object; the
 * library never allocates per timer. A record is in exactly one of three
 * states:
 *   - idle: not known to any wheel (after timeout_init, timeouts_del,
 *     timeouts_get, or timeouts_close of its wheel);
 *   - pending: in the wheel, its expiry tick later than the current tick;
 *   - expired: on the wheel's expired list, waiting for timeouts_get().
 * A record belongs to at most one wheel at a time. The caller must keep a
 * record alive (and not move or copy it) while it is pending or expired, and
 * must not timeout_init() it in those states.
 *
 * Flags (the public `flags` field of struct timeout, set by timeout_init):
 *   TIMEOUT_INT  0x01  reserved for interval timers; interval timers are NOT
 *                      supported: the bit is ignored and the timer is one-shot.
 *   TIMEOUT_ABS  0x02  the tick given to timeouts_add() is absolute, not
 *                      relative to the wheel's current tick.
 *   0x04 to 0x20       TIMEOUT_USER_BITS: reserved for the user (TimerWheel
 *                      keeps its state there). The library never writes them.
 * The library writes `flags` only in timeout_init(), and otherwise only reads
 * TIMEOUT_ABS (in timeouts_add); every other bit is the caller's business.
 *
 * Design
 * ------
 * TIMEOUTS_WHEEL_NUM levels (default 6) of 64 slots each (6 bits per level),
 * i.e. 2^36 ticks, about 21.8 years at 100 Hz, before the top level wraps.
 * A pending timer with expiry E, placed while the current tick is C, goes to
 * the level k of the highest 6-bit digit in which E and C differ, at the slot
 * given by E's digit k; so all timers of a slot share the same 64^k-tick range
 * and a slot is processed ("cascaded") when the current tick enters its range:
 * its timers are then expired or re-placed on a lower level. Beyond the top
 * level's range (E's top digit more than 63 steps ahead) a timer is parked in
 * the top-level slot that the current tick enters last (63 steps ahead) and is
 * re-placed from there, so any 64-bit expiry is handled correctly.
 *
 * Every slot is an intrusive doubly-linked list (two pointers in the record),
 * and every level has a 64-bit occupancy bitmap. timeouts_update() computes,
 * per level, the mask of slots whose range the current tick entered, and moves
 * whole slot lists (O(1) splices) using count-trailing-zeros on the masked
 * bitmap; it never walks ticks. timeouts_timeout() rotates each bitmap to the
 * current digit and takes count-trailing-zeros.
 *
 * Complexity (L = TIMEOUTS_WHEEL_NUM):
 *   timeout_init, timeouts_add, timeouts_del, timeouts_get,
 *   timeouts_expired                               O(1)
 *   timeouts_pending, timeouts_timeout             O(L)
 *   timeouts_update                                O(L + timers cascaded);
 *       due level-0 slots join the expired list with one splice each, so a
 *       timer is visited at most L-1 times in its life (plus once per
 *       2^36-tick top rotation for timers beyond the wheel's range).
 *   timeouts_open                                  O(L * 64)
 *   timeouts_close                                 O(L * 64 + timers still in it)
 * Memory: sizeof(struct timeout) per timer (40 bytes on LP64) plus one fixed
 * struct timeouts per wheel (timeouts_footprint(), about 6 KiB).
 *
 * Order of timeouts_get(): timers are appended to the expired list in the
 * order they become due. Timers with the same expiry tick come out in the
 * order they were (last) added; the one exception is timers added more than
 * 63 top-level slots (~21 years at 100 Hz) ahead, which may come after
 * timers of the same tick added later. Timers of different ticks released by
 * one big timeouts_update() come out roughly by time (in slot order), not
 * sorted.
 *
 * Threads: a wheel and its records are not locked; use them from one thread
 * at a time.
 *
 * Misuse: no function aborts. NULL wheel or record arguments are ignored (or
 * give the "empty" answer); timeouts_update() to a tick earlier than the
 * current one does nothing; timeouts_del() of an idle record does nothing.
 */
#ifndef VELIK_TIMEOUTS_H
#define VELIK_TIMEOUTS_H

#include <stdbool.h>
#include <stddef.h>
#include <stdint.h>

/* Number of 6-bit levels; 2..10. Library and callers must agree (it only
 * matters to tests that probe level boundaries). */
#ifndef TIMEOUTS_WHEEL_NUM
#define TIMEOUTS_WHEEL_NUM 6
#endif
#define TIMEOUTS_WHEEL_BIT 6 /* 64 slots per level */
#define TIMEOUTS_WHEEL_SLOTS (1 << TIMEOUTS_WHEEL_BIT)

#define TIMEOUT_INT 0x01       /* reserved: interval timer (not supported)  */
#define TIMEOUT_ABS 0x02       /* timeouts_add() takes an absolute tick     */
#define TIMEOUT_USER_BITS 0x3c /* 0x04 to 0x20: the user's, never touched */

#ifdef __cplusplus
extern "C" {
#endif

typedef uint64_t timeout_t; /* ticks */

#define TIMEOUT_NEVER ((timeout_t) ~(timeout_t)0)

struct timeouts; /* opaque wheel */

/* Private: intrusive list link. */
struct timeout_node {
    struct timeout_node* next;
    struct timeout_node* prev;
};

/* One timer record. Only `flags` is public; the rest is the library's. */
struct timeout {
    struct timeout_node node;  /* private: slot or expired-list link        */
    timeout_t expires;         /* private: absolute expiry tick             */
    struct timeouts* timeouts; /* private: owning wheel, NULL when idle     */
    int32_t slot;              /* private: slot index while pending         */
    int flags;                 /* public: TIMEOUT_* and the user's bits     */
};

/* Makes `to` an idle record with the given flags (stored as given, user bits
 * included) and returns `to`. Do not call it on a pending or expired record. */
struct timeout* timeout_init(struct timeout* to, int flags);

/* true if `to` is in a wheel and not yet expired. */
bool timeout_pending(const struct timeout* to);

/* true if `to` is on a wheel's expired list (due, not yet taken by get). */
bool timeout_expired(const struct timeout* to);

/* The absolute tick `to` was last added for; meaningful while it is pending
 * or expired. Inline: a caller deciding whether to move a record reads it
 * from the record it is about to touch anyway. */
static inline timeout_t timeout_expires(const struct timeout* to) {
    return to->expires;
}

/* Opens a wheel whose current tick is 0. `hz` is the caller's tick rate
 * (ticks per second; informational, must be non-zero). On failure returns NULL
 * and, if `error` is not NULL, sets *error to an errno value (EINVAL for hz 0,
 * ENOMEM). On success *error is left alone. */
struct timeouts* timeouts_open(timeout_t hz, int* error);

/* Closes the wheel. Records still pending or expired in it become idle (they
 * are unlinked, not freed; they stay the caller's). NULL is ignored. */
void timeouts_close(struct timeouts* T);

/* The tick rate given to timeouts_open. */
timeout_t timeouts_hz(struct timeouts* T);

/* The wheel's current tick. */
timeout_t timeouts_now(struct timeouts* T);

/* Advances the current tick to `abs_now` (absolute). Every pending record
 * whose expiry is not later than abs_now moves to the expired list; others
 * cascade to lower levels as needed. abs_now earlier than the current tick is
 * ignored (the wheel never goes backwards). */
void timeouts_update(struct timeouts* T, timeout_t abs_now);

/* Adds (or moves: a pending or expired record is first removed from wherever
 * it is, even another wheel) `to` to expire at tick `t`: absolute if
 * to->flags has TIMEOUT_ABS, else relative to the current tick (saturating at
 * TIMEOUT_NEVER, the largest tick, which is still a valid expiry). A record
 * whose expiry is not later than the current tick goes straight to the end of
 * the expired list. */
void timeouts_add(struct timeouts* T, struct timeout* to, timeout_t t);

/* Removes `to` from its wheel (any level/slot, or the expired list) and makes
 * it idle. Safe on an idle record. The record's own wheel is used even if T
 * is another wheel. */
void timeouts_del(struct timeouts* T, struct timeout* to);

/* Pops the first expired record (it becomes idle), or NULL when none. */
struct timeout* timeouts_get(struct timeouts* T);

/* true if an expired record waits for timeouts_get. */
bool timeouts_expired(struct timeouts* T);

/* true if a record is pending (in the wheel, not yet expired). */
bool timeouts_pending(struct timeouts* T);

/* Ticks from the current tick to the next pending expiry: 0 if an expired
 * record waits, TIMEOUT_NEVER (~0) if nothing is pending, else a value >= 1.
 * Exact for timers on level 0 (less than 64 ticks away, in the current 64-tick
 * block); for timers on a higher level it is the distance to the start of
 * their slot's range, an underestimate. It never overestimates: advancing by
 * it never passes an expiry, and each step of (update by it, get, timeout)
 * reaches an expiry or a slot cascade, so repeating it reaches every expiry
 * on its exact tick. */
timeout_t timeouts_timeout(struct timeouts* T);

/* sizeof(struct timeouts): the fixed memory of one wheel, in bytes. */
size_t timeouts_footprint(void);

/* Self-check for tests: walks every list and verifies bitmaps, back links,
 * owners and placement invariants. O(timers). true if consistent. */
bool timeouts_check(struct timeouts* T);

#ifdef __cplusplus
}
#endif

#endif /* VELIK_TIMEOUTS_H */
