// Reference-counted framework objects and the intrusive smart pointer that
// holds them.
//
// A framework object derives from `Kiv::PtrInterface`, which carries the
// reference count; `Kiv::Ptr<T>` adds and drops references and deletes the
// object when the last one goes. Objects are created on the heap and start
// with no references:
//
//   Kiv::Ptr<Kiv::FileDescriptor> fd = Kiv::FileDescriptor::create("input");
//
// Counting is atomic by default, so pointers to one object may be copied and
// dropped on several threads at once. A single-threaded process may switch to
// plain counting with `threadSafePointersIs(false)`; this is meant to be done
// at start-up, before any other thread shares framework objects.
#pragma once

#include <atomic>
#include <cstddef>
#include <utility>

namespace Kiv {

// Switches reference counting of every framework object between atomic
// read-modify-write operations (`true`, the default) and plain loads and
// stores (`false`). Either mode is well defined at any moment; plain counting
// only loses updates when two threads count the same object concurrently, so
// turn it off only while one thread owns all framework objects.
void threadSafePointersIs(bool threadSafe);

// Whether reference counting is currently atomic.
bool threadSafePointers();

namespace Impl {
extern std::atomic<bool> threadSafePointers;
}  // namespace Impl

// Base of every reference-counted framework object. The count is not copied:
// a copy of an object is a new object with no references.
class PtrInterface {
  public:
    PtrInterface() = default;
    PtrInterface(const PtrInterface&) noexcept {}
    PtrInterface& operator=(const PtrInterface&) noexcept { return *this; }

    // The number of `Ptr`s currently holding this object.
    long references() const noexcept { return references_.load(std::memory_order_relaxed); }

    // Adds a reference.
    void newRef() const noexcept {
        if (Impl::threadSafePointers.load(std::memory_order_relaxed)) {
            references_.fetch_add(1, std::memory_order_relaxed);
        } else {
            references_.store(references_.load(std::memory_order_relaxed) + 1,
                              std::memory_order_relaxed);
        }
    }

    // Drops a reference and deletes the object when it was the last one.
    void deleteRef() const noexcept {
        long left;
        if (Impl::threadSafePointers.load(std::memory_order_relaxed)) {
            left = references_.fetch_sub(1, std::memory_order_acq_rel) - 1;
        } else {
            left = references_.load(std::memory_order_relaxed) - 1;
            references_.store(left, std::memory_order_relaxed);
        }
        if (left == 0) {
            delete this;
        }
    }

  protected:
    virtual ~PtrInterface() = default;

  private:
    mutable std::atomic<long> references_{0};
};

// Intrusive smart pointer to a framework object `T` (a `PtrInterface`).
// Holds one reference while non-null. Not itself thread-safe: one `Ptr`
// variable must not be written by two threads at once.
template <class T>
class Ptr {
  public:
    Ptr() noexcept = default;
    Ptr(std::nullptr_t) noexcept {}
    // Takes a reference to `object`, which may already be held elsewhere.
    Ptr(T* object) noexcept : object_(object) { acquire(); }
    Ptr(const Ptr& other) noexcept : object_(other.object_) { acquire(); }
    Ptr(Ptr&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
    template <class U>
    Ptr(const Ptr<U>& other) noexcept : object_(other.get()) {
        acquire();
    }
    ~Ptr() { release(); }

    Ptr& operator=(const Ptr& other) noexcept {
        Ptr(other).swap(*this);
        return *this;
    }
    Ptr& operator=(Ptr&& other) noexcept {
        Ptr(std::move(other)).swap(*this);
        return *this;
    }

    // Drops the reference held, if any, and holds `object` instead.
    void reset(T* object = nullptr) noexcept { Ptr(object).swap(*this); }
    void swap(Ptr& other) noexcept { std::swap(object_, other.object_); }

    T* get() const noexcept { return object_; }
    T* operator->() const noexcept { return object_; }
    T& operator*() const noexcept { return *object_; }
    explicit operator bool() const noexcept { return object_ != nullptr; }

    friend bool operator==(const Ptr& a, const Ptr& b) noexcept { return a.object_ == b.object_; }
    friend bool operator==(const Ptr& a, std::nullptr_t) noexcept { return a.object_ == nullptr; }

  private:
    void acquire() const noexcept {
        if (object_) {
            object_->newRef();
        }
    }
    void release() noexcept {
        if (object_) {
            std::exchange(object_, nullptr)->deleteRef();
        }
    }

    T* object_ = nullptr;
};

}  // namespace Kiv
