#include <Velik/ConstStringCache.h>

#include "foundation/ThrowingAsserts.h"

#include <gtest/gtest.h>

#include <optional>
#include <sstream>
#include <unordered_map>

namespace {

using Velik::ConstStringCache;
using Velik::ConstStringRef;

TEST(ConstStringCache, InterningSharesOneElementUntilTheLastReferenceGoes) {
    ConstStringCache cache;
    std::optional<ConstStringRef> first = cache.intern("reader");
    std::optional<ConstStringRef> second = cache.intern(std::string("reader"));
    EXPECT_EQ(first->elem(), second->elem());
    EXPECT_EQ(first->elem()->refCount(), 2u);
    EXPECT_EQ(cache.size(), 1u);

    first.reset();
    EXPECT_EQ(second->elem()->refCount(), 1u);
    second.reset();
    EXPECT_EQ(cache.size(), 0u);

    ConstStringRef again = cache.intern("reader");
    EXPECT_EQ(again.elem()->refCount(), 1u);
    EXPECT_EQ(cache.size(), 1u);
}

TEST(ConstStringCache, CopiesMovesAndAssignmentKeepCountsRight) {
    ConstStringCache cache;
    ConstStringRef a = cache.intern("a");
    ConstStringRef b = cache.intern("b");
    {
        ConstStringRef copy = a;
        EXPECT_EQ(a.elem()->refCount(), 2u);
        ConstStringRef moved = std::move(copy);
        EXPECT_TRUE(copy.isNull());
        EXPECT_EQ(a.elem()->refCount(), 2u);
        moved = b;  // releases a, references b
        EXPECT_EQ(a.elem()->refCount(), 1u);
        EXPECT_EQ(b.elem()->refCount(), 2u);
    }
    b = a;  // last reference to "b": erased
    EXPECT_EQ(cache.size(), 1u);
    EXPECT_EQ(a.elem()->refCount(), 2u);
}

TEST(ConstStringCache, TextEqualityHashAndFormatting) {
    ConstStringCache one, two;
    ConstStringRef x1 = one.intern("x");
    ConstStringRef x2 = two.intern("x");
    ConstStringRef y = one.intern("y");
    EXPECT_TRUE(x1 == x2);  // different caches, same text
    EXPECT_FALSE(x1 == y);
    EXPECT_EQ(ConstStringRef().str(), "");
    EXPECT_EQ(fmt::format("<{}>", y), "<y>");
    std::ostringstream out;
    out << x1;
    EXPECT_EQ(out.str(), "x");

    std::unordered_map<ConstStringRef, int> table;
    table[x1] = 1;
    table[x2] += 1;
    EXPECT_EQ(table.size(), 1u);
    EXPECT_EQ(table[x1], 2);
}

TEST(ConstStringCache, ThreadCacheIsOnePerThread) {
    ConstStringRef a = ConstStringCache::forThisThread().intern("threadName");
    ConstStringRef b = ConstStringCache::forThisThread().intern("threadName");
    EXPECT_EQ(a.elem(), b.elem());
    EXPECT_EQ(a.elem()->cache(), &ConstStringCache::forThisThread());
}

TEST(ConstStringCacheDeathTest, DestroyingWithOpenReferencesAborts) {
    EXPECT_DEATH(
        {
            auto* cache = new ConstStringCache;
            auto* held = new ConstStringRef(cache->intern("held"));
            (void)held;
            delete cache;
        },
        "ConstStringCache:.*Destroying ConstStringCache with open references");
}

TEST(ConstStringCacheDeathTest, ReleasingAnUnreferencedElementAborts) {
    EXPECT_DEATH(
        {
            ConstStringCache cache;
            ConstStringRef::Elem stray(&cache, "stray");
            stray.refCountDec();
        },
        "ConstStringCache:.*refCountDec.*refCount already 0");
}

}  // namespace
