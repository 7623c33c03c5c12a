#include "Keyspace.h"

#include <fmt/format.h>

#include <algorithm>
#include <bit>
#include <charconv>
#include <chrono>
#include <limits>

namespace VelikRedis {

namespace {

// A value INCR accepts: what it would have printed itself (no sign but a
// leading minus, no blanks, no leading zeros).
bool parseInteger(std::string_view text, std::int64_t& value) {
    if (text.empty() || text.size() > 20) {
        return false;
    }
    const char* end = text.data() + text.size();
    const auto [ptr, ec] = std::from_chars(text.data(), end, value);
    return ec == std::errc() && ptr == end && fmt::format_int(value).str() == text;
}

}  // namespace

std::int64_t steadyMilliseconds() {
    return std::chrono::duration_cast<std::chrono::milliseconds>(
               std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

Keyspace::Keyspace(Clock clock, std::size_t stripes)
    : clock_(std::move(clock)),
      stripes_(std::bit_ceil(std::max<std::size_t>(stripes, 1))),
      mask_(stripes_.size() - 1) {}

Keyspace::Entry* Keyspace::live(Stripe& s, std::string_view key, std::int64_t now) {
    const auto it = s.map.find(key);
    if (it == s.map.end()) {
        return nullptr;
    }
    if (it->second.expiresAt != noExpiry && it->second.expiresAt <= now) {
        eraseEntry(s, it);
        return nullptr;
    }
    return &it->second;
}

void Keyspace::eraseEntry(
    Stripe& s, std::unordered_map<std::string, Entry, Hash, std::equal_to<>>::iterator it) {
    s.expiring -= it->second.expiresAt != noExpiry;
    s.map.erase(it);
}

void Keyspace::expiryChanged(Stripe& s, std::string_view key, Entry& entry,
                             std::int64_t expiresAt) {
    s.expiring += (expiresAt != noExpiry) - (entry.expiresAt != noExpiry);
    entry.expiresAt = expiresAt;
    if (expiresAt == noExpiry) {
        return;
    }
    if (s.due.size() > 2 * s.expiring + 1024) {  // mostly leftovers: rebuild
        decltype(s.due) fresh;
        for (const auto& [k, e] : s.map) {
            if (e.expiresAt != noExpiry && &e != &entry) {
                fresh.emplace(e.expiresAt, k);
            }
        }
        s.due.swap(fresh);
    }
    s.due.emplace(expiresAt, std::string(key));
}

bool Keyspace::setLocked(Stripe& s, std::string_view key, std::string_view value,
                         std::int64_t expiresAt, Condition condition, std::int64_t now) {
    Entry* entry = live(s, key, now);
    if ((condition == Condition::ifAbsent && entry) ||
        (condition == Condition::ifPresent && !entry)) {
        return false;
    }
    if (!entry) {
        entry = &s.map.try_emplace(std::string(key)).first->second;
    }
    entry->value.assign(value);
    if (entry->expiresAt != expiresAt) {
        expiryChanged(s, key, *entry, expiresAt);
    }
    return true;
}

bool Keyspace::set(std::string_view key, std::string_view value, std::int64_t expiresAt,
                   Condition condition) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    return setLocked(s, key, value, expiresAt, condition, clock_());
}

void Keyspace::setAll(std::span<const std::pair<std::string_view, std::string_view>> pairs) {
    std::vector<Stripe*> involved;
    for (const auto& pair : pairs) {
        involved.push_back(&stripe(pair.first));
    }
    std::sort(involved.begin(), involved.end());
    involved.erase(std::unique(involved.begin(), involved.end()), involved.end());
    for (Stripe* s : involved) {
        s->mutex.lock();
    }
    const std::int64_t now = clock_();
    for (const auto& [key, value] : pairs) {
        setLocked(stripe(key), key, value, noExpiry, Condition::always, now);
    }
    for (Stripe* s : involved) {
        s->mutex.unlock();
    }
}

bool Keyspace::erase(std::string_view key) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    const auto it = s.map.find(key);
    if (it == s.map.end()) {
        return false;
    }
    const bool wasLive = it->second.expiresAt == noExpiry || it->second.expiresAt > clock_();
    eraseEntry(s, it);
    return wasLive;
}

bool Keyspace::exists(std::string_view key) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    return live(s, key, clock_()) != nullptr;
}

Keyspace::IncrStatus Keyspace::increment(std::string_view key, std::int64_t delta,
                                         std::int64_t& result) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    Entry* entry = live(s, key, clock_());
    std::int64_t value = 0;
    if (entry && !parseInteger(entry->value, value)) {
        return IncrStatus::notInteger;
    }
    if (__builtin_add_overflow(value, delta, &result)) {
        return IncrStatus::overflow;
    }
    if (!entry) {
        entry = &s.map.try_emplace(std::string(key)).first->second;
    }
    const fmt::format_int digits(result);
    entry->value.assign(digits.data(), digits.size());
    return IncrStatus::ok;
}

bool Keyspace::expireAt(std::string_view key, std::int64_t expiresAt) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    const std::int64_t now = clock_();
    Entry* entry = live(s, key, now);
    if (!entry) {
        return false;
    }
    if (expiresAt <= now) {
        eraseEntry(s, s.map.find(key));
    } else {
        expiryChanged(s, key, *entry, expiresAt);
    }
    return true;
}

std::int64_t Keyspace::ttl(std::string_view key) {
    Stripe& s = stripe(key);
    std::lock_guard lock(s.mutex);
    const std::int64_t now = clock_();
    const Entry* entry = live(s, key, now);
    if (!entry) {
        return -2;
    }
    return entry->expiresAt == noExpiry ? -1 : entry->expiresAt - now;
}

Keyspace::Counts Keyspace::counts() const {
    Counts counts;
    for (const Stripe& s : stripes_) {
        std::lock_guard lock(s.mutex);
        counts.keys += s.map.size();
        counts.expiring += s.expiring;
    }
    return counts;
}

void Keyspace::clear() {
    for (Stripe& s : stripes_) {
        std::lock_guard lock(s.mutex);
        s.map.clear();
        s.due = {};
        s.expiring = 0;
    }
}

std::size_t Keyspace::sweep(std::size_t index, std::size_t budget) {
    Stripe& s = stripes_[index & mask_];
    std::lock_guard lock(s.mutex);
    const std::int64_t now = clock_();
    std::size_t removed = 0;
    for (std::size_t popped = 0; popped < budget && !s.due.empty() && s.due.top().first <= now;
         ++popped) {
        const auto it = s.map.find(s.due.top().second);
        if (it != s.map.end() && it->second.expiresAt == s.due.top().first) {
            eraseEntry(s, it);
            ++removed;
        }
        s.due.pop();  // removed, or a leftover of a key set again since
    }
    return removed;
}

}  // namespace VelikRedis
