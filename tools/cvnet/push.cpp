// SPDX-License-Identifier: BSD-3-Clause
// One file after the other goes through the library's transporter, which this derives from to see how a
// transfer goes and to wait, at its end, until the peer's kernel has acknowledged the last byte.
#include "push.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <fstream>
#include <map>
#include <string>
#include <vector>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>

#include "address.h"
#include "failure.h"
#include "json_line.h"
#include "kept_failure.h"
#include "library.h"
#include "options.h"
#include "output.h"
#include "progress.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

// The library's own default: receivers refuse longer messages unless they were set to take them.
constexpr int kMessageBytes = 15000;
constexpr int kNoPort = -1;
constexpr double kDefaultStallSeconds = 30.0;
constexpr Clock::duration kShortestPause = std::chrono::microseconds(100);
constexpr Clock::duration kLongestPause = std::chrono::milliseconds(20);
constexpr const char* kInterrupted = "interrupted";

struct PushOptions {
    std::vector<std::string> files;
    std::string to;
    StallOption stall{kDefaultStallSeconds};
    ReportOptions report;
};

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

std::string shortened(double seconds) {
    return fmt::format("{:g} s", seconds);
}

// --- one file --------------------------------------------------------------------------------------------

struct File {
    explicit File(const std::string& newPath)
        : path(newPath), name(NwFilename(newPath).stripPath().c_str()) {}

    std::string path;
    std::string name;         // as the receiver gets it
    std::uint64_t bytes = 0;  // that were handed to the kernel: other processes may change the file meanwhile
    double seconds = 0.0;
    std::string problem;  // empty: none

    std::string shownPath() const { return printable(path); }
    bool isEmpty() const { return problem.empty() && bytes == 0; }
};

// Why the file cannot be sent, as far as its directory entry tells; empty if it can.
std::string refusal(const File& file) {
    struct stat status {};
    if (::stat(file.path.c_str(), &status) != 0) {
        const int error = errno;
        return errorText(error);
    }
    if (S_ISDIR(status.st_mode)) return "is a directory: name the files in it";
    if (!S_ISREG(status.st_mode)) return "is no regular file";
    if (status.st_size > INT_MAX)
        return fmt::format("is too large: {} bytes, and a transfer carries {}", status.st_size, INT_MAX);
    if (::faccessat(AT_FDCWD, file.path.c_str(), R_OK, AT_EACCESS) != 0) {
        const int error = errno;
        return errorText(error);
    }
    return "";
}

// --- the transporter -------------------------------------------------------------------------------------

// Bytes of the stream that the peer's kernel has not acknowledged; 0 too when the system does not tell.
int unacknowledgedBytes(int fd) {
    int count = 0;
    return ::ioctl(fd, SIOCOUTQ, &count) == 0 ? count : 0;
}

bool isBroken(int fd) {
    pollfd watched = {fd, 0, 0};
    return ::poll(&watched, 1, 0) == 1 && (watched.revents & (POLLERR | POLLHUP)) != 0;
}

std::string socketErrorText(int fd) {
    int error = 0;
    socklen_t size = sizeof error;
    ::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &size);
    return error == 0 ? "closed" : errorText(error);
}

class Pusher : public NwFileTransporter {
public:
    Pusher(const Endpoint& to, double stallSeconds, ProgressBar& bar)
        : NwFileTransporter(kNoPort, false, 0, NwFilename(), nullptr),
          to_(to),
          stallSeconds_(stallSeconds),
          bar_(bar) {
        setSendStallLimit(stallSeconds);
    }

    /// Sends it and fills in how that went. `shownName` is for the progress bar.
    void push(File& file, const std::string& shownName);

    bool readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size, int& bytesRead,
                          NwFileTransportFlags& flags) override;
    void sendProgress(NwTcpSocket& socket, int sent, int total) override;

private:
    void waitForAcknowledgement(int fd);
    std::string problemOf(bool wasSent) const;

    const Endpoint to_;
    const double stallSeconds_;
    ProgressBar& bar_;
    KeptFailure failure_;
    std::string shownName_;
    bool hasBegun_ = false;
    int sent_ = 0;         // bytes of the file
    std::string problem_;  // what the overrides found
};

void Pusher::push(File& file, const std::string& shownName) {
    shownName_ = shownName;
    problem_.clear();
    takeLibraryWarnings();
    hasBegun_ = false;
    sent_ = 0;
    const Clock::time_point start = Clock::now();
    const bool wasSent = sendFile(NwFilename(file.path), to_.addrHostOrder, static_cast<int>(to_.port));
    StopSignal::shutDownToo(-1);
    file.seconds = secondsSince(start);
    file.bytes = static_cast<std::uint64_t>(sent_);
    bar_.end();
    failure_.throwIfAny();
    file.problem = problemOf(wasSent);
}

