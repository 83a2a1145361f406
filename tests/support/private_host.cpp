// SPDX-License-Identifier: BSD-3-Clause
#include "private_host.h"

#include <dirent.h>
#include <fcntl.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <vector>

namespace {

std::string problem = "not tried";

bool failed(const char* what) {
    problem = std::string(what) + ": " + std::strerror(errno);
    return false;
}

// An empty /tmp, in which the build and the test data are still where they were.
bool privateTmp() {
    std::vector<std::pair<std::string, int>> kept;
    for (const char* path : {CVNC_TEST_BUILD_DIR, CVNC_TEST_DATA})
        if (std::strncmp(path, "/tmp/", 5) == 0)
            kept.emplace_back(path, ::open(path, O_PATH | O_DIRECTORY | O_CLOEXEC));
    if (::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) != 0) return failed("mount /");
    if (::mount("tmpfs", "/tmp", "tmpfs", 0, "mode=1777") != 0) return failed("mount /tmp");
    for (const auto& [path, fd] : kept) {
        std::error_code error;
        std::filesystem::create_directories(path, error);
        const std::string from = "/proc/self/fd/" + std::to_string(fd);
        if (::mount(from.c_str(), path.c_str(), nullptr, MS_BIND | MS_REC, nullptr) != 0)
            return failed("mount what is in /tmp");
        ::close(fd);
    }
    return true;
}

bool enter() {
    if (::unshare(CLONE_NEWIPC | CLONE_NEWNS) != 0) return failed("unshare");
    return privateTmp();
}

// The lines of a table of the system, without its heading.
std::vector<std::string> linesOf(const char* table) {
    std::ifstream file(table);
    std::vector<std::string> lines;
    std::string line;
    for (std::getline(file, line); std::getline(file, line);) lines.push_back(line);
    return lines;
}

std::vector<std::string> notifyPaths() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/tmp")) {
        const std::string name = entry.path().filename();
        if (name.rfind("cvc", 0) == 0 || name.rfind(".cv", 0) == 0) names.push_back(entry.path());
    }
    return names;
}

}  // namespace

bool hasPrivateHost() {
    static const bool isPrivate = enter();
    return isPrivate;
}

const std::string& privateHostProblem() {
    return problem;
}

bool canBecomeOthers() {
    const pid_t child = ::fork();
    if (child == 0) ::_exit(::setgid(kOtherUser) == 0 && ::setuid(kOtherUser) == 0 ? 0 : 1);
    int status = 0;
    return ::waitpid(child, &status, 0) == child && WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

std::string leftovers() {
    std::string text;
    for (const std::string& line : linesOf("/proc/sysvipc/shm")) text += "segment " + line + '\n';
    for (const std::string& line : linesOf("/proc/sysvipc/sem")) text += "set " + line + '\n';
    for (const std::string& path : notifyPaths()) text += path + '\n';
    return text;
}

int segmentsThere() {
    return static_cast<int>(linesOf("/proc/sysvipc/shm").size());
}

int setsThere() {
    return static_cast<int>(linesOf("/proc/sysvipc/sem").size());
}

int notifyPathsThere() {
    return static_cast<int>(notifyPaths().size());
}
