#include "Velik/FileLock.h"

#include <gmock/gmock.h>

#include "foundation/ChildProcess.h"
#include "foundation/ThrowingAsserts.h"
#include "util/Scratch.h"

namespace {

using Velik::Util::FileLock;
using VelikTest::assertMessageOf;

// Whether a forked child can take a lock on `directory`/d.lock.
bool childCanLock(VelikTest::Scratch& dir, const std::string& directory) {
    const auto child = VelikTest::runInChild(
        [&] { _exit(FileLock(*dir.handler, directory, "d.lock").lock(false) ? 0 : 1); });
    return WIFEXITED(child.status) && WEXITSTATUS(child.status) == 0;
}

TEST(FileLockTest, ExcludesEveryOtherOpenFileUntilReleased) {
    VelikTest::Scratch dir;
    const std::string lockDir = dir / "run/daemon";
    {
        // The first lock makes the directory and its parent.
        FileLock lock(*dir.handler, lockDir, "d.lock"), second(*dir.handler, lockDir, "d.lock");
        ASSERT_TRUE(lock.lock(false));
        const int fd = lock.fd();
        EXPECT_TRUE(lock.lock(true) && lock.fd() == fd);
        // A second open file conflicts, in this process as in any other.
        EXPECT_FALSE(lock.lock(false) || second.lock(true) || childCanLock(dir, lockDir));
        lock.release();
        EXPECT_TRUE(childCanLock(dir, lockDir));
        ASSERT_TRUE(lock.lock(false));
        lock.closeFd();  // drops the lock; re-entry no longer counts it
        EXPECT_TRUE(second.lock(false) && !lock.lock(true));
    }  // `second` released by its destructor; the file stays
    EXPECT_TRUE(childCanLock(dir, lockDir) && std::ifstream(lockDir + "/d.lock").good());
    EXPECT_FALSE(FileLock(*dir.handler, dir.path, "run").lock(false));  // a directory
}

TEST(FileLockTest, MisuseAssertsWithItsMessage) {
    VelikTest::Scratch dir;
    std::ofstream(dir / "file") << "x";
    auto& h = *dir.handler;
    EXPECT_EQ(assertMessageOf([&] { FileLock(h, dir.path, "a/b"); }),
              "FileLockCpp:32: FileLock::FileLock() unexpected '/' in filename: a/b");
    EXPECT_EQ(assertMessageOf([&] { FileLock(h, dir.path, "x").release(); }),
              "FileLockCpp:108: FileLock::release() attempting to release a lock that is not "
              "currently held. File:" +
                  dir / "x");
    EXPECT_EQ(assertMessageOf([&] { FileLock(h, dir / "file/sub", "x").lock(false); }),
              "FileLockCpp:60: FileLock::lock() unexpected mkpath() error Not a directory: " +
                  dir / "file/sub");
    // A child shares the parent's open file: unlocking there would free it.
    FileLock lock(h, dir.path, "d.lock");
    ASSERT_TRUE(lock.lock(false));
    const auto child = VelikTest::runInChild([&] { lock.release(); });
    EXPECT_TRUE(WIFSIGNALED(child.status));
    EXPECT_THAT(child.stderrText,
                testing::ContainsRegex("^Velik::Assert aborting because: FileLockCpp:113: "
                                       "FileLock::release\\(\\) called from child process:[0-9]+ "
                                       "of owner pid:" +
                                       std::to_string(getpid()) + "\n"));
    EXPECT_FALSE(childCanLock(dir, dir.path));
}

}  // namespace
