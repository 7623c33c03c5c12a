// Asynchronous snapshot output through a pipe the test reads by hand: slow
// readers, vanished readers, and the blocking descriptor stream.
#include <Velik/FdToStream.h>
#include <Velik/SnapshotRenderJson.h>
#include <fcntl.h>
#include <signal.h>

#include "report/ReportFixture.h"

#include <sstream>

namespace {

using Velik::TaskPriority;

// The test's reads never wait, and a slow reader fills the buffer soon.
struct Pipe : VelikTest::Pipe {
    Pipe() {
        fcntl(fds[0], F_SETFL, O_NONBLOCK);
        fcntl(fds[1], F_SETPIPE_SZ, 4096);
    }
    // Up to `most` bytes of what is waiting.
    std::string read(std::size_t most) {
        std::string got(most, '\0');
        const ssize_t n = ::read(fds[0], got.data(), most);
        got.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
        return got;
    }
};

class AsyncJsonTest : public VelikTest::ReportTest {
  protected:
    void SetUp() override {
        ReportTest::SetUp();
        for (int i = 0; i < 200; ++i) {  // some 70 kB of JSON
            bulk.push_back(task(TaskPriority::low, "bulk" + std::to_string(i)));
        }
    }
    void TearDown() override {
        bulk.clear();
        ReportTest::TearDown();
    }

    // What a synchronous render of the same snapshots writes.
    static std::string documentOf(
        const std::vector<std::shared_ptr<const Velik::TaskSchedulerSnapshot>>& snaps) {
        std::ostringstream out;
        auto context = Velik::TaskScheduler::PrintContextIs(out);
        for (const auto& s : snaps) {
            s->renderJson(*context);
        }
        context.reset();
        return out.str();
    }

    // Runs the scheduler; whenever the writer waits for writability, reads
    // `chunk` bytes (none once `readerGone`) and reports the pipe writable.
    std::string pump(Velik::SnapshotRenderJsonTask& render, std::size_t chunk) {
        std::string out;
        for (int round = 0; round < 100000 && !render.done(); ++round) {
            runUntilIdle();
            auto& writer = *render.writeTask();
            if (!render.done() && writer.taskWatchWritable()) {
                out += pipe.fds[0] >= 0 ? pipe.read(chunk) : "";
                writer.writeFdEvent(writer.taskWatchFd());
            }
        }
        EXPECT_TRUE(render.done());
        return pipe.fds[0] >= 0 ? out + pipe.read(1 << 20) : out;
    }

    Pipe pipe;
    std::vector<std::shared_ptr<VelikTest::ProbeTask>> bulk;
    int doneCalls = 0;
};

TEST_F(AsyncJsonTest, SlowReaderGetsTheWholeDocumentInOrder) {
    std::vector<std::shared_ptr<const Velik::TaskSchedulerSnapshot>> snaps{
        root->snapshot(true, true, true), pool->snapshot(true, true, false)};
    root->taskTestYieldRatioIs(3);  // the writer also yields now and then
    auto render = root->snapshotRenderJsonAsync(pipe.fds[1], snaps, [&] { ++doneCalls; });
    EXPECT_EQ(pump(*render, 1000), documentOf(snaps));
    EXPECT_EQ(doneCalls, 1);
    auto& writer = *render->writeTask();
    EXPECT_EQ(writer.taskWatchFd(), -1);  // watching stopped at the end
    writer.writeStrIs("unwritten");
    EXPECT_ASSERT_TEXT(render->taskRunFromTest(), "Executing before previous write completed.");
}

TEST_F(AsyncJsonTest, VanishedReaderEndsTheWriteQuietlyWithoutSigpipe) {
    const auto before = signal(SIGPIPE, SIG_DFL);  // a SIGPIPE would kill the test
    auto render = root->snapshotRenderJsonAsync(pipe.fds[1], root->snapshot(true, true, true),
                                                [&] { ++doneCalls; });
    runUntilIdle();
    render->writeTask()->writeFdEvent(pipe.fds[1]);
    runUntilIdle();  // the buffer is full now
    EXPECT_EQ(pipe.read(15), R"({"schedulers":{)");
    pipe.closeEnd(0);
    pump(*render, 0);
    EXPECT_EQ(doneCalls, 1);                      // the completion still runs
    EXPECT_EQ(signal(SIGPIPE, before), SIG_DFL);  // the disposition was left alone
    sigset_t pending;
    sigpending(&pending);
    EXPECT_FALSE(sigismember(&pending, SIGPIPE));
}

TEST_F(AsyncJsonTest, WriteTaskMisuseAssertsAndABadDescriptorEndsTheWrite) {
    int completions = 0;
    auto writer = std::make_shared<Velik::SnapshotWriteJsonTask>(
        root, TaskPriority::low, "w", pipe.fds[1], [&] { ++completions; });
    writer->writeStrIs(std::string(10000, 'x'));
    EXPECT_ASSERT_TEXT(writer->writeStrIs("y"),
                       "Previous write not complete, at offset 0 of 10000");
    EXPECT_ASSERT_TEXT(writer->taskExecuteReadable(), "We never register for readable events");
    pipe.closeEnd(0);
    pipe.closeEnd(1);  // EBADF: dropped as a vanished reader is
    writer->scheduleTaskWritable();
    runUntilIdle();
    EXPECT_EQ(completions, 1);
    EXPECT_TRUE(writer->writeComplete());
}

TEST_F(AsyncJsonTest, BlockingStreamsRefuseNonBlockingDescriptors) {
    EXPECT_ASSERT_TEXT(Velik::FdToStream(pipe.fds[0], false),
                       fmt::format("FileDescriptor {} flags 0x{:x} is non-blocking, not supported",
                                   pipe.fds[0], fcntl(pipe.fds[0], F_GETFL)));

    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);  // a blocking write to a closed pipe only fails the stream
    close(fds[0]);
    Velik::FdToStream out(fds[1], true);
    out << std::string(100000, 'x') << std::flush;
    EXPECT_TRUE(out.bad());
}

}  // namespace
