// Only what the framework descriptor does beyond the control contract the
// adapter tests hold it to (persistent reads, one-shot writes, binding,
// detaching, exceptions through the loop).
#include "Kiv/FileDescriptor.h"

#include <gmock/gmock.h>

#include <cstring>

#include "Kiv/Exception.h"

#include "kiv/KivLoop.h"
#include "platform/Pipe.h"

namespace {

using namespace KivTest;
using Pair = VelikTest::Pipe;

struct Listener : Kiv::FileDescriptor::Notifiee {
    using Notifiee::Notifiee;
    std::function<void()> onRead = [] {}, onWrite = [] {};
    int orphans = 0;
    void onReadableCount() override { onRead(); }
    void onWritableCount() override { onWrite(); }
    void onOrphan() override { ++orphans; }
};

// Runs end after a second of framework time, so that a descriptor the loop
// misses fails the test instead of blocking it.
struct FileDescriptorTest : LoopTest {
    void SetUp() override { LoopTest::SetUp(), config()->executionTimeIs(1.0); }
};

TEST_F(FileDescriptorTest, WriteInterestIsUsedUpBeforeTheNotificationThatRenewsIt) {
    Pair sockets(true);
    sockets.put();
    auto fd = Kiv::FileDescriptor::create("both");
    Listener listener(fd.get());
    listener.onRead = [&] { fd->notifyOnReadableIs(false); };
    listener.onWrite = [&] {
        EXPECT_FALSE(fd->notifyOnWritable());
        fd->notifyOnWritableIs(fd->writableCount() < 3);
    };
    fd->notifyOnReadableIs(true);
    fd->notifyOnWritableIs(true);
    fd->descriptorIs(sockets.fds[0]);
    Kiv::System::doRun();
    EXPECT_EQ(std::pair(fd->readableCount(), fd->writableCount()), std::pair(1ul, 3ul));
    fd->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, RefusedDescriptorThrowsItsErrorAndStaysUnbound) {
    auto fd = Kiv::FileDescriptor::create("a");
    using testing::Property;
    EXPECT_THAT([&] { fd->descriptorIs(1000000); },
                testing::Throws<Kiv::SystemException>(testing::AllOf(
                    Property(&Kiv::SystemException::error, EBADF),
                    Property(&Kiv::SystemException::what,
                             testing::StrEq("FileDescriptor a: descriptor 1000000: " +
                                            std::string(std::strerror(EBADF)))))));
    EXPECT_EQ(fd->descriptor(), -1);
}

// The loop cannot see a descriptor closed under its watcher; a new watcher of
// the reused number takes the registration over, and the old one, dropped
// late, must not end it.
TEST_F(FileDescriptorTest, WatchFollowsRebindingAndReusedNumbers) {
    auto stale = Kiv::FileDescriptor::create("stale");
    int number;
    {
        Pair old;
        number = old.fds[0];
        stale->notifyOnReadableIs(true);
        stale->descriptorIs(number);
    }
    Pair fresh, other;
    ASSERT_EQ(fresh.fds[0], number);
    auto current = Kiv::FileDescriptor::create("current");
    Listener listener(current.get());
    listener.onRead = [&] { current->descriptorIs(-1); };
    current->notifyOnReadableIs(true);
    current->descriptorIs(other.fds[0]);
    current->descriptorIs(number);
    EXPECT_EQ(Kiv::activityManager()->mainLoop()->watchedCount(), 1u);
    stale.reset();
    other.put();
    fresh.put();
    Kiv::System::doRun();
    EXPECT_EQ(current->readableCount(), 1u);
}

// End of file is readable, and its notification may destroy the object and
// other notifiees: the loop keeps the object alive until it is done with it.
TEST_F(FileDescriptorTest, EndOfFileIsReadableAndItsNotificationMayDestroyTheObject) {
    Pair pipe;
    auto fd = Kiv::FileDescriptor::create("doomed");
    Listener first(fd.get()), third(fd.get());
    auto second = std::make_unique<Listener>(fd.get());
    second->onRead = [&] { ADD_FAILURE() << "destroyed notifiee notified"; };
    first.onRead = [&] {
        char c;
        EXPECT_EQ(read(fd->descriptor(), &c, 1), 0);
        second.reset();
        fd.reset();
    };
    int thirdReads = 0;
    third.onRead = [&] { ++thirdReads; };
    fd->descriptorIs(pipe.fds[0]);
    fd->notifyOnReadableIs(true);
    pipe.closeEnd(1);
    Kiv::System::doRun();
    EXPECT_EQ(thirdReads, 1);
    EXPECT_EQ(first.orphans + third.orphans, 2);
    EXPECT_EQ(third.notifier(), nullptr);
}

}  // namespace