std::string Pusher::problemOf(bool wasSent) const {
    const std::vector<std::string> warnings = takeLibraryWarnings();
    if (!problem_.empty()) return problem_;
    if (wasSent && lastSendComplete()) return "";
    if (StopSignal::raised()) return kInterrupted;
    const std::string first = warnings.empty() ? "refused" : reasonIn(warnings.front());
    if (wasSent) return "the connection broke: " + first;
    const std::string last = warnings.empty() ? "" : warnings.back();
    if (last.find("Could not create socket") != std::string::npos)
        return fmt::format("cannot connect to {}: {}", to_.text(), first);
    if (last.find("no progress") != std::string::npos)
        return fmt::format("the receiver has taken nothing for {}", shortened(stallSeconds_));
    return last;
}

// A file that shrinks while it is read must not go out with zeros at its end.
bool Pusher::readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size, int& bytesRead,
                              NwFileTransportFlags& flags) {
    if (!NwFileTransporter::readFileToBuffer(in, buffer, size, bytesRead, flags)) return false;
    if (in.gcount() == size) return true;
    problem_ = fmt::format("cannot be read whole: {} of {} bytes came", in.gcount(), size);
    return false;
}

void Pusher::sendProgress(NwTcpSocket& socket, int sent, int total) {
    const int fd = socket.writeFd();
    StopSignal::shutDownToo(fd);
    if (!hasBegun_) bar_.begin();
    hasBegun_ = true;
    sent_ = sent;
    failure_.keep([&] {
        if (bar_.isDue()) {
            const int arrived = std::max(0, sent - unacknowledgedBytes(fd));
            bar_.show(shownName_, static_cast<std::uint64_t>(arrived), static_cast<std::uint64_t>(total));
        }
        if (sent == total) waitForAcknowledgement(fd);
    });
}

void Pusher::waitForAcknowledgement(int fd) {
    int left = INT_MAX;
    Clock::time_point lastProgress = Clock::now();
    for (Clock::duration pause = kShortestPause;; pause = std::min(2 * pause, kLongestPause)) {
        const int now = unacknowledgedBytes(fd);
        if (StopSignal::raised()) {
            if (now != 0) problem_ = kInterrupted;
            return;
        }
        // Looked at behind the count: of a broken connection the kernel may have dropped the queue.
        if (isBroken(fd)) {
            problem_ = "the connection broke: " + socketErrorText(fd);
            return;
        }
        if (now == 0) return;
        if (now < left) lastProgress = Clock::now();
        left = now;
        if (stallSeconds_ > 0.0 && secondsSince(lastProgress) >= stallSeconds_) {
            problem_ = fmt::format("the receiver's host has acknowledged nothing for {}, {} bytes are left",
                                   shortened(stallSeconds_), left);
            return;
        }
        StopSignal::wait(-1, Clock::now() + pause);
    }
}

// --- one run ---------------------------------------------------------------------------------------------

class PushRun {
public:
    PushRun(const PushOptions& options, Output& out)
        : options_(options),
          out_(out),
          to_(endpointFromText(options.to, "--to")),
          bar_(out, !options.report.json && !options.report.quiet),
          pusher_(to_, options.stall.seconds, bar_) {}

    void announce();
    void pushAll();
    void printTotals();
    int exitStatus() const { return delivered_ == options_.files.size() ? kExitOk : kExitFailed; }

private:
    void pushOne(const std::string& path);
    void tell(const File& file);
    std::string lineOf(const File& file) const;
    std::string jsonOf(const File& file) const;
    std::string totalsText() const;
    std::string totalsJson() const;
    void warnOfEqualNames() const;

    const PushOptions& options_;
    Output& out_;
    const Endpoint to_;
    ProgressBar bar_;
    Pusher pusher_;
    const Clock::time_point start_ = Clock::now();
    std::size_t tried_ = 0;
    std::size_t delivered_ = 0;  // empty ones included
    std::size_t empty_ = 0;
    std::uint64_t bytes_ = 0;  // delivered
};

void PushRun::announce() {
    if (options_.report.json) {
        out_.line(jsonLine({{"event", "pushing"},
                            {"to", addressText(to_.addrHostOrder)},
                            {"port", to_.port},
                            {"files", options_.files.size()}}));
    } else if (!options_.report.quiet) {
        out_.line(fmt::format("pushing {} to {}", counted(options_.files.size(), "file"), to_.text()));
    }
    out_.flush();
    warnOfEqualNames();
}

void PushRun::warnOfEqualNames() const {
    std::map<std::string, int> counts;
    for (const std::string& path : options_.files) {
        if (++counts[File(path).name] == 2) {
            warningLine(fmt::format("several of the files are called {}: the receiver keeps the last one",
                                    printable(File(path).name)));
        }
    }
}

