#include "Kiv/FileDescriptor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <limits>
#include <memory>
#include <stdexcept>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"
#include "Kiv/System.h"

namespace {

constexpr double kNever = std::numeric_limits<double>::infinity();

Kiv::ActivityManagerConfig* config() {
    return Kiv::activityManager()->config();
}
std::size_t watchedCount() {
    return Kiv::activityManager()->mainLoop()->watchedCount();
}

// A descriptor notifiee running arbitrary actions and counting what it hears.
class Listener : public Kiv::FileDescriptor::Notifiee {
  public:
    explicit Listener(Kiv::FileDescriptor* fd) : Notifiee(fd) {}
    std::function<void()> onRead, onWrite;
    int reads = 0, writes = 0, orphans = 0;

    void onReadableCount() override {
        ++reads;
        if (onRead) {
            onRead();
        }
    }
    void onWritableCount() override {
        ++writes;
        if (onWrite) {
            onWrite();
        }
    }
    void onOrphan() override { ++orphans; }
};

class Pipe {
  public:
    Pipe() {
        if (pipe(fds_) != 0) {
            throw std::runtime_error("pipe");
        }
    }
    ~Pipe() {
        closeWriter();
        close(fds_[0]);
    }
    int reader() const { return fds_[0]; }
    void put(const char* text) { ASSERT_GT(write(fds_[1], text, strlen(text)), 0); }
    void closeWriter() {
        if (fds_[1] >= 0) {
            close(fds_[1]);
            fds_[1] = -1;
        }
    }

  private:
    int fds_[2];
};

class SocketPair {
  public:
    SocketPair() {
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds_) != 0) {
            throw std::runtime_error("socketpair");
        }
    }
    ~SocketPair() {
        close(fds_[0]);
        close(fds_[1]);
    }
    int local() const { return fds_[0]; }
    int remote() const { return fds_[1]; }

  private:
    int fds_[2];
};

// Virtual time with a bounded run, so a loop left with only a quiet descriptor
// to watch returns at once instead of blocking.
class FileDescriptorTest : public ::testing::Test {
  protected:
    void SetUp() override {
        config()->virtualTimeIs(true);
        config()->executionTimeIs(1.0);
    }
    void TearDown() override {
        config()->virtualTimeIs(false);
        config()->executionTimeIs(kNever);
        EXPECT_EQ(watchedCount(), 0u);
    }
};

TEST_F(FileDescriptorTest, ReadsAreLevelTriggeredWhileDataStaysUnread) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("PlatformFd");
    EXPECT_EQ(fd->name(), "PlatformFd");
    Listener listener(fd.get());
    listener.onRead = [&] {
        if (listener.reads == 3) {
            fd->notifyOnReadableIs(false);
        }
    };
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.put("x");
    config()->executionTimeIs(kNever);
    Kiv::System::doRun();  // returns once the interest is off: no work left
    EXPECT_EQ(listener.reads, 3);
    EXPECT_EQ(fd->readableCount(), 3u);
    EXPECT_EQ(watchedCount(), 0u);
}

TEST_F(FileDescriptorTest, ReadingTheDataStopsNotificationsUntilMoreArrives) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("reader");
    Listener listener(fd.get());
    std::string received;
    listener.onRead = [&] {
        char buffer[16];
        const ssize_t n = read(fd->descriptor(), buffer, sizeof buffer);
        ASSERT_GT(n, 0);
        received.append(buffer, static_cast<std::size_t>(n));
    };
    fd->notifyOnReadableIs(true);
    fd->descriptorIs(pipe.reader());
    pipe.put("abc");
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 1);
    pipe.put("de");
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 2);
    EXPECT_EQ(received, "abcde");
    fd->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, EndOfFileIsReadable) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("eof");
    Listener listener(fd.get());
    listener.onRead = [&] {
        char c;
        EXPECT_EQ(read(fd->descriptor(), &c, 1), 0);
        fd->descriptorIs(-1);
    };
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.closeWriter();
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 1);
}

