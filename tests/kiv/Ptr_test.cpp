#include "Kiv/Ptr.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

namespace {

class Counted : public Kiv::PtrInterface {
  public:
    explicit Counted(int* destroyed) : destroyed_(destroyed) {}

  protected:
    ~Counted() override { ++*destroyed_; }

  private:
    int* destroyed_;
};

// The same lifetime in both counting modes.
TEST(PtrTest, LastReferenceDeletesTheObject) {
    for (bool threadSafe : {false, true}) {
        Kiv::threadSafePointersIs(threadSafe);
        int destroyed = 0;
        Kiv::Ptr<Counted> a(new Counted(&destroyed));
        {
            Kiv::Ptr<Counted> b = a;
            Kiv::Ptr<Counted> c = std::move(b);
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
    std::vector<std::thread> threads;
    std::atomic<int> started{0};
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&] {
            for (++started; started < 4;) {
            }  // all at once, or they may take turns
            for (int i = 0; i < 400000; ++i) {
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

}  // namespace
