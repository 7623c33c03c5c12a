// Coroutine tasks on one thread: a line-protocol server whose connection
// handlers are coroutines, clients that are coroutines too, and a sliced job
// that waits on a timer, then on a socket, then works in quantum slices.
// Each coroutine is a task: the table at the end shows their runs.
//
//   build/examples/velik_coroutines [connections]
#include <Velik/CoroutineTask.h>
#include <Velik/Velik.h>

#include <sys/socket.h>
#include <unistd.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>
#include <vector>

namespace {

using namespace std::chrono_literals;
using Velik::Co;
using Velik::TaskPriority;

// Reads what is there into `buffer`; false at end of stream.
Co<bool> readSome(int fd, std::string* buffer) {
    co_await Velik::readable(fd);
    char chunk[512];
    const ssize_t n = read(fd, chunk, sizeof chunk);
    if (n > 0) {
        buffer->append(chunk, static_cast<std::size_t>(n));
    }
    co_return n > 0;
}

// Writes all of `text`, waiting for room as needed.
Co<> writeAll(int fd, std::string text) {
    std::size_t done = 0;
    while (done < text.size()) {
        co_await Velik::writable(fd);
        const ssize_t n = write(fd, text.data() + done, text.size() - done);
        if (n < 0) {
            co_return;
        }
        done += static_cast<std::size_t>(n);
    }
}

// Moves the first line of `buffer` (without its line feed) to `line`.
bool takeLine(std::string* buffer, std::string* line) {
    const std::size_t end = buffer->find('\n');
    if (end == std::string::npos) {
        return false;
    }
    *line = buffer->substr(0, end);
    buffer->erase(0, end + 1);
    return true;
}

// One connection of the server: "upper <text>" answers the text in upper
// case, "quit" ends the connection, anything else is echoed.
Co<int> serveConnection(int fd) {
    std::string buffer, line;
    int requests = 0;
    for (;;) {
        while (!takeLine(&buffer, &line)) {
            auto more = Velik::spawn(Velik::schedulerRootVelik(), TaskPriority::normal, "read",
                                     readSome, fd, &buffer);
            if (!co_await more) {
                close(fd);
                co_return requests;
            }
        }
        ++requests;
        if (line == "quit") {
            close(fd);
            co_return requests;
        }
        if (line.rfind("upper ", 0) == 0) {
            for (char& c : line) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
        co_await Velik::spawn(Velik::schedulerRootVelik(), TaskPriority::normal, "write", writeAll,
                              fd, line + "\n");
        co_await Velik::yieldIfDue();
    }
}

// A client: sends its lines one at a time and checks each answer.
Co<int> client(int fd, int lines) {
    std::string buffer, answer;
    int good = 0;
    for (int i = 0; i < lines; ++i) {
        const std::string request = (i % 2 ? "upper line " : "line ") + std::to_string(i);
        co_await Velik::spawn(Velik::schedulerRootVelik(), TaskPriority::normal, "write", writeAll,
                              fd, request + "\n");
        while (!takeLine(&buffer, &answer)) {
            auto more = Velik::spawn(Velik::schedulerRootVelik(), TaskPriority::normal, "read",
                                     readSome, fd, &buffer);
            if (!co_await more) {
                co_return good;
            }
        }
        std::string expected = request;
        if (i % 2) {
            for (char& c : expected) {
                c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
            }
        }
        good += answer == expected;
    }
    co_await Velik::spawn(Velik::schedulerRootVelik(), TaskPriority::normal, "write", writeAll, fd,
                          std::string("quit\n"));
    close(fd);
    co_return good;
}

// The sliced job: a start-up delay, then a go signal on a socket, then a
// long sum in slices of its quantum.
Co<std::uint64_t> slicedJob(int signalFd) {
    co_await Velik::sleepFor(50ms);
    co_await Velik::readable(signalFd);
    char go = 0;
    if (read(signalFd, &go, 1) != 1) {
        co_return 0;
    }
    std::uint64_t sum = 0;
    for (std::uint64_t i = 0; i < 50'000'000; ++i) {
        sum += i % 7;
        if (i % 1024 == 0) {
            co_await Velik::yieldIfDue();
        }
    }
    co_return sum;
}

// Opens the connections, starts both ends and the job, and waits for all.
Co<> mainTask(int connections) {
    auto root = Velik::schedulerRootVelik();
    std::vector<std::shared_ptr<Velik::CoroutineTask<int>>> servers, clients;
    for (int i = 0; i < connections; ++i) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) != 0) {
            std::perror("socketpair");
            co_return;
        }
        servers.push_back(
            Velik::spawn(root, TaskPriority::normal, "connection", serveConnection, fds[0]));
        clients.push_back(Velik::spawn(root, TaskPriority::low, "client", client, fds[1], 20));
    }
    int signal[2];
    if (socketpair(AF_UNIX, SOCK_STREAM, 0, signal) != 0) {
        std::perror("socketpair");
        co_return;
    }
    auto job = Velik::spawn(root, TaskPriority::low, "sliced job", slicedJob, signal[0]);
    co_await Velik::sleepFor(100ms);
    if (write(signal[1], "g", 1) != 1) {
        std::perror("write");
    }
    int served = 0, good = 0;
    for (std::size_t i = 0; i < servers.size(); ++i) {
        served += co_await servers[i];
        good += co_await clients[i];
    }
    const std::uint64_t sum = co_await job;
    close(signal[0]);
    close(signal[1]);
    std::printf("%d requests served, %d answers as expected, job sum %llu in %u runs\n", served,
                good, static_cast<unsigned long long>(sum), job->taskRunCount());
}

}  // namespace

int main(int argc, char** argv) {
    const int connections = argc > 1 ? std::atoi(argv[1]) : 10;
    auto root = Velik::schedulerRootVelik();
    auto top = Velik::spawn(root, TaskPriority::high, "main", mainTask, connections);
    Velik::Platform::doEventLoop();
    root->statsRenderTextForDebug(std::cout, false, true, false, false);
    top->result();
    return 0;
}
