// SPDX-License-Identifier: BSD-3-Clause
// The real cvpacketserver as a child process, with a run directory of its own.
#ifndef CVNC_TESTS_PACKET_SERVER_PROCESS_H
#define CVNC_TESTS_PACKET_SERVER_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "json_lines.h"

using Arguments = std::vector<std::string>;

struct DaemonResult {
    int exitStatus = -1;  // -1 when a signal ended it
    int signal = 0;
    std::string output;
    std::string errors;
};

// `cvpacketserver arguments`, whatever comes of it. Output and errors go to files, so that it never waits for
// this process. Killed and reaped at the end at the latest.
class DaemonProcess {
public:
    explicit DaemonProcess(const Arguments& arguments, const std::function<void()>& beforeExec = nullptr);
    ~DaemonProcess();
    DaemonProcess(const DaemonProcess&) = delete;
    DaemonProcess& operator=(const DaemonProcess&) = delete;

    pid_t pid() const { return myPid; }
    void signal(int number) const;
    bool isRunning();
    std::string output() const;
    std::string errors() const;
    // Waits until text is in its output, or errors; false when it ended or patience did before.
    bool waitForOutput(const std::string& text);
    bool waitForError(const std::string& text);
    // Waits for its end; kills it (and says signal 9) when patience ends.
    DaemonResult finish();
    // Ends it now and waits.
    DaemonResult kill();
    // Open descriptors of it now.
    int descriptors() const;

private:
    bool waitFor(const std::function<bool()>& condition);

    pid_t myPid = -1;
    int myOutput = -1;
    int myErrors = -1;
    bool myIsFinished = false;
    int myStatus = 0;
};

// Starts it and waits for its end.
DaemonResult cvpacketserver(const Arguments& arguments);

// A directory of its own, removed with what is in it, which every user can enter.
class RunDirectory {
public:
    RunDirectory();
    ~RunDirectory();
    RunDirectory(const RunDirectory&) = delete;
    RunDirectory& operator=(const RunDirectory&) = delete;

    const std::string& path() const { return myPath; }
    std::string file(const std::string& name) const { return myPath + '/' + name; }
    std::vector<std::string> names() const;

private:
    std::string myPath;
};

// A server at work on one port that the system chose, with JSON lines. Clients of this process and of its
// children find it while it lives.
class Server {
public:
    // Returns when it serves. `arguments` come behind port and directory.
    explicit Server(const Arguments& arguments = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    int port() const { return myPort; }
    pid_t pid() const { return myDaemon->pid(); }
    const RunDirectory& directory() const { return myDirectory; }
    // Where requests go.
    std::string requestPath() const;
    DaemonProcess& daemon() { return *myDaemon; }
    // A new process on the same port, in the same directory; the old one must have ended.
    void startAgain();

    // What it has said so far, and the last line with that event (a null object when there is none).
    std::vector<nlohmann::json> events() const;
    nlohmann::json lastEvent(const std::string& event) const;
    int countEvents(const std::string& event) const;
    bool waitForEvents(const std::string& event, int count = 1);

    // SIGTERM; fails the test unless it ends in order.
    void stop();
    void kill() { myDaemon->kill(); }

private:
    void start();

    RunDirectory myDirectory;
    const Arguments myArguments;
    const int myPort;
    std::unique_ptr<DaemonProcess> myDaemon;
};

#endif
