// SPDX-License-Identifier: BSD-3-Clause
// Runs a piece of a test in a process of its own and tells how it ended and what it wrote: for whatever ends
// a process.
#ifndef CVUTIL_TESTS_CHILDPROCESS_H
#define CVUTIL_TESTS_CHILDPROCESS_H

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <string>

struct ChildResult {
    int status = -1;     // as waitpid gives it
    std::string output;  // standard output
    std::string errors;  // standard error

    bool exitedWith(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool diedOf(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

// The exit status of a child whose body came to its end.
const int kBodyReturned = 77;

inline ChildResult runInChild(const std::function<void()>& body) {
    int outputPipe[2];
    int errorPipe[2];
    ChildResult result;
    if (::pipe(outputPipe) != 0 || ::pipe(errorPipe) != 0) return result;
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::prctl(PR_SET_PDEATHSIG, SIGKILL);  // a child that hangs goes with the test that is stopped
        ::dup2(outputPipe[1], STDOUT_FILENO);
        ::dup2(errorPipe[1], STDERR_FILENO);
        for (int fd : {outputPipe[0], outputPipe[1], errorPipe[0], errorPipe[1]}) ::close(fd);
        body();
        ::_exit(kBodyReturned);
    }
    ::close(outputPipe[1]);
    ::close(errorPipe[1]);
    pollfd ends[2] = {{outputPipe[0], POLLIN, 0}, {errorPipe[0], POLLIN, 0}};
    std::string* texts[2] = {&result.output, &result.errors};
    while (ends[0].fd >= 0 || ends[1].fd >= 0) {
        ::poll(ends, 2, -1);
        for (int i = 0; i < 2; ++i) {
            if (ends[i].fd < 0 || !ends[i].revents) continue;
            char buffer[65536];
            const ssize_t got = ::read(ends[i].fd, buffer, sizeof buffer);
            if (got > 0)
                texts[i]->append(buffer, static_cast<std::size_t>(got));
            else
                ends[i].fd = -1;
        }
    }
    ::close(outputPipe[0]);
    ::close(errorPipe[0]);
    ::waitpid(pid, &result.status, 0);
    return result;
}

#endif
