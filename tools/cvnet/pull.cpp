// SPDX-License-Identifier: BSD-3-Clause
// The library's transporter receives a whole file inside one call. What happens meanwhile is seen through
// the virtual operations that it calls on the way: the bar is drawn there, and a signal shuts down the
// connection that is being received from, which ends the call.
#include "pull.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <limits>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>

#include "address.h"
#include "failure.h"
#include "json_line.h"
#include "kept_failure.h"
#include "library.h"
#include "listening.h"
#include "options.h"
#include "output.h"
#include "progress.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

// Senders may use any size of message up to this: the library's default is 15000.
constexpr int kLargestMessage = 1 << 20;
// Less than a sender's usual 30: those that queue behind a silent one must not give up before it is dropped.
constexpr double kDefaultStallSeconds = 10.0;
constexpr int kMaxPort = 65535;
constexpr const char* kConnectionEnded = "FileTransporter: Socket error";

struct PullOptions {
    std::string directory;
    int port = 0;
    int searchedPorts = 0;    // 0: only that one
    std::uint64_t files = 0;  // 0: no limit
    StallOption stall{kDefaultStallSeconds};
    ReportOptions report;
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// The transporter would make a directory that is missing; a name mistyped must not do that.
void checkDirectory(const std::string& path) {
    struct stat status {};
    int error = ::stat(path.c_str(), &status) == 0 ? 0 : errno;
    if (error == 0 && !S_ISDIR(status.st_mode)) error = ENOTDIR;
    if (error == 0 && ::faccessat(AT_FDCWD, path.c_str(), W_OK | X_OK, AT_EACCESS) != 0) error = errno;
    if (error != 0)
        throw Failure(fmt::format("cannot put files into {}: {}", printable(path), errorText(error)));
}

// --- the transporter -------------------------------------------------------------------------------------

// A file that was written.
struct Arrival {
    std::string name;
    std::string path;
    Endpoint from;
    std::uint64_t bytes = 0;
    double seconds = 0.0;  // since its connection was accepted
};

// A connection that brought none, or a file that could not be kept.
struct Loss {
    std::string name;  // empty: not known
    Endpoint from;
    bool hasBegun = false;         // a message of it had come
    bool connectionEnded = false;  // and nothing else is to be said of it
    std::string reason;
};

class PullWatcher {
public:
    virtual ~PullWatcher() = default;
    virtual void arrived(const Arrival& arrival) = 0;
    virtual void lost(const Loss& loss) = 0;
    virtual void warned(const std::string& warning) = 0;
    /// Whether no further connection is wanted.
    virtual bool isOver() const = 0;
};

class Puller : public NwFileTransporter {
public:
    Puller(const PullOptions& options, ProgressBar& bar, PullWatcher& watcher);

    /// Receives what is there; throws what the watcher threw.
    void receive();
    /// Becomes readable with the next connection.
    int listeningFd() const { return mySocketMgr->readFd(); }

    void receiveFile(NwTcpSocket* socket) override;
    NwFileTransportObject& transportObject(int id) override;
    void finishFile(NwFileTransportObject& object) override;

private:
    void reportLosses();
    std::string reasonOf(const std::vector<std::string>& warnings) const;

