#include "Velik/Inbox.h"

#include "Velik/Assert.h"
#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/PlatformSelection.h"
#include "Velik/Task.h"
#include "Velik/TaskSchedulerRoot.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <deque>
#include <unordered_map>
#include <utility>

namespace Velik {

namespace {

std::mutex registryMutex;
std::vector<std::weak_ptr<Inbox>>& registry() {
    static auto* inboxes = new std::vector<std::weak_ptr<Inbox>>;  // outlives every thread
    return *inboxes;
}

void registerInbox(const std::shared_ptr<Inbox>& inbox) {
    std::lock_guard lock(registryMutex);
    std::erase_if(registry(), [](const std::weak_ptr<Inbox>& entry) { return entry.expired(); });
    registry().push_back(inbox);
}

}  // namespace

// --- The shared end ---

Inbox::Inbox(std::string rootName, int eventFd)
    : rootName_(std::move(rootName)), eventFd_(eventFd) {}

Inbox::~Inbox() {
    close();
    ::close(eventFd_);
}

bool Inbox::closed() const {
    std::lock_guard lock(mutex_);
    return closed_;
}

std::uint64_t Inbox::length() const {
    // Read in this order, a concurrent run or drop can only make the
    // difference too small, never wrap it.
    const std::uint64_t done = runCount() + droppedCount();
    const std::uint64_t posted = postedCount();
    return posted > done ? posted - done : 0;
}

bool Inbox::push(TaskPriority priority, std::string_view name, Work work) {
    Item item{priority, std::string(name), std::move(work)};
    {
        std::unique_lock lock(mutex_);
        const std::uint64_t posted = posted_.load(std::memory_order_relaxed) + 1;
        posted_.store(posted, std::memory_order_relaxed);
        if (!closed_) {
            queue_.push_back(std::move(item));
            lock.unlock();
            const std::uint64_t waiting = length();
            if (waiting > highWater_.load(std::memory_order_relaxed)) {
                // A racing post may store a smaller figure; the mark is a
                // diagnostic, not worth a loop.
                highWater_.store(waiting, std::memory_order_relaxed);
            }
            if (!wakePending_.exchange(true, std::memory_order_acq_rel)) {
                wakeUps_.fetch_add(1, std::memory_order_relaxed);
                const std::uint64_t one = 1;
                // Cannot fail short of overflowing the counter, which the
                // flag rules out.
                [[maybe_unused]] ssize_t written = ::write(eventFd_, &one, sizeof(one));
            }
            return true;
        }
    }
    droppedAdd(1);
    return false;  // `item` is destroyed here, outside the lock
}

void Inbox::takeAll(std::vector<Item>& batch) {
    // Cleared before the queue is taken: a post that lands after the take
    // finds the flag clear and wakes the thread again.
    wakePending_.store(false, std::memory_order_seq_cst);
    std::lock_guard lock(mutex_);
    queue_.swap(batch);
}

void Inbox::close() {
    std::vector<Item> left;
    {
        std::lock_guard lock(mutex_);
        closed_ = true;
        queue_.swap(left);
    }
    droppedAdd(left.size());
}

// --- The thread's end ---

namespace Impl {

// Runs the items posted under one (name, priority), in order, as many per
// run as the quantum allows.
class InboxTask : public Task {
  public:
    InboxTask(TaskScheduler* root, TaskPriority priority, const std::string& name, Inbox& inbox)
        : Task(root, priority, name), key_(name), inbox_(inbox) {}

    // The name it was posted under.
    const std::string& key() const { return key_; }

    ~InboxTask() override { inbox_.droppedAdd(items_.size()); }

    void add(Inbox::Work&& work) {
        items_.push_back(std::move(work));
        if (!taskScheduled()) {
            scheduleTask();
        }
    }

    void taskExecute() override {
        std::uint64_t ran = 0;
        try {
            while (!items_.empty()) {
                Inbox::Work work = std::move(items_.front());
                items_.pop_front();
                inbox_.runInc();  // a throwing item has run too
                ++ran;
                work();
                if (taskShouldYield()) {
                    break;
                }
            }
        } catch (...) {
            finishRun(ran);
            throw;
        }
        finishRun(ran);
    }

  private:
    void finishRun(std::uint64_t ran) {
        taskWorkCountInc(ran);
        taskWorkPendingIs(static_cast<std::uint32_t>(items_.size()));
        if (!items_.empty()) {
            scheduleTask();
        }
    }

    const std::string key_;
    Inbox& inbox_;
    std::deque<Inbox::Work> items_;
};

// The thread's end of its inbox: the eventfd watch and the tasks. Lives in
// a thread-local slot made after the thread's root, so it goes first when
// the thread ends, taking its tasks with it before the root goes.
class InboxReceiver : public Platform::FdEventHandler {
  public:
    static constexpr const char* traceClassName = "InboxReceiver";

