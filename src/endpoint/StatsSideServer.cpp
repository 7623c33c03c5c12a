// The side server's thread: a poll loop over the listeners of stuck roots
// and the clients it took from them.
#include "endpoint/StatsSideServer.h"

#include "Velik/Errno.h"
#include "Velik/Exception.h"
#include "Velik/Fmtrace.h"
#include "endpoint/StallReplies.h"
#include "endpoint/StatsRequest.h"
#include "endpoint/StatsRequestLine.h"
#include "endpoint/StatsSocket.h"

#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <map>
#include <thread>
#include <utility>

namespace Velik::Impl {

namespace {

constexpr const char* traceClassName = "StatsSideServer";

// How often registered roots are looked at while none is stuck, and while a
// client waits for its root's run to end.
constexpr std::chrono::milliseconds idleTick{25};
constexpr std::chrono::milliseconds waitingTick{5};
// A listener whose accept failed for want of descriptors or memory is left
// alone this long, instead of spinning on it.
constexpr std::chrono::seconds pauseAfterFailure{1};
// Connections taken from one listener per pass.
constexpr int acceptsPerPass = 16;

TaskTimeDuration secondsOf(double seconds) {
    return std::chrono::duration_cast<TaskTimeDuration>(std::chrono::duration<double>(seconds));
}

bool peerAllowed(const SideEndpoint& endpoint, int fd) {
    const std::optional<uid_t> uid =
        endpoint.options().peerUidForTest ? endpoint.options().peerUidForTest : peerUid(fd);
    return uid && (*uid == geteuid() || *uid == 0);
}

struct SideClient {
    enum State { reading, waiting, writing, finished };

    std::shared_ptr<SideEndpoint> endpoint;
    int fd = -1;
    State state = reading;
    // The request as it arrives, then the reply.
    std::string text;
    std::size_t written = 0;
    TaskTimePoint deadline{};
    // The run that kept the request from the root.
    RunPublication::Run blockedBy;
};

class SideServer {
  public:
    static SideServer& instance() {
        static SideServer* const server = new SideServer;  // outlives static destruction
        return *server;
    }

    void add(std::shared_ptr<SideEndpoint> endpoint) {
        std::lock_guard guard(mutex_);
        if (!thread_.joinable()) {
            start();
        }
        endpoints_.push_back(std::move(endpoint));
        ++generation_;
        wake();
    }

    void remove(const SideEndpoint* endpoint) {
        std::unique_lock lock(mutex_);
        std::erase_if(endpoints_, [&](const auto& e) { return e.get() == endpoint; });
        const std::uint64_t wanted = ++generation_;
        wake();
        confirmed_.wait(lock, [&] { return served_ >= wanted; });
    }

  private:
    SideServer() : wakeFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
        if (wakeFd_ < 0) {
            RuntimeException::throwException(
                fmt::format("stats side server: eventfd failed: {}", Velik::strerror(errno)));
        }
    }

    // The thread starts with every signal blocked: the application's
    // signals and the sentinel's are for other threads.
    void start() {
        sigset_t all, previous;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &previous);
        thread_ = std::thread([this] { loop(); });
        pthread_sigmask(SIG_SETMASK, &previous, nullptr);
        pthread_setname_np(thread_.native_handle(), "velik-stats");
    }

    void wake() {
        const std::uint64_t one = 1;
        (void)!write(wakeFd_, &one, sizeof one);
    }

    void loop();
    // Takes the registered endpoints; drops the clients of those gone, and
    // then tells waiting unregistrations that it let go.
    void syncEndpoints();
    void acceptFrom(const std::shared_ptr<SideEndpoint>& endpoint, TaskTimePoint now);
    void readRequest(SideClient& client, TaskTimePoint now);
    void waitForRoot(SideClient& client, TaskTimePoint now);
    void reply(SideClient& client, std::string text, TaskTimePoint now);
    void writeSome(SideClient& client);
    void deadlinePassed(SideClient& client, TaskTimePoint now);
    void finish(SideClient& client);

    std::mutex mutex_;
    std::condition_variable confirmed_;
    std::vector<std::shared_ptr<SideEndpoint>> endpoints_;  // under `mutex_`
    std::uint64_t generation_ = 0;                          // under `mutex_`
    std::uint64_t served_ = 0;                              // under `mutex_`
    const int wakeFd_;
    std::thread thread_;

    // The thread's own.
    std::vector<std::shared_ptr<SideEndpoint>> watched_;
    std::vector<SideClient> clients_;
    std::map<const SideEndpoint*, TaskTimePoint> pausedUntil_;
};