    const double stallSeconds_;
    ProgressBar& bar_;
    PullWatcher& watcher_;
    KeptFailure failure_;
    // The connection that is being received from.
    Endpoint from_;
    Clock::time_point accepted_;
    std::string name_;  // of its file, once known
    bool hasBegun_ = false;
    std::string writtenPath_;  // set by the callback
};

void fileWritten(const NwFilename& path, void* writtenPath) {
    *static_cast<std::string*>(writtenPath) = path.c_str();
}

Puller::Puller(const PullOptions& options, ProgressBar& bar, PullWatcher& watcher)
    : NwFileTransporter(options.port, options.searchedPorts > 0, options.searchedPorts,
                        NwFilename(options.directory), nullptr),
      stallSeconds_(options.stall.seconds),
      bar_(bar),
      watcher_(watcher) {
    const std::string reason = takeLibraryReason(errorText(EADDRINUSE));
    const int last = std::min(options.port + options.searchedPorts - 1, kMaxPort);
    if (port() < 0 && last > options.port)
        throw Failure(fmt::format("cannot listen on any port of {} to {}: {}", options.port, last, reason));
    if (port() < 0) failToListen(options.port, reason);
    if (!listens(listeningFd())) failToListen(port(), errorText(EADDRINUSE));
    setReceiveStallLimit(stallSeconds_);
    addFileTransferedCallback(fileWritten, &writtenPath_);
}

void Puller::receive() {
    // The connection tests of tick() tell of connections that have ended, which is how they all end.
    NwSocket::setQuietSockets(true);
    tick();
    failure_.throwIfAny();
    for (const std::string& warning : takeLibraryWarnings()) watcher_.warned(warning);
}

void Puller::receiveFile(NwTcpSocket* socket) {
    if (failure_.any() || watcher_.isOver()) return socket->shutDown();
    from_ = {mySocketMgr->currentClientAddr(), static_cast<unsigned>(socket->peerPort())};
    accepted_ = Clock::now();
    name_.clear();
    hasBegun_ = false;
    takeLibraryWarnings();
    StopSignal::shutDownToo(socket->readFd());
    NwSocket::setQuietSockets(false);
    NwFileTransporter::receiveFile(socket);
    NwSocket::setQuietSockets(true);
    StopSignal::shutDownToo(-1);
    socket->shutDown();  // one connection, one file: tick() removes it now
    failure_.keep([&] {
        bar_.end();
        reportLosses();
    });
}

// Called for each message, before its bytes are taken in.
NwFileTransportObject& Puller::transportObject(int id) {
    NwFileTransportObject& object = NwFileTransporter::transportObject(id);
    if (!hasBegun_) bar_.begin();
    hasBegun_ = true;
    if (object.headerSeen) {
        failure_.keep([&] {
            if (name_.empty()) name_ = object.fileName.c_str();
            if (bar_.isDue()) {
                bar_.show(printable(name_), static_cast<std::uint64_t>(object.bytesReceived),
                          static_cast<std::uint64_t>(object.dataSize));
            }
        });
    }
    return object;
}

void Puller::finishFile(NwFileTransportObject& object) {
    Arrival arrival;
    failure_.keep([&] {
        bar_.end();
        arrival.name = name_ = object.fileName.c_str();
        arrival.from = from_;
        arrival.bytes = static_cast<std::uint64_t>(object.dataSize);
    });
    writtenPath_.clear();
    NwFileTransporter::finishFile(object);  // the object is gone afterwards
    if (writtenPath_.empty()) return;       // the warning is reported with the connection's others
    failure_.keep([&] {
        arrival.path = writtenPath_;
        arrival.seconds = secondsSince(accepted_);
        watcher_.arrived(arrival);
    });
}

void Puller::reportLosses() {
    const std::vector<std::string> warnings = takeLibraryWarnings();
    if (warnings.empty()) return;
    Loss loss;
    loss.name = name_;
    loss.from = from_;
    loss.hasBegun = hasBegun_;
    loss.connectionEnded = warnings.size() == 1 && warnings.back().rfind(kConnectionEnded, 0) == 0;
    loss.reason = StopSignal::raised() ? "interrupted" : reasonOf(warnings);
    watcher_.lost(loss);
}

// The library's last word on a connection in words for a person, and what the socket said before.
std::string Puller::reasonOf(const std::vector<std::string>& warnings) const {
    const struct {
        const char* start;
        std::string words;
    } known[] = {
        {kConnectionEnded, "the connection ended too early"},
        {"FileTransporter: no progress", fmt::format("nothing more came for {:g} s", stallSeconds_)},
        {"FileTransporter: malformed message", "these are no messages of a file transfer"},
        {"FileTransporter: no memory", "not enough memory"},
        {"NwFileTransporter: cant create file",
         "it cannot be created (is a directory, or something else that is no regular file, in its place?)"},
        {"NwFileTransporter: Error writing file", "it cannot be written (is the disk full?)"}};
    std::string reason = warnings.back();
    for (const auto& candidate : known) {
        if (reason.rfind(candidate.start, 0) == 0) reason = candidate.words;
    }
    for (std::size_t i = 0; i + 1 < warnings.size(); ++i)
        reason += fmt::format(" ({})", reasonIn(warnings[i]));
    return reason;
}

// --- one run ---------------------------------------------------------------------------------------------

class PullRun : public PullWatcher {
public:
    PullRun(const PullOptions& options, Output& out)
        : options_(options),
          out_(out),
          bar_(out, !options.report.json && !options.report.quiet),
          puller_(options, bar_, *this) {}

    void announce();
    void pullAll();
    void printTotals();

    void arrived(const Arrival& arrival) override;
    void lost(const Loss& loss) override;
    void warned(const std::string& warning) override { warningLine(warning); }
    bool isOver() const override {
        return StopSignal::raised() || out_.closed() || (options_.files != 0 && files_ >= options_.files);
    }

private:
    std::string totalsText() const;
    std::string totalsJson() const;

