// Runs a piece of code in a forked child and hands back what it wrote to
// standard error and how it ended: for checking exactly what an aborting
// path prints, which a death-test regex cannot count.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <string>

namespace VelikTest {

struct ChildResult {
    int status = 0;
    std::string stderrText;
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
