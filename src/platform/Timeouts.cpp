// Timeouts.cpp - the hierarchical, tickless timing wheel of Velik/Timeouts.h.
//
// See the header for contracts. Implementation notes:
// - Level k covers 6-bit digit k of a tick (shift 6k). A record on level k,
//   slot s, placed at current tick C, is due for processing when the current
//   tick first reaches R = ((C >> 6k) + d) << 6k with d = (s - digit_k(C))
//   mod 64, 1 <= d <= 63. Placement guarantees R <= expiry, so processing it
//   (expire or re-place lower) is never late; re-placing from a slot whose
//   digit was the expiry's own digit always lands on a lower level.
// - Lists are circular with a sentinel head per slot and one for the expired
//   list; a record stores its slot index so removal can clear the level's
//   occupancy bit when the slot empties.
// - A linked record is pending iff its expiry is later than its wheel's
//   current tick, and expired (on the expired list) otherwise. Level 0 slots
//   hold records of exactly one tick, so timeouts_update() moves a due level 0
//   slot to the expired list with one splice, without visiting its records
//   (their slot index is then stale, and unused).

#include "Velik/Timeouts.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <new>
#include <type_traits>

static_assert(TIMEOUTS_WHEEL_NUM >= 2 && TIMEOUTS_WHEEL_NUM <= 10,
              "TIMEOUTS_WHEEL_NUM must be 2..10 (64-bit ticks, 6 bits per level)");
static_assert(std::is_standard_layout_v<timeout>, "struct timeout must stay standard-layout");
static_assert(offsetof(timeout, node) == 0, "the link must be the record's first member");

namespace {

using Node = timeout_node;

constexpr int kBits = TIMEOUTS_WHEEL_BIT;
constexpr int kSlots = TIMEOUTS_WHEEL_SLOTS;
constexpr int kLevels = TIMEOUTS_WHEEL_NUM;
constexpr int kSlotMask = kSlots - 1;
constexpr int32_t kNoSlot = -1;
constexpr int32_t kExpiredSlot = kLevels * kSlots;  // set when added as expired
constexpr int kTop = kLevels - 1;

inline void listInit(Node* h) {
    h->next = h->prev = h;
}
inline bool listEmpty(const Node* h) {
    return h->next == h;
}

inline void listAppend(Node* h, Node* n) {
    n->prev = h->prev;
    n->next = h;
    h->prev->next = n;
    h->prev = n;
}

inline void listUnlink(Node* n) {
    n->prev->next = n->next;
    n->next->prev = n->prev;
    n->next = n->prev = nullptr;
}

// Moves every node of src (in order) to the tail of dst; src becomes empty.
inline void listSpliceTail(Node* dst, Node* src) {
    if (listEmpty(src)) {
        return;
    }
    Node* first = src->next;
    Node* last = src->prev;
    first->prev = dst->prev;
    dst->prev->next = first;
    last->next = dst;
    dst->prev = last;
    listInit(src);
}

inline timeout* recordOf(Node* n) {
    return reinterpret_cast<timeout*>(n);
}

inline int shiftOf(int level) {
    return level * kBits;
}

}  // namespace

struct timeouts {
    timeout_t curtime;
    timeout_t hz;
    uint64_t pending[kLevels];  // occupancy bitmap per level
    Node expired;
    Node slots[kLevels * kSlots];  // level-major: index = level * 64 + slot
};

