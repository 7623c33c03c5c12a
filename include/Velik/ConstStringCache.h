// Interned, reference-counted constant strings.
//
// Task and scheduler names are copied into every history event and every
// statistics record; interning makes such a copy a pointer copy and a count
// increment, and lets a name outlive the task that gave it:
//
//   Velik::ConstStringRef name = Velik::ConstStringCache::forThisThread().intern("reader");
//   Velik::ConstStringRef copy = name;       // same element, count 2
//   fmt::print("{}\n", copy);                // reader
//
// The element is erased from its cache when its last reference goes. Counts
// are plain integers: a cache and its references belong to one thread.
#pragma once

#include <fmt/format.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <unordered_set>

namespace Velik {

class ConstStringCache;

// A reference to an interned string (or to a suffix of one), or to none (the
// empty string).
class ConstStringRef {
  public:
    // One interned string: its cache, its text and its reference count.
    class Elem {
      public:
        Elem(ConstStringCache* cache, std::string_view str) : cache_(cache), str_(str) {}

        const std::string& str() const { return str_; }
        ConstStringCache* cache() const { return cache_; }
        std::uint32_t refCount() const { return refCount_; }

        void refCountInc() const { ++refCount_; }
        // Lowers the count; at zero the element erases itself from its cache
        // (and is gone when this returns). Asserts when the count is already 0.
        void refCountDec() const {
            if (refCount_ > 1) [[likely]] {
                --refCount_;
                return;
            }
            refCountDecLast();
        }

      private:
        // The last reference goes (or none was left).
        void refCountDecLast() const;

        ConstStringCache* cache_;
        std::string str_;
        mutable std::uint32_t refCount_ = 0;
    };

    ConstStringRef() = default;
    // Takes a reference on `elem` (which may be null).
    explicit ConstStringRef(const Elem* elem) : ConstStringRef(elem, 0) {}
    ConstStringRef(const ConstStringRef& other) : ConstStringRef(other.elem(), other.skip()) {}
    ConstStringRef(ConstStringRef&& other) noexcept : bits_(other.bits_) { other.bits_ = 0; }
    ConstStringRef& operator=(const ConstStringRef& other) {
        if (bits_ != other.bits_) {
            ConstStringRef(other).swap(*this);
        }
        return *this;
    }
    ConstStringRef& operator=(ConstStringRef&& other) noexcept {
        ConstStringRef(std::move(other)).swap(*this);
        return *this;
    }
    void swap(ConstStringRef& other) noexcept { std::swap(bits_, other.bits_); }
    ~ConstStringRef() {
        if (const Elem* e = elem()) {
            e->refCountDec();
        }
    }

    // A reference to the same element that reads as its text without the
    // first `skip` bytes: one interned "N reader" serves "reader" too. At
    // most `maxSkip` bytes, and no more than the text holds (asserted).
    static constexpr std::size_t maxSkip = 7;
    ConstStringRef suffix(std::size_t skip) const;

    // The text; empty for a null reference.
    std::string_view view() const {
        const Elem* e = elem();
        return e ? std::string_view(e->str()).substr(skip()) : std::string_view();
    }
    // A copy of the text.
    std::string str() const { return std::string(view()); }
    // The text, NUL-terminated (a suffix of a string is one).
    const char* c_str() const {
        const Elem* e = elem();
        return e ? e->str().c_str() + skip() : "";
    }
    bool isNull() const { return bits_ == 0; }
    const Elem* elem() const { return reinterpret_cast<const Elem*>(bits_ & ~skipMask); }
    // How many leading bytes of the element's text this reference leaves out.
    std::size_t skip() const { return bits_ & skipMask; }

    // Equal texts. References to the same text of one cache compare by
    // pointer.
    friend bool operator==(const ConstStringRef& a, const ConstStringRef& b) {
        return a.bits_ == b.bits_ || a.view() == b.view();
    }

  private:
    // The skip lives in the low bits of the element's address, which its
    // alignment leaves free: a reference stays one word.
    static constexpr std::uintptr_t skipMask = maxSkip;
    static_assert(alignof(Elem) > maxSkip);

    ConstStringRef(const Elem* elem, std::size_t skip)
        : bits_(reinterpret_cast<std::uintptr_t>(elem) | (elem ? skip : 0)) {
        if (elem) {
            elem->refCountInc();
        }
    }

    std::uintptr_t bits_ = 0;
};

std::ostream& operator<<(std::ostream& stream, const ConstStringRef& ref);

// The set of interned strings. Destroying a cache while any of its strings is
// still referenced is an assertion: those references would dangle.
class ConstStringCache {
  public:
    ConstStringCache() = default;
    ConstStringCache(const ConstStringCache&) = delete;
    ConstStringCache& operator=(const ConstStringCache&) = delete;
    ~ConstStringCache();

    // A reference to the element with the bytes of `str`, created if needed.
    ConstStringRef intern(std::string_view str);

    // The number of distinct strings held.
    std::size_t size() const { return elems_.size(); }

    // The calling thread's cache, which every scheduler of the thread uses.
    // Created on first use; destroyed when the thread ends.
    static ConstStringCache& forThisThread();

  private:
    friend class ConstStringRef::Elem;

    // Not throwing, so the set keeps no hash per element (8 bytes less per
    // name); rehashing recomputes it, which is rare.
    struct ElemHash {
        using is_transparent = void;
        std::size_t operator()(std::string_view s) const noexcept {
            return std::hash<std::string_view>()(s);
        }
        std::size_t operator()(const ConstStringRef::Elem& e) const noexcept {
            return (*this)(e.str());
        }
    };
    struct ElemEqual {
        using is_transparent = void;
        static std::string_view view(std::string_view s) { return s; }
        static std::string_view view(const ConstStringRef::Elem& e) { return e.str(); }
        template <typename A, typename B>
        bool operator()(const A& a, const B& b) const {
            return view(a) == view(b);
        }
    };

    // Removes `elem`, whose count has reached 0. Asserts when it is not here.
    void eraseElem(const ConstStringRef::Elem& elem);

    std::unordered_set<ConstStringRef::Elem, ElemHash, ElemEqual> elems_;
};

}  // namespace Velik

template <>
struct std::hash<Velik::ConstStringRef> {
    std::size_t operator()(const Velik::ConstStringRef& ref) const {
        return std::hash<std::string_view>()(ref.view());
    }
};

template <>
struct fmt::formatter<Velik::ConstStringRef> : fmt::formatter<fmt::string_view> {
    template <typename Context>
    auto format(const Velik::ConstStringRef& ref, Context& context) const {
        const std::string_view text = ref.view();
        return fmt::formatter<fmt::string_view>::format(fmt::string_view(text.data(), text.size()),
                                                        context);
    }
};