void SideServer::syncEndpoints() {
    std::uint64_t generation;
    {
        std::lock_guard guard(mutex_);
        watched_ = endpoints_;
        generation = generation_;
    }
    for (SideClient& client : clients_) {
        if (std::find(watched_.begin(), watched_.end(), client.endpoint) == watched_.end()) {
            finish(client);
        }
    }
    std::erase_if(clients_, [](const SideClient& c) { return c.state == SideClient::finished; });
    std::erase_if(pausedUntil_, [&](const auto& entry) {
        return std::none_of(watched_.begin(), watched_.end(),
                            [&](const auto& e) { return e.get() == entry.first; });
    });
    std::lock_guard guard(mutex_);
    served_ = generation;
    confirmed_.notify_all();
}

void SideServer::acceptFrom(const std::shared_ptr<SideEndpoint>& endpoint, TaskTimePoint now) {
    for (int i = 0; i < acceptsPerPass; ++i) {
        const int fd =
            accept4(endpoint->listenFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
        if (fd < 0) {
            if (errno == EINTR || errno == ECONNABORTED) {
                continue;
            }
            if (errno != EAGAIN) {
                VELIK_TRACE(VELIK_DEFAULT_HANDLE, 1, "accept on {} failed: {}; pausing",
                            endpoint->socketPath(), Velik::strerror(errno));
                pausedUntil_[endpoint.get()] = now + pauseAfterFailure;
            }
            return;
        }
        ++endpoint->acceptedCount;
        const std::size_t served =
            std::count_if(clients_.begin(), clients_.end(),
                          [&](const auto& c) { return c.endpoint == endpoint; });
        const char* refusal = nullptr;
        if (!peerAllowed(*endpoint, fd)) {
            refusal = "error: permission denied\n";
        } else if (served >= endpoint->options().maxClients) {
            refusal = "error: too many clients\n";
        }
        if (refusal) {
            ++endpoint->refusedCount;
            sendAndClose(fd, refusal);
            continue;
        }
        SideClient client;
        client.endpoint = endpoint;
        client.fd = fd;
        client.deadline = now + secondsOf(endpoint->options().requestTimeout);
        clients_.push_back(std::move(client));
    }
}

void SideServer::readRequest(SideClient& client, TaskTimePoint now) {
    const RequestLineRead read = readRequestLine(client.fd, client.text);
    switch (read.kind) {
        case RequestLineRead::more:
            return;
        case RequestLineRead::closed:
            finish(client);
            return;
        case RequestLineRead::refused:
            reply(client, read.text, now);
            return;
        case RequestLineRead::complete:
            break;
    }
    const StatsRequest request = parseStatsRequest(read.text);
    const RunPublication& publication = client.endpoint->publication();
    if (!request.verb) {
        reply(client, statsErrorLine(request.error), now);
    } else if (answeredWithoutRoot(*request.verb)) {
        reply(client,
              *request.verb == StatsVerb::status ? renderStatusReply(&publication)
                                                 : renderStallsReply(&publication),
              now);
    } else {
        client.state = SideClient::waiting;
        client.text = read.text;
        client.blockedBy = publication.read().running;
        client.deadline = now + secondsOf(client.endpoint->options().busyReplyAfter);
        waitForRoot(client, now);
    }
}

void SideServer::waitForRoot(SideClient& client, TaskTimePoint now) {
    const RunPublication::Run run = client.endpoint->publication().read().running;
    const bool stillBlocked = run.task && run == client.blockedBy;
    if (stillBlocked && now < client.deadline) {
        return;
    }
    if (stillBlocked) {
        if (std::optional<std::string> busy = busyLine(client.endpoint->publication())) {
            reply(client, std::move(*busy), now);
            return;
        }
    }
    VELIK_TRACE(VELIK_DEFAULT_HANDLE, 5, "{}: fd {} handed to the root",
                client.endpoint->socketPath(), client.fd);
    client.endpoint->handOver(std::exchange(client.fd, -1), std::move(client.text));
    client.state = SideClient::finished;
}

void SideServer::reply(SideClient& client, std::string text, TaskTimePoint now) {
    // One request per connection: what follows the line is not read.
    client.state = SideClient::writing;
    client.text = std::move(text);
    client.written = 0;
    client.deadline = now + secondsOf(client.endpoint->options().replyTimeout);
    writeSome(client);
}

void SideServer::writeSome(SideClient& client) {
    while (client.written < client.text.size()) {
        const ssize_t n = send(client.fd, client.text.data() + client.written,
                               client.text.size() - client.written, MSG_DONTWAIT | MSG_NOSIGNAL);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            if (errno != EAGAIN) {
                finish(client);  // the peer went away
            }
            return;
        }
        client.written += static_cast<std::size_t>(n);
    }
    finish(client);
}

void SideServer::deadlinePassed(SideClient& client, TaskTimePoint now) {
    if (client.state == SideClient::reading) {
        reply(client, statsErrorLine("request timed out"), now);
    } else if (client.state == SideClient::writing) {
        finish(client);  // the reply was not taken in time
    }
}