TEST_F(FileDescriptorTest, WritesAreOneShotPerArming) {
    SocketPair sockets;
    auto fd = Kiv::FileDescriptor::create("writer");
    Listener listener(fd.get());
    fd->descriptorIs(sockets.local());
    fd->notifyOnWritableIs(true);
    Kiv::System::doRun();
    EXPECT_EQ(listener.writes, 1);
    EXPECT_EQ(fd->writableCount(), 1u);
    EXPECT_FALSE(fd->notifyOnWritable());
    EXPECT_EQ(watchedCount(), 0u);

    // Re-arming from the notification hears of the next writability.
    listener.onWrite = [&] {
        if (listener.writes < 4) {
            fd->notifyOnWritableIs(true);
        }
    };
    fd->notifyOnWritableIs(true);
    Kiv::System::doRun();
    EXPECT_EQ(listener.writes, 4);
    fd->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, ReadAndWriteInterestsTogether) {
    SocketPair sockets;
    ASSERT_EQ(write(sockets.remote(), "hi", 2), 2);
    auto fd = Kiv::FileDescriptor::create("both");
    Listener listener(fd.get());
    listener.onRead = [&] { fd->notifyOnReadableIs(false); };
    fd->notifyOnReadableIs(true);
    fd->notifyOnWritableIs(true);
    fd->descriptorIs(sockets.local());
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 1);
    EXPECT_EQ(listener.writes, 1);
    fd->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, InterestIsAppliedWhenADescriptorIsBoundAndDroppedWhenDetached) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("late");
    fd->notifyOnReadableIs(true);
    EXPECT_EQ(watchedCount(), 0u);
    fd->descriptorIs(pipe.reader());
    EXPECT_EQ(watchedCount(), 1u);
    EXPECT_TRUE(fcntl(pipe.reader(), F_GETFL) & O_NONBLOCK);
    fd->descriptorIs(-1);
    EXPECT_EQ(fd->descriptor(), -1);
    EXPECT_TRUE(fd->notifyOnReadable());
    EXPECT_EQ(watchedCount(), 0u);
    pipe.put("x");
    Kiv::System::doRun();
    EXPECT_EQ(fd->readableCount(), 0u);
}

TEST_F(FileDescriptorTest, RebindingMovesTheWatchToTheNewDescriptor) {
    Pipe first, second;
    auto fd = Kiv::FileDescriptor::create("moving");
    Listener listener(fd.get());
    listener.onRead = [&] { fd->descriptorIs(-1); };
    fd->notifyOnReadableIs(true);
    fd->descriptorIs(first.reader());
    fd->descriptorIs(second.reader());
    EXPECT_EQ(watchedCount(), 1u);
    first.put("ignored");
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 0);
    fd->descriptorIs(second.reader());
    second.put("seen");
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 1);
}

TEST_F(FileDescriptorTest, UnwatchableDescriptorsThrow) {
    auto fd = Kiv::FileDescriptor::create("bad");
    try {
        fd->descriptorIs(1000000);
        FAIL() << "no exception";
    } catch (const Kiv::SystemException& e) {
        EXPECT_EQ(e.error(), EBADF);
    }
    EXPECT_EQ(fd->descriptor(), -1);

    // epoll refuses regular files.
    FILE* file = tmpfile();
    ASSERT_NE(file, nullptr);
    fd->descriptorIs(fileno(file));
    try {
        fd->notifyOnReadableIs(true);
        FAIL() << "no exception";
    } catch (const Kiv::SystemException& e) {
        EXPECT_EQ(e.error(), EPERM);
    }
    fd->descriptorIs(-1);
    fclose(file);
}

TEST_F(FileDescriptorTest, TwoObjectsCannotWatchOneDescriptor) {
    Pipe pipe;
    auto a = Kiv::FileDescriptor::create("a");
    auto b = Kiv::FileDescriptor::create("b");
    a->notifyOnReadableIs(true);
    a->descriptorIs(pipe.reader());
    b->descriptorIs(pipe.reader());
    try {
        b->notifyOnReadableIs(true);
        FAIL() << "no exception";
    } catch (const Kiv::SystemException& e) {
        EXPECT_EQ(e.error(), EEXIST);
    }
    EXPECT_EQ(watchedCount(), 1u);
    b->descriptorIs(-1);
    a->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, ClosedAndReusedDescriptorNumberGoesToTheNewWatcher) {
    auto stale = Kiv::FileDescriptor::create("stale");
    int number;
    {
        Pipe old;
        number = old.reader();
        stale->notifyOnReadableIs(true);
        stale->descriptorIs(number);
    }  // closed without detaching
    Pipe fresh;
    ASSERT_EQ(fresh.reader(), number);
    auto current = Kiv::FileDescriptor::create("current");
    Listener listener(current.get());
    listener.onRead = [&] { current->descriptorIs(-1); };
    current->notifyOnReadableIs(true);
    current->descriptorIs(number);
    EXPECT_EQ(watchedCount(), 1u);
    stale.reset();  // must not end the new registration
    fresh.put("x");
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 1);
}

