#include "Server.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace VelikRedis {

// Accepts for as long as its quantum allows (readability of a listening
// socket persists, so the rest is accepted next run) and deals the
// connections out round robin.
class Server::Listener : public Velik::FileDescriptorTask {
  public:
    Listener(std::vector<std::unique_ptr<Worker>>& workers, int fd)
        : FileDescriptorTask(Velik::schedulerRootVelik(), Velik::TaskPriority::high, "listener"),
          workers_(workers) {
        taskWatchFdIs(fd);
    }
    ~Listener() override {
        const int fd = taskWatchFd();
        taskWatchFdDel();
        ::close(fd);
    }
    void taskExecuteReadable() override {
        std::uint64_t accepted = 0;
        while (!taskShouldYield()) {
            const int fd = accept4(taskWatchFd(), nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
            if (fd < 0) {
                break;  // EAGAIN: all taken; anything else: try again next run
            }
            const int one = 1;
            setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
            workers_[next_++ % workers_.size()]->adopt(fd);
            ++accepted;
        }
        taskWorkCountInc(accepted);
    }
    void taskExecuteWritable() override {}

  private:
    std::vector<std::unique_ptr<Worker>>& workers_;
    std::size_t next_ = 0;
};

namespace {

int listenOnLoopback(std::uint16_t& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    const int one = 1;
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    socklen_t length = sizeof address;
    if (fd < 0 || setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one) != 0 ||
        bind(fd, reinterpret_cast<sockaddr*>(&address), length) != 0 || listen(fd, 1024) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) {
        const int error = errno;
        if (fd >= 0) {
            ::close(fd);
        }
        Velik::RuntimeException::throwException("listen on 127.0.0.1:" + std::to_string(port) +
                                                ": " + Velik::strerror(error));
    }
    port = ntohs(address.sin_port);
    return fd;
}

}  // namespace

Server::Server(ServerOptions options) : keyspace_(steadyMilliseconds), port_(options.port) {
    const int fd = listenOnLoopback(port_);
    for (int i = 0; i < options.workers; ++i) {
        WorkerOptions w;
        w.index = i;
        w.count = options.workers;
        w.statsPath = options.statsDir.empty()
                          ? ""
                          : options.statsDir + "/worker" + std::to_string(i) + ".sock";
        w.idleSeconds = options.idleSeconds;
        w.limits = options.limits;
        w.coroutines = options.coroutines;
        workers_.push_back(std::make_unique<Worker>(keyspace_, std::move(w)));
    }
    listener_ = std::make_shared<Listener>(workers_, fd);
}

Server::~Server() {
    stop();
}

void Server::stop() {
    listener_.reset();
    for (auto& worker : workers_) {
        worker->stop();
    }
}

}  // namespace VelikRedis
