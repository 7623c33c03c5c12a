#include <Velik/ConstStringCache.h>

#include <gtest/gtest.h>

#include <optional>

namespace {

using Velik::ConstStringCache;
using Velik::ConstStringRef;

TEST(ConstStringCache, OneElementPerTextUntilTheLastReferenceGoes) {
    ConstStringCache cache;
    std::optional<ConstStringRef> a = cache.intern("a");
    ConstStringRef b = cache.intern(std::string("b"));
    {
        ConstStringRef copy = cache.intern("a");
        EXPECT_EQ(copy.elem(), a->elem());
        ConstStringRef moved = std::move(copy);
        EXPECT_TRUE(copy.isNull());
        moved = b;  // releases a, references b
        EXPECT_EQ(a->elem()->refCount() * 10 + b.elem()->refCount(), 12u);
    }
    b = *a;  // the last reference to "b": erased
    EXPECT_EQ(cache.size(), 1u);
    b = ConstStringRef();
    a.reset();
    EXPECT_EQ(cache.size(), 0u);
    EXPECT_EQ(cache.intern("a").elem()->refCount(), 1u);  // a new element
}

TEST(ConstStringCache, EqualityAndHashGoByTextAcrossCaches) {
    ConstStringCache one, two;
    ConstStringRef x1 = one.intern("x");
    ConstStringRef x2 = two.intern("x");
    EXPECT_TRUE(x1 == x2 && !(x1 == one.intern("y")));
    EXPECT_EQ(std::hash<ConstStringRef>{}(x1), std::hash<ConstStringRef>{}(x2));
}

TEST(ConstStringCacheDeathTest, DestroyingWithOpenReferencesOrReleasingTooOftenAborts) {
    EXPECT_DEATH(
        {
            auto* cache = new ConstStringCache;
            new ConstStringRef(cache->intern("held"));
            delete cache;
        },
        "ConstStringCache:.*Destroying ConstStringCache with open references");
    EXPECT_DEATH(
        {
            ConstStringCache cache;
            ConstStringRef::Elem stray(&cache, "stray");
            stray.refCountDec();
        },
        "ConstStringCache:.*refCountDec.*refCount already 0");
}

}  // namespace
