#include "Kiv/Ptr.h"

#include <gtest/gtest.h>

#include <thread>
#include <vector>

namespace {

class Counted : public Kiv::PtrInterface {
  public:
    explicit Counted(int* destroyed) : destroyed_(destroyed) {}

  protected:
    ~Counted() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

TEST(PtrTest, LastReferenceDeletesTheObject) {
    int destroyed = 0;
    Kiv::Ptr<Counted> a(new Counted(&destroyed));
    EXPECT_EQ(a->references(), 1);
    {
        Kiv::Ptr<Counted> b = a;
        EXPECT_EQ(a->references(), 2);
        Kiv::Ptr<Counted> c = std::move(b);
        EXPECT_EQ(b, nullptr);
        EXPECT_EQ(c, a);
        EXPECT_EQ(a->references(), 2);
    }
    EXPECT_EQ(a->references(), 1);
    Kiv::Ptr<Counted> raw(a.get());  // a raw pointer adds a reference too
    EXPECT_EQ(a->references(), 2);
    raw = nullptr;
    a = a;  // self-assignment keeps the object
    EXPECT_EQ(destroyed, 0);
    a.reset();
    EXPECT_EQ(destroyed, 1);
    EXPECT_FALSE(a);
}

TEST(PtrTest, AtomicCountingSurvivesConcurrentCopies) {
    ASSERT_TRUE(Kiv::threadSafePointers());  // the default
    int destroyed = 0;
    Kiv::Ptr<Counted> shared(new Counted(&destroyed));
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (int i = 0; i < 100000; ++i) {
                Kiv::Ptr<Counted> copy = shared;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(shared->references(), 1);
    shared.reset();
    EXPECT_EQ(destroyed, 1);
}

TEST(PtrTest, PlainCountingCountsTheSameOnOneThread) {
    int destroyed = 0;
    Kiv::Ptr<Counted> a(new Counted(&destroyed));
    Kiv::threadSafePointersIs(false);
    EXPECT_FALSE(Kiv::threadSafePointers());
    {
        Kiv::Ptr<Counted> b = a, c = a;
        EXPECT_EQ(a->references(), 3);
    }
    // Switching back with references outstanding is safe: one counter.
    Kiv::threadSafePointersIs(true);
    EXPECT_EQ(a->references(), 1);
    a.reset();
    EXPECT_EQ(destroyed, 1);
}

}  // namespace