namespace {

// Puts an unlinked record whose `expires` is set on the expired list or the
// right slot for the wheel's current tick.
inline void place(timeouts* T, timeout* to) {
    const timeout_t exp = to->expires;
    const timeout_t cur = T->curtime;
    to->timeouts = T;
    if (exp <= cur) {
        to->slot = kExpiredSlot;
        listAppend(&T->expired, &to->node);
        return;
    }
    // Highest differing digit; exp > cur so exp ^ cur != 0.
    int level = (63 - std::countl_zero(exp ^ cur)) / kBits;
    timeout_t digits;  // exp >> shift, clamped at the top level to 63 steps ahead
    if (level >= kTop) {
        level = kTop;
        const int sh = shiftOf(kTop);
        digits = std::min<timeout_t>(exp >> sh, (cur >> sh) + kSlotMask);
    } else {
        digits = exp >> shiftOf(level);
    }
    const int slot = static_cast<int>(digits & kSlotMask);
    const int32_t idx = level * kSlots + slot;
    to->slot = idx;
    listAppend(&T->slots[idx], &to->node);
    T->pending[level] |= uint64_t(1) << slot;
}

inline bool linked(const timeout* to) {
    return to->timeouts != nullptr;
}

// For a linked record: in a slot (else on the expired list).
inline bool inSlot(const timeout* to) {
    return to->expires > to->timeouts->curtime;
}

// Unlinks a linked record from its own wheel and makes it idle.
inline void unlinkRecord(timeout* to) {
    timeouts* T = to->timeouts;
    const bool wasInSlot = inSlot(to);
    const int32_t idx = to->slot;
    listUnlink(&to->node);
    if (wasInSlot && listEmpty(&T->slots[idx])) {
        T->pending[idx / kSlots] &= ~(uint64_t(1) << (idx & kSlotMask));
    }
    to->slot = kNoSlot;
    to->timeouts = nullptr;
}

}  // namespace

