// SPDX-License-Identifier: BSD-3-Clause
#include "cvnet_process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <sstream>
#include <stdexcept>

#include "network.h"

namespace {

using Clock = std::chrono::steady_clock;

Clock::time_point deadline() {
    return Clock::now() + std::chrono::milliseconds(kPatienceMilliseconds);
}

[[noreturn]] void execCvnet(const Arguments& arguments, const std::function<void()>& beforeExec) {
    std::vector<char*> argv{const_cast<char*>("cvnet")};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    ::signal(SIGPIPE, SIG_DFL);
    if (beforeExec) beforeExec();
    ::execv(CVNET_BINARY, argv.data());
    ::_exit(126);
}

}  // namespace

CvnetProcess::CvnetProcess(const Arguments& arguments, Where where, const std::function<void()>& beforeExec) {
    int outputPipe[2] = {-1, -1};
    int errorPipe[2] = {-1, -1};
    int terminal[2] = {-1, -1};
    winsize size = {50, 160, 0, 0};
    if (where == onTerminal ? ::openpty(&terminal[0], &terminal[1], nullptr, nullptr, &size) != 0
                            : ::pipe2(outputPipe, O_CLOEXEC) != 0 || ::pipe2(errorPipe, O_CLOEXEC) != 0) {
        throw std::runtime_error("no pipes or no terminal");
    }
    myPid = ::fork();
    if (myPid < 0) throw std::runtime_error("fork");
    if (myPid == 0) {
        ::dup2(where == onTerminal ? terminal[1] : outputPipe[1], STDOUT_FILENO);
        ::dup2(where == onTerminal ? terminal[1] : errorPipe[1], STDERR_FILENO);
        if (where == onTerminal) {
            ::close(terminal[0]);
            ::close(terminal[1]);
            setVariable("TERM", "xterm");
        }
        execCvnet(arguments, beforeExec);
    }
    ::close(where == onTerminal ? terminal[1] : outputPipe[1]);
    if (where == inPipes) ::close(errorPipe[1]);
    myOutput = where == onTerminal ? terminal[0] : outputPipe[0];
    myErrors = errorPipe[0];
    for (int fd : {myOutput, myErrors}) {
        if (fd >= 0) ::fcntl(fd, F_SETFL, O_NONBLOCK);
    }
}

CvnetProcess::~CvnetProcess() {
    if (!myIsFinished) {
        ::kill(myPid, SIGKILL);
        ::waitpid(myPid, nullptr, 0);
    }
    if (myOutput >= 0) ::close(myOutput);
    if (myErrors >= 0) ::close(myErrors);
}

void CvnetProcess::signal(int number) const {
    ::kill(myPid, number);
}

void CvnetProcess::take(int& fd, std::string& into) {
    char buffer[65536];
    for (;;) {
        const ssize_t count = ::read(fd, buffer, sizeof buffer);
        if (count > 0) {
            into.append(buffer, static_cast<size_t>(count));
            continue;
        }
        if (count < 0 && errno == EINTR) continue;
        if (count < 0 && errno == EAGAIN) return;
        ::close(fd);  // the end; a terminal says EIO
        fd = -1;
        return;
    }
}

// False when both ends are closed.
bool CvnetProcess::readSome() {
    if (myOutput < 0 && myErrors < 0) return false;
    pollfd watched[2] = {{myOutput, POLLIN, 0}, {myErrors, POLLIN, 0}};
    ::poll(watched, 2, 20);
    if (myOutput >= 0) take(myOutput, myResult.output);
    if (myErrors >= 0) take(myErrors, myResult.errors);
    return true;
}

bool CvnetProcess::waitFor(const std::string& text, const std::string& in) {
    const auto end = deadline();
    while (in.find(text) == std::string::npos) {
        if (Clock::now() > end || !readSome()) return in.find(text) != std::string::npos;
    }
    return true;
}

bool CvnetProcess::waitForOutput(const std::string& text) {
    return waitFor(text, myResult.output);
}
bool CvnetProcess::waitForError(const std::string& text) {
    return waitFor(text, myResult.errors);
}

bool CvnetProcess::outputHas(const std::string& text) {
    readSome();
    return myResult.output.find(text) != std::string::npos;
}

int CvnetProcess::listeningPort() {
    if (!waitForOutput("listening") || !waitForOutput("\n")) {
        ADD_FAILURE() << "no listening line: " << myResult.output << myResult.errors;
        return 0;
    }
    const std::string& text = myResult.output;
    const size_t digits = text.find_first_of("0123456789", text.find("port", text.find("listening")));
    return digits == std::string::npos ? 0 : std::atoi(text.c_str() + digits);
}

void CvnetProcess::closeOutput() {
    ::close(myOutput);
    myOutput = -1;
}

CvnetResult CvnetProcess::finish() {
    const auto end = deadline();
    int status = 0;
    pid_t waited = 0;
    while ((waited = ::waitpid(myPid, &status, WNOHANG)) == 0 && Clock::now() < end) {
        if (!readSome()) ::usleep(1000);
    }
    if (waited == 0) {
        ::kill(myPid, SIGKILL);
        ::waitpid(myPid, &status, 0);
    }
    myIsFinished = true;
    while (readSome()) {
        if (Clock::now() > end) break;
    }
    myResult.exitStatus = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    myResult.signal = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    return myResult;
}

void setVariable(const char* name, const char* value) {
    ::setenv(name, value, 1);  // NOLINT(concurrency-mt-unsafe): between fork and exec there is one thread
}

CvnetResult cvnet(const Arguments& arguments) {
    return CvnetProcess(arguments).finish();
}

std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) lines.push_back(line);
    return lines;
}

nlohmann::json eventOf(const std::vector<nlohmann::json>& lines, const std::string& event) {
    for (const nlohmann::json& line : lines) {
        if (line.value("event", "") == event) return line;
    }
    ADD_FAILURE() << "no event " << event;
    return nlohmann::json::object();
}

std::vector<std::pair<int, int>> pdusByType(const nlohmann::json& totals) {
    std::vector<std::pair<int, int>> types;
    for (const nlohmann::json& entry : totals.value("types", nlohmann::json::array())) {
        types.emplace_back(entry.value("type", -1), entry.value("pdus", -1));
    }
    return types;
}

TestDirectory::TestDirectory() {
    std::string path = testing::TempDir() + "cvnetXXXXXX";
    if (::mkdtemp(path.data()) == nullptr) throw std::runtime_error("mkdtemp " + path);
    myPath = path;
}

TestDirectory::~TestDirectory() {
    std::filesystem::remove_all(myPath);
}
