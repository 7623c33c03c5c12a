#include "Kiv/FileDescriptor.h"

#include <fcntl.h>
#include <sys/epoll.h>

#include <algorithm>
#include <cerrno>

#include "Kiv/ActivityManager.h"
#include "Kiv/Exception.h"

namespace Kiv {

FileDescriptor::Notifiee::Notifiee(FileDescriptor* notifier) {
    notifierIs(notifier);
}

FileDescriptor::Notifiee::~Notifiee() {
    if (notifier_) {
        notifier_->notifieeDel(this);
    }
}

void FileDescriptor::Notifiee::notifierIs(FileDescriptor* notifier) {
    if (notifier == notifier_) {
        return;
    }
    if (notifier_) {
        notifier_->notifieeDel(this);
    }
    notifier_ = notifier;
    if (notifier_) {
        notifier_->notifieeAdd(this);
    }
}

Ptr<FileDescriptor> FileDescriptor::create(std::string name) {
    return Ptr<FileDescriptor>(new FileDescriptor(std::move(name)));
}

FileDescriptor::FileDescriptor(std::string name) : name_(std::move(name)) {}

FileDescriptor::~FileDescriptor() {
    if (watched_ >= 0) {
        activityManager()->mainLoop()->unwatch(*this);
    }
    // Counted as a notification so that notifiees destroyed by another's
    // onOrphan() only blank their entry.
    ++notifying_;
    for (Notifiee*& entry : notifiees_) {
        if (Notifiee* notifiee = entry) {
            entry = nullptr;
            notifiee->notifier_ = nullptr;
            notifiee->onOrphan();
        }
    }
}

void FileDescriptor::descriptorIs(int descriptor) {
    if (descriptor < 0) {
        descriptor = -1;
    }
    if (descriptor == descriptor_) {
        return;
    }
    if (descriptor >= 0) {
        // The loop must never block in a notifiee's read or write.
        const int flags = fcntl(descriptor, F_GETFL);
        if (flags < 0 || fcntl(descriptor, F_SETFL, flags | O_NONBLOCK) < 0) {
            throw SystemException(
                "FileDescriptor " + name_ + ": descriptor " + std::to_string(descriptor), errno);
        }
    }
    descriptor_ = descriptor;
    applyInterest();
}

void FileDescriptor::notifyOnReadableIs(bool notify) {
    if (notify == notifyOnReadable_) {
        return;
    }
    notifyOnReadable_ = notify;
    applyInterest();
}

void FileDescriptor::notifyOnWritableIs(bool notify) {
    if (notify == notifyOnWritable_) {
        return;
    }
    notifyOnWritable_ = notify;
    applyInterest();
}

void FileDescriptor::applyInterest() {
    std::uint32_t events = 0;
    if (descriptor_ >= 0) {
        events = (notifyOnReadable_ ? EPOLLIN : 0u) | (notifyOnWritable_ ? EPOLLOUT : 0u);
    }
    MainLoop* loop = activityManager()->mainLoop();
    if (watched_ >= 0 && (watched_ != descriptor_ || events == 0)) {
        loop->unwatch(*this);
    }
    if (events != 0) {
        loop->watch(*this, descriptor_, events);
    }
}

void FileDescriptor::readableCountInc() {
    ++readableCount_;
    notify(&Notifiee::onReadableCount);
}

void FileDescriptor::writableCountInc() {
    // One-shot: the interest is used up before anyone hears of it, so a
    // notifiee may re-arm it, and an exception cannot leave it armed.
    notifyOnWritableIs(false);
    ++writableCount_;
    notify(&Notifiee::onWritableCount);
}

void FileDescriptor::notify(void (Notifiee::*notification)()) {
    struct Notifying {
        FileDescriptor& fd;
        explicit Notifying(FileDescriptor& f) : fd(f) { ++fd.notifying_; }
        ~Notifying() {
            if (--fd.notifying_ == 0) {
                std::erase(fd.notifiees_, nullptr);
            }
        }
    } notifying(*this);

    // Notifiees added during the notification hear only of later changes.
    const std::size_t count = notifiees_.size();
    for (std::size_t i = 0; i < count; ++i) {
        if (Notifiee* notifiee = notifiees_[i]) {
            (notifiee->*notification)();
        }
    }
}

void FileDescriptor::notifieeAdd(Notifiee* notifiee) {
    notifiees_.push_back(notifiee);
}

void FileDescriptor::notifieeDel(Notifiee* notifiee) noexcept {
    const auto it = std::find(notifiees_.begin(), notifiees_.end(), notifiee);
    if (it == notifiees_.end()) {
        return;
    }
    if (notifying_ > 0) {
        *it = nullptr;  // the notifying loop holds indices into the vector
    } else {
        notifiees_.erase(it);
    }
}

}  // namespace Kiv
