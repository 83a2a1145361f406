// SPDX-License-Identifier: BSD-3-Clause
#include "packet_server_process.h"

#include <cvutil/cvPacketServer.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "network.h"

namespace {

std::string contentsOf(int fd) {
    std::string text;
    char part[65536];
    ssize_t count;
    while ((count = ::pread(fd, part, sizeof part, static_cast<off_t>(text.size()))) > 0)
        text.append(part, static_cast<std::size_t>(count));
    return text;
}

// Appends, as a shell's >> does: two processes that write there do not overwrite each other's lines.
int newFile() {
    const int fd = ::memfd_create("said", MFD_CLOEXEC);
    if (fd < 0) throw std::runtime_error("memfd_create");
    ::fcntl(fd, F_SETFL, O_APPEND);
    return fd;
}

}  // namespace

DaemonProcess::DaemonProcess(const Arguments& arguments, const std::function<void()>& beforeExec)
    : myOutput(newFile()), myErrors(newFile()) {
    std::vector<char*> argv{const_cast<char*>("cvpacketserver")};
    for (const std::string& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    myPid = ::fork();
    if (myPid < 0) throw std::runtime_error("fork");
    if (myPid > 0) return;
    ::dup2(myOutput, STDOUT_FILENO);
    ::dup2(myErrors, STDERR_FILENO);
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);
    if (beforeExec) beforeExec();
    ::execv(CVPACKETSERVER_BINARY, argv.data());
    ::_exit(126);
}

DaemonProcess::~DaemonProcess() {
    kill();
    ::close(myOutput);
    ::close(myErrors);
}

void DaemonProcess::signal(int number) const {
    ::kill(myPid, number);
}

bool DaemonProcess::isRunning() {
    if (!myIsFinished) myIsFinished = ::waitpid(myPid, &myStatus, WNOHANG) == myPid;
    return !myIsFinished;
}

std::string DaemonProcess::output() const {
    return contentsOf(myOutput);
}

std::string DaemonProcess::errors() const {
    return contentsOf(myErrors);
}

bool DaemonProcess::waitFor(const std::function<bool()>& condition) {
    eventually([&] { return condition() || !isRunning(); });
    return condition();
}

bool DaemonProcess::waitForOutput(const std::string& text) {
    return waitFor([&] { return output().find(text) != std::string::npos; });
}

bool DaemonProcess::waitForError(const std::string& text) {
    return waitFor([&] { return errors().find(text) != std::string::npos; });
}

DaemonResult DaemonProcess::finish() {
    eventually([this] { return !isRunning(); });
    return kill();
}

DaemonResult DaemonProcess::kill() {
    if (isRunning()) {
        ::kill(myPid, SIGKILL);
        ::waitpid(myPid, &myStatus, 0);
        myIsFinished = true;
    }
    DaemonResult result;
    result.exitStatus = WIFEXITED(myStatus) ? WEXITSTATUS(myStatus) : -1;
    result.signal = WIFSIGNALED(myStatus) ? WTERMSIG(myStatus) : 0;
    result.output = output();
    result.errors = errors();
    return result;
}

int DaemonProcess::descriptors() const {
    const std::filesystem::directory_iterator all("/proc/" + std::to_string(myPid) + "/fd");
    return static_cast<int>(std::distance(begin(all), end(all)));
}

DaemonResult cvpacketserver(const Arguments& arguments) {
    return DaemonProcess(arguments).finish();
}

RunDirectory::RunDirectory() {
    std::string path = "/tmp/serverXXXXXX";
    if (::mkdtemp(path.data()) == nullptr || ::chmod(path.c_str(), 0755) != 0)
        throw std::runtime_error("mkdtemp " + path);
    myPath = path;
}

RunDirectory::~RunDirectory() {
    std::filesystem::remove_all(myPath);
}

std::vector<std::string> RunDirectory::names() const {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(myPath))
        found.push_back(entry.path().filename());
    return found;
}

Server::Server(const Arguments& arguments) : myArguments(arguments), myPort(freePort()) {
    NwSetPacketServerDirectory(myDirectory.path().c_str());
    start();
}

Server::~Server() {
    myDaemon.reset();
    NwSetPacketServerDirectory(nullptr);
}

void Server::start() {
    Arguments all = {"--port", std::to_string(myPort), "--run-dir", myDirectory.path(), "--json"};
    all.insert(all.end(), myArguments.begin(), myArguments.end());
    myDaemon = std::make_unique<DaemonProcess>(all);
    if (!myDaemon->waitForOutput("\"event\":\"serving\""))
        throw std::runtime_error("no server: " + myDaemon->output() + myDaemon->errors());
}

void Server::startAgain() {
    myDaemon.reset();
    start();
}

std::string Server::requestPath() const {
    char path[NwPacketServerPathSize];
    NwPacketServerPathIn(myDirectory.path().c_str(), static_cast<unsigned>(myPort), path,
                         NwPacketServerVersion);
    return path;
}

std::vector<nlohmann::json> Server::events() const {
    return jsonLines(myDaemon->output());
}

nlohmann::json Server::lastEvent(const std::string& event) const {
    nlohmann::json last;
    for (const nlohmann::json& line : events())
        if (line.value("event", "") == event) last = line;
    return last;
}

int Server::countEvents(const std::string& event) const {
    int count = 0;
    for (const nlohmann::json& line : events()) count += line.value("event", "") == event;
    return count;
}

bool Server::waitForEvents(const std::string& event, int count) {
    return eventually([&] { return countEvents(event) >= count; });
}

void Server::stop() {
    myDaemon->signal(SIGTERM);
    const DaemonResult result = myDaemon->finish();
    EXPECT_EQ(result.exitStatus, 0) << result.signal << result.errors;
}