TEST_F(FileDescriptorTest, DroppingTheLastReferenceStopsWatchingAndOrphansNotifiees) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("orphaning");
    Listener first(fd.get()), second(fd.get());
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    EXPECT_EQ(fd->references(), 1);
    fd.reset();
    EXPECT_EQ(watchedCount(), 0u);
    EXPECT_EQ(first.orphans, 1);
    EXPECT_EQ(second.orphans, 1);
    EXPECT_EQ(first.notifier(), nullptr);
}

TEST_F(FileDescriptorTest, NotificationMayDestroyTheObjectAndOtherNotifiees) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("doomed");
    Listener first(fd.get());
    auto second = std::make_unique<Listener>(fd.get());
    Listener third(fd.get());
    second->onRead = [&] { ADD_FAILURE() << "destroyed notifiee notified"; };
    first.onRead = [&] {
        second.reset();
        fd.reset();  // the loop keeps the object alive until it is done with it
    };
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.put("x");
    Kiv::System::doRun();
    EXPECT_EQ(first.reads, 1);
    EXPECT_EQ(third.reads, 1);
    EXPECT_EQ(first.orphans, 1);
    EXPECT_EQ(third.orphans, 1);
    EXPECT_EQ(watchedCount(), 0u);
}

TEST_F(FileDescriptorTest, ExceptionFromANotificationLeavesDoRun) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("throwing");
    Listener listener(fd.get());
    listener.onRead = [&] {
        if (listener.reads == 1) {
            throw std::runtime_error("read failed");
        }
        fd->notifyOnReadableIs(false);
    };
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.put("x");
    EXPECT_THROW(Kiv::System::doRun(), std::runtime_error);
    EXPECT_EQ(fd->readableCount(), 1u);
    Kiv::System::doRun();
    EXPECT_EQ(listener.reads, 2);
    fd->descriptorIs(-1);
}

class Deferred : public Kiv::Clock::Notifiee {
  public:
    Deferred() : Notifiee(config()->clock()) {}
    std::function<void()> action;
    void onTime() override { action(); }
};

TEST_F(FileDescriptorTest, SelfRearmingCallbackDoesNotStarveDescriptors) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("starved?");
    Listener listener(fd.get());
    listener.onRead = [&] { fd->notifyOnReadableIs(false); };
    Deferred deferred;
    long rounds = 0;
    deferred.action = [&] {
        ++rounds;
        if (listener.reads == 0) {
            deferred.timeMinIs(0.0);
        }
    };
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.put("x");
    deferred.timeMinIs(0.0);
    config()->executionTimeIs(kNever);
    Kiv::System::doRun();  // would never return if the descriptor were starved
    EXPECT_EQ(listener.reads, 1);
    EXPECT_GE(rounds, 1);
    fd->descriptorIs(-1);
}

TEST_F(FileDescriptorTest, VirtualTimeServesReadyDescriptorsBeforeJumping) {
    Pipe pipe;
    auto fd = Kiv::FileDescriptor::create("before");
    Listener listener(fd.get());
    double readAt = 0, timerAt = 0;
    listener.onRead = [&] {
        readAt = Kiv::System::currentTime();
        fd->notifyOnReadableIs(false);
    };
    Deferred hour;
    hour.action = [&] { timerAt = Kiv::System::currentTime(); };
    const double start = Kiv::System::currentTime();
    hour.timeMinIs(start + 3600);
    fd->descriptorIs(pipe.reader());
    fd->notifyOnReadableIs(true);
    pipe.put("x");
    config()->executionTimeIs(kNever);
    Kiv::System::doRun();
    EXPECT_LT(readAt, start + 1);
    EXPECT_GE(timerAt, start + 3600);
    fd->descriptorIs(-1);
}

}  // namespace