extern "C" {

timeout* timeout_init(timeout* to, int flags) {
    if (to == nullptr) {
        return nullptr;
    }
    to->node.next = to->node.prev = nullptr;
    to->expires = 0;
    to->timeouts = nullptr;
    to->slot = kNoSlot;
    to->flags = flags;
    return to;
}

bool timeout_pending(const timeout* to) {
    return to != nullptr && linked(to) && inSlot(to);
}

bool timeout_expired(const timeout* to) {
    return to != nullptr && linked(to) && !inSlot(to);
}

timeouts* timeouts_open(timeout_t hz, int* error) {
    if (hz == 0) {
        if (error != nullptr) {
            *error = EINVAL;
        }
        return nullptr;
    }
    auto* T = new (std::nothrow) timeouts;
    if (T == nullptr) {
        if (error != nullptr) {
            *error = ENOMEM;
        }
        return nullptr;
    }
    T->curtime = 0;
    T->hz = hz;
    for (auto& p : T->pending) {
        p = 0;
    }
    listInit(&T->expired);
    for (auto& s : T->slots) {
        listInit(&s);
    }
    return T;
}

void timeouts_close(timeouts* T) {
    if (T == nullptr) {
        return;
    }
    auto release = [](Node* h) {
        while (!listEmpty(h)) {
            timeout* to = recordOf(h->next);
            listUnlink(&to->node);
            to->slot = kNoSlot;
            to->timeouts = nullptr;
        }
    };
    for (auto& s : T->slots) {
        release(&s);
    }
    release(&T->expired);
    delete T;
}

timeout_t timeouts_hz(timeouts* T) {
    return T != nullptr ? T->hz : 0;
}

timeout_t timeouts_now(timeouts* T) {
    return T != nullptr ? T->curtime : 0;
}

void timeouts_update(timeouts* T, timeout_t abs_now) {
    if (T == nullptr || abs_now <= T->curtime) {
        return;
    }
    const timeout_t old = T->curtime;
    Node todo;
    listInit(&todo);
    // Collect every slot whose range the current tick enters in (old, abs_now],
    // lowest level first and each level in time order from the current digit,
    // so records come out roughly by time.
    for (int level = 0; level < kLevels; ++level) {
        const int sh = shiftOf(level);
        const timeout_t steps = (abs_now >> sh) - (old >> sh);
        if (steps == 0) {
            break;  // higher digits did not move either
        }
        const int first = static_cast<int>(((old >> sh) + 1) & kSlotMask);
        uint64_t mask;
        if (steps >= static_cast<timeout_t>(kSlots)) {
            mask = ~uint64_t(0);
        } else {
            mask = std::rotl((uint64_t(1) << steps) - 1, first);
        }
        const uint64_t due = T->pending[level] & mask;
        if (due == 0) {
            continue;
        }
        T->pending[level] &= ~due;
        // A level 0 slot holds exactly its own tick: all due, no re-placing.
        Node* dst = level == 0 ? &T->expired : &todo;
        for (uint64_t rot = std::rotr(due, first); rot != 0; rot &= rot - 1) {
            const int slot = (std::countr_zero(rot) + first) & kSlotMask;
            listSpliceTail(dst, &T->slots[level * kSlots + slot]);
        }
    }
    T->curtime = abs_now;
    while (!listEmpty(&todo)) {
        timeout* to = recordOf(todo.next);
        listUnlink(&to->node);
        place(T, to);
    }
}

void timeouts_add(timeouts* T, timeout* to, timeout_t t) {
    if (T == nullptr || to == nullptr) {
        return;
    }
    if (linked(to)) {
        unlinkRecord(to);
    }
    if ((to->flags & TIMEOUT_ABS) != 0) {
        to->expires = t;
    } else {
        const timeout_t cur = T->curtime;
        to->expires = (t > TIMEOUT_NEVER - cur) ? TIMEOUT_NEVER : cur + t;
    }
    place(T, to);
}

void timeouts_del(timeouts* /*T*/, timeout* to) {
    if (to != nullptr && linked(to)) {
        unlinkRecord(to);
    }
}

timeout* timeouts_get(timeouts* T) {
    if (T == nullptr || listEmpty(&T->expired)) {
        return nullptr;
    }
    timeout* to = recordOf(T->expired.next);
    listUnlink(&to->node);
    to->slot = kNoSlot;
    to->timeouts = nullptr;
    return to;
}

bool timeouts_expired(timeouts* T) {
    return T != nullptr && !listEmpty(&T->expired);
}

bool timeouts_pending(timeouts* T) {
    if (T == nullptr) {
        return false;
    }
    uint64_t any = 0;
    for (uint64_t p : T->pending) {
        any |= p;
    }
    return any != 0;
}

timeout_t timeouts_timeout(timeouts* T) {
    if (T == nullptr) {
        return TIMEOUT_NEVER;
    }
    if (!listEmpty(&T->expired)) {
        return 0;
    }
    const timeout_t cur = T->curtime;
    timeout_t best = TIMEOUT_NEVER;
    for (int level = 0; level < kLevels; ++level) {
        const uint64_t p = T->pending[level];
        if (p == 0) {
            continue;
        }
        const int sh = shiftOf(level);
        const int first = static_cast<int>(((cur >> sh) + 1) & kSlotMask);
        const timeout_t d = static_cast<timeout_t>(std::countr_zero(std::rotr(p, first))) + 1;
        // Start of that slot's range, minus the current tick (no overflow:
        // d << sh < 2^64 for sh <= 54, and the low bits are below d << sh).
        const timeout_t low = cur & ((timeout_t(1) << sh) - 1);
        best = std::min(best, (d << sh) - low);
    }
    return best;
}

size_t timeouts_footprint(void) {
    return sizeof(timeouts);
}

bool timeouts_check(timeouts* T) {
    if (T == nullptr) {
        return false;
    }
    const timeout_t cur = T->curtime;
    auto checkList = [&](Node* h, int32_t idx, auto&& perRecord) {
        Node* prev = h;
        for (Node* n = h->next; n != h; prev = n, n = n->next) {
            if (n == nullptr || n->prev != prev) {
                return false;
            }
            timeout* to = recordOf(n);
            // idx -2: the expired list, where slot indexes may be stale.
            if (to->timeouts != T || (idx != -2 && to->slot != idx) || !perRecord(to)) {
                return false;
            }
        }
        return h->prev == prev;
    };
    for (int level = 0; level < kLevels; ++level) {
        const int sh = shiftOf(level);
        const int digit = static_cast<int>((cur >> sh) & kSlotMask);
        for (int slot = 0; slot < kSlots; ++slot) {
            Node* h = &T->slots[level * kSlots + slot];
            const bool bit = ((T->pending[level] >> slot) & 1) != 0;
            if (bit == listEmpty(h)) {
                return false;
            }
            const timeout_t d = static_cast<timeout_t>((slot - digit) & kSlotMask);
            const bool ok = checkList(h, level * kSlots + slot, [&](timeout* to) {
                if (to->expires <= cur || d == 0) {
                    return false;
                }
                // The slot is processed at rangeStart; it must not be later
                // than the expiry.
                const timeout_t rangeStart = ((cur >> sh) + d) << sh;
                if (rangeStart > to->expires) {
                    return false;
                }
                // Below the top level the expiry lies within the slot's range.
                return level == kTop || (to->expires >> sh) == (rangeStart >> sh);
            });
            if (!ok) {
                return false;
            }
        }
    }
    return checkList(&T->expired, -2, [&](timeout* to) { return to->expires <= cur; });
}

}  // extern "C"