void PushRun::pushAll() {
    for (const std::string& path : options_.files) {
        if (StopSignal::raised() || out_.closed()) break;
        pushOne(path);
    }
}

void PushRun::pushOne(const std::string& path) {
    File file(path);
    ++tried_;
    const std::size_t count = options_.files.size();
    const std::string place = count == 1 ? "" : fmt::format("{}/{} ", tried_, count);
    file.problem = refusal(file);
    if (file.problem.empty()) pusher_.push(file, place + printable(file.name));
    if (file.problem.empty()) {
        ++delivered_;
        bytes_ += file.bytes;
        if (file.isEmpty()) ++empty_;
    }
    tell(file);
}

void PushRun::tell(const File& file) {
    if (options_.report.json) out_.line(jsonOf(file));
    const bool showsLine = !options_.report.json && !options_.report.quiet;
    if (showsLine && file.problem.empty()) out_.line(lineOf(file));
    out_.flush();
    if (!file.problem.empty()) errorLine(fmt::format("{}: {}", file.shownPath(), file.problem));
}

std::string PushRun::lineOf(const File& file) const {
    if (file.isEmpty()) {
        return fmt::format("{}: empty, so nothing was sent: the receiver does not hear of it",
                           printable(file.name));
    }
    return fmt::format("{}: {} in {:.3f} s, {}", printable(file.name), counted(file.bytes, "byte"),
                       file.seconds, rateText(file.bytes, file.seconds));
}

std::string PushRun::jsonOf(const File& file) const {
    nlohmann::ordered_json json = {{"event", "file"},
                                   {"name", file.name},
                                   {"path", file.path},
                                   {"bytes", file.bytes},
                                   {"seconds", file.seconds},
                                   {"bytesPerSecond", nullptr},
                                   {"acknowledged", file.problem.empty()}};
    if (file.problem.empty() && file.seconds > 0.0)
        json["bytesPerSecond"] = static_cast<double>(file.bytes) / file.seconds;
    if (file.isEmpty()) {
        json["acknowledged"] = nullptr;  // there was nothing to acknowledge
        json["note"] = "empty, nothing was sent";
    }
    if (!file.problem.empty()) json["error"] = file.problem;
    return jsonLine(json);
}

std::string PushRun::totalsText() const {
    const double seconds = secondsSince(start_);
    std::string text = fmt::format("pushed {} of {}, {} in {:.3f} s", delivered_,
                                   counted(options_.files.size(), "file"), counted(bytes_, "byte"), seconds);
    if (bytes_ != 0) text += ", " + rateText(bytes_, seconds);
    if (empty_ != 0) text += fmt::format("; {} empty and not announced", empty_);
    return text;
}

std::string PushRun::totalsJson() const {
    const double seconds = secondsSince(start_);
    return jsonLine({{"event", "totals"},
                     {"files", delivered_},
                     {"failed", tried_ - delivered_},
                     {"notTried", options_.files.size() - tried_},
                     {"empty", empty_},
                     {"bytes", bytes_},
                     {"seconds", seconds}});
}

void PushRun::printTotals() {
    out_.erase();
    out_.line(options_.report.json ? totalsJson() : out_.styled(1, totalsText()));
    out_.flush();
}

class PushCommand : public Command {
public:
    const char* name() const override { return "push"; }
    const char* purpose() const override { return "Send whole files to cvnet pull or another transporter"; }
    void addOptions(CLI::App& app) override;
    int run() override;

private:
    PushOptions options_;
};

void PushCommand::addOptions(CLI::App& app) {
    app.add_option("FILE", options_.files, "Files to send, each under its name without directories")
        ->type_name("")
        ->required();
    app.add_option("--to", options_.to, "Where the receiver listens")->type_name("HOST:PORT")->required();
    options_.stall.declare(app, "Give a file up when the receiver has taken nothing for S seconds");
    options_.report.declare(app);
    app.footer(
        "Exit status 0: the receiver's host has acknowledged every byte of every file. An empty file is "
        "never\n"
        "announced to the receiver. Nothing is encrypted, and anyone may listen where the receiver should "
        "be.\n"
        "\n"
        "Examples:\n"
        "  cvnet push tile_7.dat tile_8.dat --to 10.1.0.5:4000\n"
        "  cvnet push --json --stall 120 log.bin --to archive.site:4000");
}

int PushCommand::run() {
    options_.stall.check();
    NwSetMaxPacketSize(kMessageBytes);
    Output out;
    PushRun run(options_, out);
    run.announce();
    run.pushAll();
    run.printTotals();
    return run.exitStatus();
}

}  // namespace

std::unique_ptr<Command> makePushCommand() {
    return std::make_unique<PushCommand>();
}

}  // namespace cvnet
