#include "Load.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <charconv>
#include <chrono>
#include <cmath>
#include <random>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "RespReply.h"

namespace VelikRedis {

namespace {
using Clock = std::chrono::steady_clock;
}

void LatencyHistogram::add(double us) {
    std::size_t index = 0;
    if (us >= 1) {
        int exponent = 0;
        const double fraction = std::frexp(us, &exponent);  // us = fraction * 2^exponent
        index = static_cast<std::size_t>((exponent - 1) * kSub +
                                         static_cast<int>((fraction * 2 - 1) * kSub));
    }
    ++counts_[std::min(index, kBuckets - 1)];
    ++total_;
}

void LatencyHistogram::merge(const LatencyHistogram& other) {
    for (std::size_t i = 0; i < kBuckets; ++i) {
        counts_[i] += other.counts_[i];
    }
    total_ += other.total_;
}

double LatencyHistogram::percentile(double p) const {
    const auto rank = static_cast<std::uint64_t>(p * static_cast<double>(total_));
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < kBuckets; ++i) {
        seen += counts_[i];
        if (seen > rank || (seen == total_ && seen > 0)) {
            const int power = static_cast<int>(i) / kSub;
            const int sub = static_cast<int>(i) % kSub;
            return std::ldexp(1.0 + (sub + 1) / double(kSub), power);
        }
    }
    return 0;
}

std::size_t countReplies(std::string_view data, std::size_t wanted, std::size_t& consumed,
                         std::uint64_t& errors) {
    std::size_t count = 0;
    std::size_t pos = 0;
    while (count < wanted && pos < data.size()) {
        const std::size_t end = data.find("\r\n", pos);
        if (end == std::string_view::npos) {
            break;
        }
        std::size_t next = end + 2;
        if (data[pos] == '$') {
            long long length = -1;
            std::from_chars(data.data() + pos + 1, data.data() + end, length);
            if (length >= 0) {
                next += static_cast<std::size_t>(length) + 2;
                if (next > data.size()) {
                    break;
                }
            }
        }
        errors += data[pos] == '-';
        pos = next;
        ++count;
    }
    consumed = pos;
    return count;
}

namespace {

int connectTo(std::uint16_t port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    if (fd >= 0 && connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0) {
        const int one = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
        return fd;
    }
    if (fd >= 0) {
        ::close(fd);
    }
    return -1;
}

void appendCommand(std::string& out, std::initializer_list<std::string_view> args) {
    Reply::arrayHeader(out, args.size());
    for (std::string_view arg : args) {
        Reply::bulk(out, arg);
    }
}

// One pipeline's worth of requests.
std::string makeBatch(std::mt19937& random, const LoadOptions& options) {
    std::string batch;
    for (int i = 0; i < options.pipeline; ++i) {
        const std::string key = "key:" + std::to_string(random() % options.keys);
        const unsigned pick = random() % 6;
        if (pick < 2) {
            appendCommand(batch, {"SET", key, "value-" + std::to_string(random() % 1000)});
        } else if (pick < 5) {
            appendCommand(batch, {"GET", key});
        } else {
            appendCommand(batch, {"INCR", "counter:" + std::to_string(random() % 64)});
        }
    }
    return batch;
}

// Reads until `wanted` replies have come; false when the server closed.
bool readReplies(int fd, std::string& pending, std::size_t wanted, LoadFigures& figures) {
    char buffer[16384];
    while (wanted > 0) {
        std::size_t consumed = 0;
        wanted -= countReplies(pending, wanted, consumed, figures.errors);
        pending.erase(0, consumed);
        if (wanted == 0) {
            break;
        }
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0) {
            return false;
        }
        pending.append(buffer, static_cast<std::size_t>(n));
    }
    return true;
}

void runThread(int id, std::uint16_t port, const LoadOptions& options, Clock::time_point until,
               const std::atomic<bool>& stop, LoadFigures& figures) {
    std::mt19937 random(static_cast<unsigned>(id) * 7919u + 1);
    std::vector<int> fds;
    for (int i = 0; i < options.connections; ++i) {
        fds.push_back(connectTo(port));
    }
    std::vector<std::string> pending(fds.size());
    std::vector<Clock::time_point> sentAt(fds.size());
    while (Clock::now() < until && !stop.load(std::memory_order_relaxed)) {
        for (std::size_t i = 0; i < fds.size(); ++i) {
            const std::string batch = makeBatch(random, options);
            sentAt[i] = Clock::now();
            if (fds[i] >= 0 && ::send(fds[i], batch.data(), batch.size(), MSG_NOSIGNAL) !=
                                   static_cast<ssize_t>(batch.size())) {
                ::close(std::exchange(fds[i], -1));
                ++figures.disconnected;
            }
        }
        for (std::size_t i = 0; i < fds.size(); ++i) {
            if (fds[i] < 0) {
                continue;
            }
            if (!readReplies(fds[i], pending[i], static_cast<std::size_t>(options.pipeline),
                             figures)) {
                ::close(std::exchange(fds[i], -1));
                ++figures.disconnected;
                continue;
            }
            figures.requests += static_cast<std::uint64_t>(options.pipeline);
            figures.latencyUs.add(
                std::chrono::duration<double, std::micro>(Clock::now() - sentAt[i]).count());
        }
        if (std::all_of(fds.begin(), fds.end(), [](int fd) { return fd < 0; })) {
            break;
        }
    }
    for (int fd : fds) {
        if (fd >= 0) {
            ::close(fd);
        }
    }
}

}  // namespace

LoadFigures runLoad(std::uint16_t port, const LoadOptions& options, const std::atomic<bool>& stop) {
    const auto until = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                          std::chrono::duration<double>(options.seconds));
    std::vector<LoadFigures> perThread(static_cast<std::size_t>(options.threads));
    {
        std::vector<std::jthread> threads;
        for (int i = 0; i < options.threads; ++i) {
            threads.emplace_back(
                [&, i] { runThread(i, port, options, until, stop, perThread[i]); });
        }
    }
    LoadFigures all;
    for (const LoadFigures& f : perThread) {
        all.requests += f.requests;
        all.errors += f.errors;
        all.disconnected += f.disconnected;
        all.latencyUs.merge(f.latencyUs);
    }
    return all;
}

}  // namespace VelikRedis
