// SPDX-License-Identifier: BSD-3-Clause
#include "daemon.h"

#include <signal.h>
#include <sys/resource.h>
#include <sys/signalfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include <cvutil/cvOutput.h>
#include <cvutil/cvPacketServer.h>

#include "event_loop.h"
#include "log.h"

namespace packetserver {

namespace {

using Clock = std::chrono::steady_clock;

constexpr std::chrono::milliseconds tickLength(1000);
constexpr int largestDatagram = 65535;

/// Tells the service manager, when there is one (sd_notify's protocol: one datagram to $NOTIFY_SOCKET).
void notifyServiceManager(const char* state) {
    const char* path = std::getenv("NOTIFY_SOCKET");
    if (path == nullptr || (path[0] != '/' && path[0] != '@')) return;
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address.sun_path) return;
    std::memcpy(address.sun_path, path, length);
    if (path[0] == '@') address.sun_path[0] = '\0';
    const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) return;
    ::sendto(fd, state, std::strlen(state), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&address),
             static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length));
    ::close(fd);
}

/// Where request sockets go when the command line does not say. Empty, errno set: nowhere.
std::string defaultDirectory() {
    const char* service = std::getenv("RUNTIME_DIRECTORY");
    if (service != nullptr && service[0] == '/')
        return std::string(service, std::strcspn(service, ":"));  // the first of them
    if (::geteuid() == 0) {
        const char* const common = "/run/cvpacketserver";
        if (::mkdir(common, 0755) != 0) return errno == EEXIST ? common : "";
        ::chmod(common, 0755);  // whatever the umask: others may be allowed to attach
        return common;
    }
    char own[NwPacketServerPathSize];
    return NwPacketServerOwnDirectory(own) ? own : "";
}

/// What defaultDirectory() tries last, for who reads that it failed.
std::string usualDirectory() {
    return ::geteuid() == 0 ? "/run/cvpacketserver"
                            : fmt::format("/tmp/cvpacketserver-{}", static_cast<unsigned>(::geteuid()));
}

class Daemon {
public:
    explicit Daemon(Options options)
        : options_(std::move(options)), log_(options_.isJson, options_.logFile) {}
    ~Daemon() {
        if (signalFd_ >= 0) ::close(signalFd_);
    }

    int run() {
        if (!prepare() || !startServers()) return 1;
        notifyServiceManager("READY=1");
        Clock::time_point nextTick = Clock::now() + tickLength;
        while (!isStopping_ && !servers_.empty()) attempt([&] { takeTurn(nextTick); });
        notifyServiceManager("STOPPING=1");
        attempt([this] { logStatistics(); });
        servers_.clear();
        attempt([this] { log_.event({{"event", "stopped"}}, "stopped"); });
        return 0;
    }

private:
    /// Work that finds no memory stays half done: it costs a request or a line, not the server nor its end.
    template <class Work>
    void attempt(Work work) {
        try {
            work();
        } catch (const std::bad_alloc&) {
            log_.outOfMemory();
        }
    }

    bool fail(const std::string& problem) {
        log_.event({{"event", "error"}, {"problem", problem}}, problem);
        return false;
    }

    bool prepare() {
        if (!log_.open()) {
            const int error = errno;
            fmt::print(stderr, "cvpacketserver: cannot open {}: {}\n", options_.logFile,
                       std::strerror(error));
            return false;
        }
        if (options_.server.directory.empty()) options_.server.directory = defaultDirectory();
        if (options_.server.directory.empty())
            return fail(fmt::format(
                "no directory for request sockets: {}: {}", usualDirectory(),
                errno == EPERM ? "not a directory of this user's that nobody else may enter (mode 0700)"
                               : std::strerror(errno)));
        raiseDescriptorLimit();
        NwSocket::setQuietSockets(true);  // problems are logged here, and once
        NwNetSocket::initErrorAction = 1;
        theMaxPacketSize = largestDatagram;
        return (loop_.isOk() && catchSignals()) || fail(std::strerror(errno));
    }

    void takeTurn(Clock::time_point& nextTick) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(nextTick - Clock::now());
        loop_.runOnce(std::max(left, std::chrono::milliseconds(0)) + std::chrono::milliseconds(1));
        if (Clock::now() >= nextTick) {
            nextTick = Clock::now() + tickLength;
            tick();
        }
        endStopped();
    }

    // Each client takes two descriptors, and the usual limit is there for the sake of select() alone.
    static void raiseDescriptorLimit() {
        rlimit limit{};
        if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) return;
        limit.rlim_cur = limit.rlim_max;
        ::setrlimit(RLIMIT_NOFILE, &limit);
    }

    // Whoever runs it under nohup does not want SIGHUP to end it.
    bool catchSignals() {
        ::signal(SIGPIPE, SIG_IGN);
        sigset_t caught;
        ::sigemptyset(&caught);
        for (const int number : {SIGINT, SIGTERM}) ::sigaddset(&caught, number);
        struct sigaction hangUp {};
        ::sigaction(SIGHUP, nullptr, &hangUp);
        if (hangUp.sa_handler != SIG_IGN || !options_.logFile.empty()) ::sigaddset(&caught, SIGHUP);
        ::sigprocmask(SIG_BLOCK, &caught, nullptr);
        signalFd_ = ::signalfd(-1, &caught, SFD_CLOEXEC | SFD_NONBLOCK);
        return signalFd_ >= 0 && loop_.add(signalFd_, [this] { takeSignal(); });
    }

    void takeSignal() {
        signalfd_siginfo info{};
        if (::read(signalFd_, &info, sizeof info) != static_cast<ssize_t>(sizeof info)) return;
        if (info.ssi_signo != SIGHUP || options_.logFile.empty())
            isStopping_ = true;
        else if (!log_.open())
            fail(fmt::format("cannot open {}: {}", options_.logFile, std::strerror(errno)));
    }

    bool startServers() {
        for (const int port : options_.ports) {
            servers_.push_back(std::make_unique<Server>(port, options_.server, loop_, log_));
            if (!servers_.back()->start())
                return fail(fmt::format("port {}: {}", port, servers_.back()->problem()));
        }
        return true;
    }

    void tick() {
        for (const auto& server : servers_) server->tick();
        if (options_.statisticsSeconds == 0 || ++ticks_ % options_.statisticsSeconds != 0) return;
        logStatistics();
    }

    void logStatistics() {
        for (const auto& server : servers_) server->logStatistics();
    }

    void endStopped() {
        for (auto server = servers_.begin(); server != servers_.end();) {
            if (!(*server)->isAskedToStop()) {
                ++server;
                continue;
            }
            (*server)->logStatistics();
            server = servers_.erase(server);
        }
    }

    Options options_;
    Log log_;
    EventLoop loop_;
    int signalFd_ = -1;
    bool isStopping_ = false;
    unsigned ticks_ = 0;
    std::vector<std::unique_ptr<Server>> servers_;  // before the loop goes
};

}  // namespace

int runDaemon(Options options) {
    return Daemon(std::move(options)).run();
}

}  // namespace packetserver
