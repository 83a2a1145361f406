// SPDX-License-Identifier: BSD-3-Clause
// A file from one tmpfs directory to another over loopback: the transporter beside loops by hand, and the
// memory that both of its ends take. A round is a whole file, so there are a quarter as many pairs as asked
// for.
#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <cvutil/cvOutput.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "bare_files.h"
#include "report.h"
#include "traffic.h"

namespace {

const std::size_t kMiB = std::size_t{1} << 20;
const std::size_t kFileBytes = 256 * kMiB;
const std::size_t kQuickBytes = 4 * kMiB;
const Floor kFloor = {0.97, 0};  // processor time is told
const double kAllowanceMiB = 8;  // beyond the file, for either end

// A directory in memory with the file to send; gone when the process that made it ends.
class Files {
public:
    explicit Files(std::size_t newSize) : size(newSize), owner(::getpid()) {
        std::string name = "/dev/shm/file_benchXXXXXX";
        if (!::mkdtemp(&name[0])) fail("cannot make a directory in /dev/shm");
        directory = name;
        std::filesystem::create_directory(inbox());
        std::vector<char> bytes(size);
        for (std::size_t i = 0; i < size; ++i) bytes[i] = static_cast<char>(i * 2654435761u >> 13);
        std::ofstream(source(), std::ios::binary).write(bytes.data(), static_cast<std::streamsize>(size));
        if (std::filesystem::file_size(source()) != size) fail("cannot write " + source());
    }
    ~Files() {
        std::error_code ignored;
        if (::getpid() == owner) std::filesystem::remove_all(directory, ignored);
    }
    Files(const Files&) = delete;
    Files& operator=(const Files&) = delete;

    std::string source() const { return directory + "/tile.dat"; }
    std::string inbox() const { return directory + "/inbox"; }
    std::string target() const { return inbox() + "/tile.dat"; }
    // Looks at what arrived and takes it away.
    void check() const {
        std::ifstream a(source(), std::ios::binary), b(target(), std::ios::binary);
        std::vector<char> x(kMiB), y(kMiB);
        for (std::size_t left = size; left > 0; left -= std::min(left, kMiB)) {
            const std::streamsize count = static_cast<std::streamsize>(std::min(left, kMiB));
            if (!a.read(x.data(), count) || !b.read(y.data(), count) ||
                std::memcmp(x.data(), y.data(), static_cast<std::size_t>(count)) != 0)
                fail("another file came than was sent");
        }
        ::unlink(target().c_str());
    }

