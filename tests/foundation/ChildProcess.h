// Runs a piece of code in a forked child and hands back what it wrote to
// standard error and how it ended: for checking exactly what an aborting
// path prints, which a death-test regex cannot count.
#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

namespace VelikTest {

struct ChildResult {
    int status = 0;
    std::string stderrText;
};

inline ChildResult runInChild(const std::function<void()>& body) {
    FILE* output = std::tmpfile();  // shared with the child: read once it has ended
    const pid_t pid = fork();
    if (pid == 0) {
        dup2(fileno(output), STDERR_FILENO);
        body();
        _exit(0);
    }
    ChildResult result;
    waitpid(pid, &result.status, 0);
    std::rewind(output);
    for (int c; (c = std::fgetc(output)) != EOF;) {
        result.stderrText += static_cast<char>(c);
    }
    std::fclose(output);
    return result;
}

}  // namespace VelikTest
