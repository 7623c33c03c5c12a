// Runs a piece of code in a forked child and hands back what it wrote to
// standard error and how it ended: for checking exactly what an aborting
// path prints, which a death-test regex cannot count.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace VelikTest {

struct ChildResult {
    int status = 0;
    std::string stderrText;

    bool abortedBySignal(int signal) const {
        return WIFSIGNALED(status) && WTERMSIG(status) == signal;
    }

    std::vector<std::string> linesStartingWith(const std::string& prefix) const {
        std::vector<std::string> found;
        std::istringstream in(stderrText);
        for (std::string line; std::getline(in, line);) {
            if (line.rfind(prefix, 0) == 0) {
                found.push_back(line);
            }
        }
        return found;
    }
};

inline ChildResult runInChild(const std::function<void()>& body) {
    int pipeFds[2];
    if (pipe(pipeFds) != 0) {
        std::abort();
    }
    const pid_t pid = fork();
    if (pid == 0) {
        close(pipeFds[0]);
        dup2(pipeFds[1], STDERR_FILENO);
        close(pipeFds[1]);
        body();
        _exit(0);
    }
    close(pipeFds[1]);
    ChildResult result;
    char chunk[4096];
    for (ssize_t n; (n = read(pipeFds[0], chunk, sizeof chunk)) > 0;) {
        result.stderrText.append(chunk, static_cast<size_t>(n));
    }
    close(pipeFds[0]);
    waitpid(pid, &result.status, 0);
    return result;
}

}  // namespace VelikTest