void SideServer::finish(SideClient& client) {
    if (client.fd >= 0) {
        closeDrained(std::exchange(client.fd, -1));
    }
    client.state = SideClient::finished;
}

void SideServer::loop() {
    std::vector<pollfd> fds;
    // Per entry of `fds` past the first: a listener (its endpoint) or a
    // client (its index).
    std::vector<std::shared_ptr<SideEndpoint>> listeners;
    for (;;) {
        syncEndpoints();
        TaskTimePoint now = taskSteadyNow();
        for (SideClient& client : clients_) {
            if (client.state == SideClient::waiting) {
                waitForRoot(client, now);
            }
            if (client.state != SideClient::finished && now >= client.deadline) {
                deadlinePassed(client, now);
            }
        }
        std::erase_if(clients_,
                      [](const SideClient& c) { return c.state == SideClient::finished; });

        TaskTimePoint wakeAt =
            watched_.empty() && clients_.empty() ? TaskTimePoint::max() : now + idleTick;
        fds.assign(1, pollfd{wakeFd_, POLLIN, 0});
        listeners.clear();
        for (const auto& endpoint : watched_) {
            const RunPublication::Run run = endpoint->publication().read().running;
            auto paused = pausedUntil_.find(endpoint.get());
            if (!run.task || (paused != pausedUntil_.end() && now < paused->second)) {
                continue;
            }
            if (now - run.start >= sideServeAfter) {
                fds.push_back(pollfd{endpoint->listenFd(), POLLIN, 0});
                listeners.push_back(endpoint);
            } else {
                wakeAt = std::min(wakeAt, run.start + sideServeAfter);
            }
        }
        for (const SideClient& client : clients_) {
            wakeAt = std::min(wakeAt, client.deadline);
            if (client.state == SideClient::waiting) {
                wakeAt = std::min(wakeAt, now + waitingTick);
                fds.push_back(pollfd{-1, 0, 0});  // keeps the indices in step
            } else {
                fds.push_back(pollfd{
                    client.fd,
                    static_cast<short>(client.state == SideClient::reading ? POLLIN : POLLOUT), 0});
            }
        }
        int timeout = -1;
        if (wakeAt != TaskTimePoint::max()) {
            const auto wait = std::chrono::ceil<std::chrono::milliseconds>(wakeAt - now);
            timeout = static_cast<int>(std::max<std::int64_t>(wait.count(), 0));
        }
        if (poll(fds.data(), fds.size(), timeout) <= 0) {
            continue;
        }
        now = taskSteadyNow();
        if (fds[0].revents) {
            std::uint64_t count;
            (void)!read(wakeFd_, &count, sizeof count);
        }
        // Clients first: accepting adds to `clients_`.
        const std::size_t firstClient = 1 + listeners.size();
        for (std::size_t i = 0; i < clients_.size(); ++i) {
            SideClient& client = clients_[i];
            if (fds[firstClient + i].revents == 0) {
                continue;
            }
            if (client.state == SideClient::reading) {
                readRequest(client, now);
            } else if (client.state == SideClient::writing) {
                writeSome(client);
            }
        }
        for (std::size_t i = 0; i < listeners.size(); ++i) {
            if (fds[1 + i].revents) {
                acceptFrom(listeners[i], now);
            }
        }
    }
}

}  // namespace

SideEndpoint::SideEndpoint(int listenFd, const RunPublication& publication, std::string socketPath,
                           StatsEndpointOptions options)
    : listenFd_(listenFd),
      publication_(publication),
      socketPath_(std::move(socketPath)),
      options_(std::move(options)),
      eventFd_(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {
    if (eventFd_ < 0) {
        RuntimeException::throwException(fmt::format("stats socket {}: eventfd failed: {}",
                                                     socketPath_, Velik::strerror(errno)));
    }
}

SideEndpoint::~SideEndpoint() {
    for (const Handed& handed : handed_) {
        closeDrained(handed.fd);
    }
    ::close(eventFd_);
}

void SideEndpoint::handOver(int fd, std::string line) {
    {
        std::lock_guard guard(mutex_);
        handed_.push_back(Handed{fd, std::move(line)});
    }
    const std::uint64_t one = 1;
    (void)!write(eventFd_, &one, sizeof one);
}

std::vector<SideEndpoint::Handed> SideEndpoint::takeHanded() {
    std::uint64_t count;
    (void)!read(eventFd_, &count, sizeof count);
    std::lock_guard guard(mutex_);
    return std::exchange(handed_, {});
}

void sideServerRegister(std::shared_ptr<SideEndpoint> endpoint) {
    SideServer::instance().add(std::move(endpoint));
}

void sideServerUnregister(const SideEndpoint* endpoint) {
    SideServer::instance().remove(endpoint);
}

}  // namespace Velik::Impl
