// A descriptor watched by the main loop.
//
// A `FileDescriptor` is a named, reference-counted framework object that binds
// an operating-system descriptor to the main loop. Its notifiees hear when the
// loop finds the descriptor readable or writable:
//
//   Kiv::Ptr<Kiv::FileDescriptor> fd = Kiv::FileDescriptor::create("input");
//   struct Reader : Kiv::FileDescriptor::Notifiee {
//       using Notifiee::Notifiee;
//       void onReadableCount() override { ... read(notifier()->descriptor()) ... }
//   } reader(fd.get());
//   fd->descriptorIs(socket);
//   fd->notifyOnReadableIs(true);
//
// Readiness semantics:
// - Reads are level-triggered and persistent: while read interest is on, every
//   pass of the loop that finds the descriptor readable (data, end of file or
//   an error) increases `readableCount()` and notifies, until the data is read
//   or the interest is turned off.
// - Writes are one-shot per arming: when the loop finds the descriptor
//   writable it turns write interest off, then increases `writableCount()` and
//   notifies. A notifiee that wants to hear of the next writability sets
//   `notifyOnWritableIs(true)` again. (Sockets are writable nearly always; a
//   persistent write interest would notify on every pass.)
//
// The object never closes its descriptor. Detach it (`descriptorIs(-1)`)
// before closing it: the loop cannot tell a closed-and-reused descriptor
// number from the one it was given.
//
// Thread model: create, change and destroy descriptor objects on the thread
// that runs the main loop; notifications arrive on that thread, from inside
// `System::doRun()`.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Kiv/Ptr.h"

namespace Kiv {

class MainLoop;

class FileDescriptor : public PtrInterface {
  public:
    // Told of changes to one descriptor object. Registers itself on the
    // object given (which may be null, and changed later with `notifierIs`),
    // unregisters when destroyed. Does not hold a reference to the object.
    // Notifiees may be created and destroyed from inside notifications,
    // including the one being notified.
    class Notifiee {
      public:
        explicit Notifiee(FileDescriptor* notifier = nullptr);
        virtual ~Notifiee();
        Notifiee(const Notifiee&) = delete;
        Notifiee& operator=(const Notifiee&) = delete;

        // The descriptor object, or null once it has gone away (see `onOrphan`).
        FileDescriptor* notifier() const noexcept { return notifier_; }
        void notifierIs(FileDescriptor* notifier);

        // `readableCount()` increased: the descriptor is readable.
        virtual void onReadableCount() {}
        // `writableCount()` increased: the descriptor is writable.
        virtual void onWritableCount() {}
        // The descriptor object is being destroyed; `notifier()` is already
        // null and no further notification will come. Must not throw.
        virtual void onOrphan() {}

      private:
        friend class FileDescriptor;
        FileDescriptor* notifier_ = nullptr;
    };

    // A new descriptor object named `name`, with no descriptor and no interest.
    static Ptr<FileDescriptor> create(std::string name);

    const std::string& name() const noexcept { return name_; }

    // The descriptor, or -1 when none is bound.
    int descriptor() const noexcept { return descriptor_; }
    // Binds `descriptor` (any negative value detaches), puts it into
    // non-blocking mode and applies the current interests to it. Binding a new
    // descriptor replaces the old one. Throws `SystemException` when the
    // descriptor is invalid or cannot be watched (for example a regular file,
    // or a descriptor another object is already watching).
    void descriptorIs(int descriptor);

    // Interest in readability. Recorded even with no descriptor bound, and
    // applied when one is. May throw `SystemException` as `descriptorIs`.
    bool notifyOnReadable() const noexcept { return notifyOnReadable_; }
    void notifyOnReadableIs(bool notify);

    // Interest in the next writability (one-shot, see above).
    bool notifyOnWritable() const noexcept { return notifyOnWritable_; }
    void notifyOnWritableIs(bool notify);

    // How many times the loop has found the descriptor readable / writable
    // while the matching interest was on.
    std::uint64_t readableCount() const noexcept { return readableCount_; }
    std::uint64_t writableCount() const noexcept { return writableCount_; }

  protected:
    explicit FileDescriptor(std::string name);
    // Stops watching, then orphans every notifiee.
    ~FileDescriptor() override;

  private:
    friend class MainLoop;

    void applyInterest();
    void readableCountInc();
    void writableCountInc();
    void notify(void (Notifiee::*notification)());
    void notifieeAdd(Notifiee* notifiee);
    void notifieeDel(Notifiee* notifiee) noexcept;

    std::string name_;
    int descriptor_ = -1;
    bool notifyOnReadable_ = false;
    bool notifyOnWritable_ = false;
    std::uint64_t readableCount_ = 0;
    std::uint64_t writableCount_ = 0;

    // What the main loop watches for this object: the descriptor and epoll
    // event mask registered, -1 and 0 when not watched.
    int watched_ = -1;
    std::uint32_t watchedEvents_ = 0;

    std::vector<Notifiee*> notifiees_;  // null entries are removed after notifying
    int notifying_ = 0;
};

}  // namespace Kiv
