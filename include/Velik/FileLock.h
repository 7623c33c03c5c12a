// An exclusive, non-blocking lock on a named file, for example to make sure
// only one instance of a daemon runs:
//
//   Velik::Util::FileLock lock(*handler, "/run/mydaemon", "mydaemon.lock");
//   if (!lock.lock(false)) {
//       return 1;  // another instance holds it; the trace says so at level 1
//   }
//
// The lock is an open-file-description lock (`F_OFD_SETLK`): it belongs to
// the open file, not to the process, so threads do not share it by accident
// and closing some other descriptor of the file does not drop it. Two
// `FileLock` objects on one path exclude each other even inside one process.
//
// A lock belongs to the process that took it. A forked child inherits the
// descriptor but must not release it: releasing there would drop the
// parent's lock, so it is an assertion failure (as is releasing a lock that
// is not held). The lock file is never removed.
//
// Traces go to the handler given: progress at level 5, expected failures
// (cannot open, held elsewhere) at level 1. One object is used by one thread.
#pragma once

#include <Velik/Debug.h>

#include <string>

namespace Velik::Util {

class FileLock : public Debuggable {
  public:
    static constexpr const char* traceClassName = "FileLock";

    // The Linux command numbers, for headers that predate them.
    static constexpr int cmd_F_OFD_GETLK() { return 36; }
    static constexpr int cmd_F_OFD_SETLK() { return 37; }

    // A lock on `directory`/`fileName` (just `fileName` when `directory` is
    // empty). Opens nothing. A `fileName` containing "/" is an assertion
    // failure. `handler` must be owned by a shared pointer.
    FileLock(Platform::DebugHandler& handler, const std::string& directory,
             const std::string& fileName);
    FileLock(const FileLock&) = delete;
    FileLock& operator=(const FileLock&) = delete;
    // Releases the lock if a descriptor is held; in a forked child that
    // inherited a held lock this is the child-release assertion.
    ~FileLock();

    // Takes the lock without waiting and returns whether it is held on
    // return. With `reentry` set, a lock this process already holds through
    // this object (taken and neither released nor closed) counts as taken. Otherwise the directory
    // is created (mode 0777, with parents), the file opened or created (mode 0666) and locked; a
    // lock held by anyone else, including another `FileLock` or a second `lock(false)` of this one,
    // gives false, as does a file that cannot be opened. Unexpected system errors are assertion
    // failures.
    bool lock(bool reentry);

    // Unlocks and closes. Asserts when no lock is held and when called from a
    // process other than the one that took the lock.
    void release();

    // Closes the descriptor without unlocking first; closing the last
    // descriptor of the open file drops its lock. Does nothing when none is
    // open.
    void closeFd();

    // The full path of the lock file.
    const std::string& file() const { return file_; }
    const std::string& directory() const { return directory_; }
    // The descriptor holding the lock, -1 when not held.
    int fd() const { return fd_; }
    // The process that took the lock, -1 when not held.
    int ownerPid() const { return ownerPid_; }

  private:
    std::string directory_;
    std::string file_;
    int fd_ = -1;
    int ownerPid_ = -1;
};

}  // namespace Velik::Util