    const PullOptions& options_;
    Output& out_;
    ProgressBar bar_;
    std::uint64_t files_ = 0;
    std::uint64_t lost_ = 0;
    std::uint64_t bytes_ = 0;
    double seconds_ = 0.0;  // of the transfers
    Puller puller_;
};

void PullRun::announce() {
    if (options_.report.json) {
        out_.line(jsonLine({{"event", "listening"}, {"port", puller_.port()}, {"dir", options_.directory}}));
    } else {
        out_.line(fmt::format("listening on port {}, files go to {}", puller_.port(),
                              printable(options_.directory)));
    }
    out_.flush();
}

void PullRun::pullAll() {
    while (!isOver()) {
        puller_.receive();
        out_.flush();
        if (!isOver() && !StopSignal::wait(puller_.listeningFd(), std::nullopt)) out_.lookForReader();
    }
}

void PullRun::arrived(const Arrival& arrival) {
    ++files_;
    bytes_ += arrival.bytes;
    seconds_ += arrival.seconds;
    if (options_.report.json) {
        nlohmann::ordered_json json = {{"event", "file"},
                                       {"name", arrival.name},
                                       {"path", arrival.path},
                                       {"from", addressText(arrival.from.addrHostOrder)},
                                       {"port", arrival.from.port},
                                       {"bytes", arrival.bytes},
                                       {"seconds", arrival.seconds},
                                       {"bytesPerSecond", nullptr}};
        if (arrival.seconds > 0.0)
            json["bytesPerSecond"] = static_cast<double>(arrival.bytes) / arrival.seconds;
        out_.line(jsonLine(json));
    } else if (!options_.report.quiet) {
        out_.line(fmt::format("{}: {} from {} in {:.3f} s, {}", printable(arrival.name),
                              counted(arrival.bytes, "byte"), arrival.from.text(), arrival.seconds,
                              rateText(arrival.bytes, arrival.seconds)));
    }
    out_.flush();
}

void PullRun::lost(const Loss& loss) {
    out_.flush();
    if (!loss.hasBegun && loss.connectionEnded) {
        if (StopSignal::raised()) return;
        warningLine(fmt::format("{} connected and left before a file had begun, as with an empty file",
                                loss.from.text()));
        return;
    }
    ++lost_;
    if (options_.report.json) {
        nlohmann::ordered_json json = {{"event", "lost"},
                                       {"name", nullptr},
                                       {"from", addressText(loss.from.addrHostOrder)},
                                       {"port", loss.from.port},
                                       {"reason", loss.reason}};
        if (!loss.name.empty()) json["name"] = loss.name;
        out_.line(jsonLine(json));
        out_.flush();
    }
    warningLine(fmt::format("{} from {} is lost: {}", loss.name.empty() ? "a file" : printable(loss.name),
                            loss.from.text(), loss.reason));
}

std::string PullRun::totalsText() const {
    std::string text =
        fmt::format("pulled {}, {} in {:.3f} s", counted(files_, "file"), counted(bytes_, "byte"), seconds_);
    if (bytes_ != 0) text += ", " + rateText(bytes_, seconds_);
    if (lost_ != 0) text += fmt::format("; {} lost", lost_);
    return text;
}

std::string PullRun::totalsJson() const {
    return jsonLine(
        {{"event", "totals"}, {"files", files_}, {"lost", lost_}, {"bytes", bytes_}, {"seconds", seconds_}});
}

void PullRun::printTotals() {
    out_.erase();
    out_.line(options_.report.json ? totalsJson() : out_.styled(1, totalsText()));
    out_.flush();
}

class PullCommand : public Command {
public:
    const char* name() const override { return "pull"; }
    const char* purpose() const override {
        return "Receive whole files from cvnet push or another transporter";
    }
    void addOptions(CLI::App& app) override;
    int run() override;

private:
    PullOptions options_;
};

void PullCommand::addOptions(CLI::App& app) {
    app.add_option("--dir", options_.directory,
                   "Put files into this directory, in place of those of their names")
        ->type_name("DIR")
        ->required();
    app.add_option("--port", options_.port, "TCP port to listen on, 0 for any free one")
        ->check(range(0, kMaxPort))
        ->type_name("P")
        ->required();
    app.add_option("--search", options_.searchedPorts, "Take the first free port of P to P+N-1")
        ->check(range(1, kMaxPort + 1))
        ->type_name("N");
    app.add_option("--once", options_.files, "Stop after N files")->check(wholeNumberFrom(1))->type_name("N");
    options_.stall.declare(app, "Drop a connection when no message has come for S seconds");
    options_.report.declare(app);
    app.footer(
        "A file appears when all of it has come, or not at all. Nothing is encrypted or authenticated: "
        "whoever\n"
        "reaches the port puts files into DIR.\n"
        "\n"
        "Examples:\n"
        "  cvnet pull --dir inbox --port 4000\n"
        "  cvnet pull --dir inbox --port 4000 --search 10 --once 1 --json");
}

int PullCommand::run() {
    options_.stall.check();
    checkDirectory(options_.directory);
    NwSetMaxPacketSize(kLargestMessage);
    Output out;
    PullRun run(options_, out);
    run.announce();
    try {
        run.pullAll();
    } catch (const Failure&) {
        run.printTotals();
        throw;
    }
    run.printTotals();
    return kExitOk;
}

}  // namespace

std::unique_ptr<Command> makePullCommand() {
    return std::make_unique<PullCommand>();
}

}  // namespace cvnet