    explicit InboxReceiver(const std::shared_ptr<TaskSchedulerRoot>& root)
        : root_(root.get()),
          inbox_(new Inbox(root->schedulerName().str(), newEventFd())),
          control_(Platform::getFdControl(this)) {
        registerInbox(inbox_);
        control_->setReads(true);
        control_->setFd(inbox_->eventFd());
    }

    InboxReceiver(const InboxReceiver&) = delete;
    InboxReceiver& operator=(const InboxReceiver&) = delete;

    ~InboxReceiver() override {
        control_.reset();
        inbox_->close();
        for (auto& tasks : tasks_) {
            tasks.clear();  // each drops and counts its waiting items
        }
    }

    const std::shared_ptr<Inbox>& inbox() const { return inbox_; }

    void readFdEvent(int fd) override {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t got = ::read(fd, &count, sizeof(count));
        inbox_->takeAll(batch_);
        InboxTask* last = nullptr;
        for (Inbox::Item& item : batch_) {
            if (!last || last->taskPriority() != item.priority || last->key() != item.name) {
                last = taskFor(item.priority, item.name);
            }
            last->add(std::move(item.work));
        }
        batch_.clear();
    }

    void writeFdEvent(int) override {}

  private:
    static int newEventFd() {
        const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        if (fd < 0) {
            RuntimeException::throwException(fmt::format("eventfd: {}", Velik::strerror(errno)));
        }
        return fd;
    }

    InboxTask* taskFor(TaskPriority priority, const std::string& name) {
        auto& slot = tasks_[static_cast<std::size_t>(priority)][name];
        if (!slot) {
            slot = std::make_shared<InboxTask>(root_, priority, name, *inbox_);
        }
        return slot.get();
    }

    TaskSchedulerRoot* root_;
    std::shared_ptr<Inbox> inbox_;
    std::shared_ptr<Platform::FdControl> control_;
    std::array<std::unordered_map<std::string, std::shared_ptr<InboxTask>>,
               static_cast<std::size_t>(TaskPriority::oneBeyondLast)>
        tasks_;
    std::vector<Inbox::Item> batch_;
};

}  // namespace Impl

namespace {

thread_local Impl::InboxReceiver* threadReceiver = nullptr;

// The thread's receiver, in a slot made after the thread's root.
struct ReceiverSlot {
    ~ReceiverSlot() {
        threadReceiver = nullptr;
        receiver.reset();
    }
    std::unique_ptr<Impl::InboxReceiver> receiver;
};

ReceiverSlot& receiverSlot() {
    // The root first: thread-local objects die in reverse order of
    // construction, and the receiver's tasks need the root.
    schedulerRootVelik();
    static thread_local ReceiverSlot slot;
    return slot;
}

}  // namespace

std::shared_ptr<Inbox> inbox() {
    if (!threadReceiver) {
        ReceiverSlot& slot = receiverSlot();
        slot.receiver = std::make_unique<Impl::InboxReceiver>(schedulerRootVelik());
        threadReceiver = slot.receiver.get();
    }
    return threadReceiver->inbox();
}

std::shared_ptr<Inbox> existingInbox() {
    return threadReceiver ? threadReceiver->inbox() : nullptr;
}

void closeInbox() {
    if (threadReceiver) {
        threadReceiver = nullptr;
        receiverSlot().receiver.reset();
    }
}

std::vector<std::shared_ptr<Inbox>> liveInboxes() {
    std::vector<std::shared_ptr<Inbox>> live;
    std::lock_guard lock(registryMutex);
    for (const std::weak_ptr<Inbox>& entry : registry()) {
        if (auto inbox = entry.lock(); inbox && !inbox->closed()) {
            live.push_back(std::move(inbox));
        }
    }
    return live;
}

bool post(const std::shared_ptr<Inbox>& target, TaskPriority priority, std::string_view name,
          std::function<void()> work) {
    return target && target->push(priority, name, std::move(work));
}

bool post(const std::shared_ptr<Inbox>& target, TaskPriority priority, std::string_view name,
          std::function<void()> work, std::function<void()> completion) {
    auto home = inbox();
    return post(target, priority, name,
                [home = std::move(home), priority, name = std::string(name), work = std::move(work),
                 completion = std::move(completion)]() mutable {
                    work();
                    post(home, priority, name, std::move(completion));
                });
}

bool stopEventLoop(const std::shared_ptr<Inbox>& target) {
    return post(target, TaskPriority::absolute, "stopEventLoop", [] { Platform::stopEventLoop(); });
}

}  // namespace Velik
