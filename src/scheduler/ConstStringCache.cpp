#include "Velik/ConstStringCache.h"

#include "Velik/Assert.h"

namespace Velik {

namespace {

// The header-level source name, so messages read the same from every caller.
constexpr const char* sourceName = "ConstStringCache";

}  // namespace

void ConstStringRef::Elem::refCountDecLast() const {
    if (refCount_ == 0) [[unlikely]] {
        Impl::assertFailed(sourceName, __LINE__, true, "refCountDec", "ConstStringRef::Elem",
                           "refCount already 0 for {}", str_);
    }
    if (--refCount_ == 0) {
        // Destroys *this: nothing may touch a member afterwards.
        cache_->eraseElem(*this);
    }
}

ConstStringRef ConstStringRef::suffix(std::size_t skip) const {
    const std::size_t total = skip + this->skip();
    const std::size_t length = elem() ? elem()->str().size() : 0;
    if (total > maxSkip || total > length) [[unlikely]] {
        Impl::assertFailed(sourceName, __LINE__, true, __func__, "ConstStringRef",
                           "suffix skip {} of \"{}\"", skip, view());
    }
    return ConstStringRef(elem(), total);
}

std::ostream& operator<<(std::ostream& stream, const ConstStringRef& ref) {
    return stream << ref.view();
}

ConstStringCache::~ConstStringCache() {
    for (const ConstStringRef::Elem& elem : elems_) {
        if (elem.refCount() != 0) [[unlikely]] {
            Impl::assertFailed(sourceName, __LINE__, true, __func__, "ConstStringCache", "{}",
                               "Destroying ConstStringCache with open references");
        }
    }
}

ConstStringRef ConstStringCache::intern(std::string_view str) {
    auto found = elems_.find(str);
    if (found == elems_.end()) {
        found = elems_.emplace(this, str).first;
    }
    return ConstStringRef(&*found);
}

void ConstStringCache::eraseElem(const ConstStringRef::Elem& elem) {
    auto found = elems_.find(elem.str());
    if (found == elems_.end() || &*found != &elem) [[unlikely]] {
        Impl::assertFailed(sourceName, __LINE__, true, __func__, "ConstStringCache",
                           "element {} not in its cache", elem.str());
    }
    elems_.erase(found);
}

ConstStringCache& ConstStringCache::forThisThread() {
    static thread_local ConstStringCache cache;
    return cache;
}

}  // namespace Velik
