// SPDX-License-Identifier: BSD-3-Clause
#include "child.h"

#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <stdexcept>

namespace {

// The child writes to files, so that neither side can block on the other.
std::string contentsOf(FILE* file) {
    std::rewind(file);
    std::string text;
    char part[4096];
    while (std::size_t count = std::fread(part, 1, sizeof part, file)) text.append(part, count);
    std::fclose(file);
    return text;
}

}  // namespace

ChildResult inChild(const std::function<int()>& work) {
    std::fflush(nullptr);
    FILE* out = std::tmpfile();
    FILE* err = std::tmpfile();
    if (!out || !err) throw std::runtime_error("tmpfile");
    const pid_t child = ::fork();
    if (child < 0) throw std::runtime_error("fork");
    if (child == 0) {
        ::dup2(::fileno(out), 1);
        ::dup2(::fileno(err), 2);
        const int status = work();
        std::fflush(nullptr);
        ::_exit(status);
    }
    int status = 0;
    while (::waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    ChildResult result;
    result.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    result.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    result.output = contentsOf(err);
    result.standardOutput = contentsOf(out);
    return result;
}
