// The keys and values every connection of every worker thread shares.
//
// One table, cut into stripes by a hash of the key, each stripe with its own
// lock: a request locks only its key's stripe, so two workers collide only
// when they touch the same stripe at the same moment, and a key set through
// one connection is seen at once by every other. (The alternative, a table
// per worker with requests for other workers' keys handed over through
// their inboxes, costs a thread hop and a wake-up per foreign key: at one
// request per round trip that is most of the work.)
//
// Expiry is kept in milliseconds of `Clock`, which tests replace. A key
// whose time has passed is gone for every reader at once (each access looks
// at the time: lazy expiry), and `sweep` frees the memory of keys nobody
// reads again: each stripe keeps its expiry times in a min-heap, and the
// sweep pops what is due. Entries of the heap left behind by a key set again
// or deleted are skipped when popped, and the heap is rebuilt when such
// leftovers outnumber the live keys.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <queue>
#include <span>
#include <string>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

namespace VelikRedis {

class Keyspace {
  public:
    // Milliseconds, monotonic.
    using Clock = std::function<std::int64_t()>;
    static constexpr std::int64_t noExpiry = 0;

    enum class Condition { always, ifAbsent, ifPresent };
    enum class IncrStatus { ok, notInteger, overflow };
    struct Counts {
        std::size_t keys = 0;
        std::size_t expiring = 0;  // keys with a time to live
    };

    // `stripes` is rounded up to a power of two.
    explicit Keyspace(Clock clock, std::size_t stripes = 256);

    std::int64_t now() const { return clock_(); }

    // Stores `value` at `key` unless `condition` says no; `expiresAt`
    // (absolute, `noExpiry` for none) replaces any earlier time to live.
    // Returns whether it stored.
    bool set(std::string_view key, std::string_view value, std::int64_t expiresAt,
             Condition condition = Condition::always);
    // Calls `use(value)` under the stripe's lock when the key is there;
    // returns whether it was.
    template <typename Use>
    bool read(std::string_view key, Use&& use) {
        Stripe& s = stripe(key);
        std::lock_guard lock(s.mutex);
        const Entry* entry = live(s, key, clock_());
        if (entry) {
            use(std::string_view(entry->value));
        }
        return entry != nullptr;
    }
    bool erase(std::string_view key);
    bool exists(std::string_view key);
    // Adds `delta` to the decimal integer at `key` (0 when absent), keeping
    // its time to live; `result` is the new value.
    IncrStatus increment(std::string_view key, std::int64_t delta, std::int64_t& result);
    // Sets the absolute expiry of an existing key; false when absent. A time
    // already past deletes the key (and still answers true).
    bool expireAt(std::string_view key, std::int64_t expiresAt);
    // Milliseconds left: -2 when absent, -1 when the key does not expire.
    std::int64_t ttl(std::string_view key);
    // Stores every (key, value) pair, as one step for every reader: the
    // stripes involved are locked together, in address order.
    void setAll(std::span<const std::pair<std::string_view, std::string_view>> pairs);

    Counts counts() const;
    void clear();

    // Looks at up to `budget` due times of stripe `index` and removes the
    // keys that have expired; returns how many it removed. Stripes are independent: workers sweep
    // disjoint sets.
    std::size_t sweep(std::size_t index, std::size_t budget);
    std::size_t stripeCount() const { return stripes_.size(); }

  private:
    struct Hash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const {
            return std::hash<std::string_view>()(s);
        }
    };
    struct Entry {
        std::string value;
        std::int64_t expiresAt = noExpiry;
    };
    using Due = std::pair<std::int64_t, std::string>;  // (expiry, key)
    struct alignas(64) Stripe {
        mutable std::mutex mutex;
        std::unordered_map<std::string, Entry, Hash, std::equal_to<>> map;
        std::priority_queue<Due, std::vector<Due>, std::greater<>> due;
        std::size_t expiring = 0;
    };

    Stripe& stripe(std::string_view key) { return stripes_[Hash()(key) & mask_]; }
    // The entry at `key` if present and not expired; an expired one is
    // removed on the way.
    Entry* live(Stripe& s, std::string_view key, std::int64_t now);
    // Records a new expiry of `entry` (at `key`), or its removal.
    void expiryChanged(Stripe& s, std::string_view key, Entry& entry, std::int64_t expiresAt);
    void eraseEntry(Stripe& s,
                    std::unordered_map<std::string, Entry, Hash, std::equal_to<>>::iterator it);
    bool setLocked(Stripe& s, std::string_view key, std::string_view value, std::int64_t expiresAt,
                   Condition condition, std::int64_t now);

    Clock clock_;
    std::vector<Stripe> stripes_;
    std::size_t mask_;
};

// Milliseconds of the steady clock.
std::int64_t steadyMilliseconds();

}  // namespace VelikRedis
