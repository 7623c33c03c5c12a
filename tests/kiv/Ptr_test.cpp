#include "Kiv/Ptr.h"

#include <gtest/gtest.h>

#include <thread>

namespace {

struct Counted : Kiv::PtrInterface {
    explicit Counted(int* destroyed) : destroyed(destroyed) {}
    ~Counted() override { ++*destroyed; }
    int* destroyed;
};

// The same lifetime in both counting modes.
TEST(PtrTest, LastReferenceDeletesTheObject) {
    for (bool threadSafe : {false, true}) {
        Kiv::threadSafePointersIs(threadSafe);
        int destroyed = 0;
        Kiv::Ptr<Counted> a(new Counted(&destroyed));
        {
            Kiv::Ptr<Counted> b = a, c = std::move(b);
            EXPECT_EQ(b, nullptr);
            Kiv::Ptr<Counted> raw(a.get());  // a raw pointer adds a reference too
            EXPECT_EQ(a->references(), 3);
        }
        a = a;
        EXPECT_EQ(a->references(), 1);
        a.reset();
        EXPECT_EQ(destroyed, 1);
    }
}

TEST(PtrTest, AtomicCountingSurvivesConcurrentCopies) {
    ASSERT_TRUE(Kiv::threadSafePointers());
    int destroyed = 0;
    Kiv::Ptr<Counted> shared(new Counted(&destroyed));
    std::atomic<int> started{0};
    {
        std::vector<std::jthread> threads(4);
        for (auto& thread : threads) {
            thread = std::jthread([&] {
                for (++started; started < 4;) {  // all at once, or they may take turns
                }
                for (int i = 0; i < 400000; ++i) {
                    Kiv::Ptr<Counted> copy = shared;
                }
            });
        }
    }
    shared.reset();
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