    const std::size_t size;

private:
    const pid_t owner;
    std::string directory;
};

// --- the library -----------------------------------------------------------------------------------------

void count(const NwFilename&, void* files) {
    ++*static_cast<int*>(files);
}

// Waits for connections instead of looking for them again and again.
class Receiver : public NwFileTransporter {
public:
    explicit Receiver(const std::string& directory)
        : NwFileTransporter(0, false, 1, directory.c_str(), nullptr) {
        if (port() < 0) fail("cannot listen");
        addFileTransferedCallback(count, &files);
    }
    void receiveOne() {
        for (const int before = files; files == before;) {
            pollfd listening = {mySocketMgr->readFd(), POLLIN, 0};
            ::poll(&listening, 1, -1);
            tick();
        }
    }

private:
    int files = 0;
};

void librarySend(const Files& files, int port) {
    NwFileTransporter sender(-1, false, 0, "", nullptr);
    if (!sender.sendFile(files.source().c_str(), loopbackAddr, port) || !sender.lastSendComplete())
        fail("the library cannot send");
}

// --- rounds ----------------------------------------------------------------------------------------------

// One thread sends while this one receives; from the start until the file is written.
Cost inTwoThreads(const Files& files, const std::function<void()>& send,
                  const std::function<void()>& receive) {
    const AllThreads watch;
    std::thread sender(send);
    receive();
    sender.join();
    const Cost cost = watch.elapsed();
    files.check();
    return cost;
}

Cost libraryRound(const Files& files, Receiver& receiver) {
    return inTwoThreads(
        files, [&] { librarySend(files, receiver.port()); }, [&] { receiver.receiveOne(); });
}

using BareSend = void (*)(const std::string& path, int fd);
using BareReceive = void (*)(int fd, const std::string& path);

Cost bareRound(const Files& files, BareSend send, BareReceive receive) {
    const Descriptor listener(openListener());
    return inTwoThreads(
        files,
        [&] {
            const Descriptor fd(bareConnect(portOf(listener)));
            send(files.source(), fd);
        },
        [&] {
            const Descriptor fd(::accept(listener, nullptr, nullptr));
            receive(fd, files.target());
        });
}

double median(std::vector<double> values) {
    return spreadOf(std::move(values)).median;
}

void rates(Report& report, const Files& files) {
    report.heading("a file of " + std::to_string(files.size / kMiB) +
                   " MiB from tmpfs to tmpfs; per KiB; all threads' processor time");
    Receiver receiver(files.inbox());
    const struct {
        const char* name;
        BareSend send;
        BareReceive receive;
        Floor floor;
    } loops[] = {{"whole in memory", bareSendWhole, bareReceiveWhole, kFloor},
                 {"streamed", bareSendStreamed, bareReceiveStreamed, kToldOnly},
                 {"sendfile, splice", bareSendFile, bareSplice, kToldOnly}};
    for (const auto& loop : loops) {
        std::vector<double> bareRates, libraryRates;
        const auto megabytes = [&](const Cost& cost) {
            return static_cast<double>(files.size) / cost.wallSeconds / 1e6;
        };
        report.compare(
            loop.name, static_cast<int>(files.size / 1024), loop.floor,
            [&] {
                const Cost cost = bareRound(files, loop.send, loop.receive);
                bareRates.push_back(megabytes(cost));
                return cost;
            },
            [&] {
                const Cost cost = libraryRound(files, receiver);
                libraryRates.push_back(megabytes(cost));
                return cost;
            });
        if (!bareRates.empty())
            report.figures(std::string("  ") + loop.name, "MB/s",
                           {{"bare", median(bareRates)}, {"library", median(libraryRates)}});
    }
}

// --- memory ----------------------------------------------------------------------------------------------

double statusMiB(const char* field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field, 0) == 0) return std::stod(line.substr(line.find(':') + 1)) / 1024;
    }
    fail(std::string("no ") + field + " in /proc/self/status");
}

// Does the work in a process of its own, and tells how much memory that took beyond what it had before.
class PeakOf {
public:
    explicit PeakOf(const std::function<void()>& work) {
        std::fflush(stdout);  // once, not in each process
        int ends[2];
        if (::pipe(ends) != 0 || (pid = ::fork()) < 0) fail("cannot start a process");
        result = ends[0];
        if (pid != 0) {
            ::close(ends[1]);
            return;
        }
        ::close(ends[0]);
        const double before = statusMiB("VmRSS");
        work();
        const double peak = statusMiB("VmHWM") - before;
        if (::write(ends[1], &peak, sizeof peak) != sizeof peak) ::_exit(1);
        ::_exit(0);
    }
    double take() {
        double peak = 0;
        if (::read(result, &peak, sizeof peak) != sizeof peak) fail("a process failed");
        ::close(result);
        ::waitpid(pid, nullptr, 0);
        return peak;
    }

private:
    pid_t pid = -1;
    int result = -1;
};

void memory(Report& report, const Files& files) {
    if (!report.wants("memory")) return;
    report.heading("memory: the peak of each end beyond an idle process with a transporter");
    Receiver receiver(files.inbox());
    PeakOf receiving([&] { receiver.receiveOne(); });
    PeakOf sending([&] { librarySend(files, receiver.port()); });
    const double sender = sending.take(), receiverPeak = receiving.take();
    files.check();
    report.limited("memory", "MiB", {{"sender", sender}, {"receiver", receiverPeak}},
                   static_cast<double>(files.size) / kMiB + kAllowanceMiB);
}

}  // namespace

int main(int argc, char** argv) {
    Options options = readOptions(argc, argv);
    options.pairs = std::max(1, options.pairs / 4);
    NwSocket::setQuietSockets(true);
    NwInfo.rdbuf(nullptr);
    Report report(options);
    static const Files files(options.quick ? kQuickBytes : kFileBytes);  // removed also when a part fails
    memory(report, files);                                               // first, while this process is small
    rates(report, files);
    report.finish();
    return 0;
}
