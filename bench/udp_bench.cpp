// SPDX-License-Identifier: BSD-3-Clause
// UDP on loopback: each path of the library beside the bare system calls that do the same work, as ratios.
// README.md says how it is measured and how to read the table.
//
//     udp_bench [--quick] [--pairs N] [--json FILE] [--only TEXT]
#include <cvNetworkCompatibility/cvNetSocket.h>
#include <sys/utsname.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

#include "bare_loops.h"
#include "library_loops.h"
#include "measure.h"
#include "traffic.h"

namespace {

// How near to the bare calls a path must come.
struct Floor {
    double rateAtLeast;
    double cpuAtMost;
};
const Floor kDatagramFloor = {0.95, 1.05};  // each PDU is a datagram: the kernel's work dwarfs ours
const Floor kBundleFloor = {0.90, 1.10};    // nine PDUs share a datagram: ours shows

// Some 100 microseconds or more: far above what reading two clocks costs, and below a time slice, so that
// most rounds run undisturbed on a busy machine.
const int kDatagramsPerRound = 400;
const int kQuickDatagrams = 100;

struct Options {
    int pairs = 600;
    int datagrams = kDatagramsPerRound;
    std::string jsonFile;
    std::string only;
};

// One line of the table.
struct Case {
    std::string name;
    Floor floor;
    int pdusPerDatagram;
    Round bare;
    Round library;
};

struct Result {
    std::string name;
    Floor floor;
    int pdusPerRound;
    Comparison measured;

    bool reached() const {
        return measured.rate.median >= floor.rateAtLeast && measured.cpu.median <= floor.cpuAtMost;
    }
};

// The sockets of a run. Both sides of a comparison use the same descriptors, the library's own: whatever
// options, mode and buffers these have are the same for both.
class Loopback {
public:
    explicit Loopback(int wantedDatagrams)
        : sink(openSocket(true)),
          sinkPort(portOf(sink)),
          sender(sinkPort, loopbackAddr, static_cast<unsigned char>(NwNetSocketWrite | NwNetSocketQuietStart),
                 loopbackAddr),
          receiver(
              0, loopbackAddr,
              static_cast<unsigned char>(NwNetSocketRead | NwNetSocketBindToDest | NwNetSocketQuietStart),
              loopbackAddr),
          feeder(openSocket(true)) {
        if (!sender.isOk() || !receiver.isOk()) fail("cannot open the library's sockets on 127.0.0.1");
        receiverPort = portOf(receiver.readFd());
        sender.setBundling(0);
        datagrams = std::min(roomForDatagrams(sink, wantedDatagrams),
                             roomForDatagrams(receiver.readFd(), wantedDatagrams));
    }

    const Descriptor sink;  // where sends go; emptied outside of the timed part
    const int sinkPort;
    NwNetSocket sender;
    NwNetSocket receiver;
    const Descriptor feeder;  // fills the receiver's buffer, by bare calls for both sides
    int receiverPort;
    int datagrams;  // a round: what a receive buffer surely holds, so that nothing is dropped
    PduSource source;
};

// --- rounds ----------------------------------------------------------------------------------------------

// Times a send; the sink then holds all of it, so every datagram took the kernel's whole path to a receiver.
Round sendRound(Loopback& net, int pdus, std::function<void()> send) {
    return [&net, pdus, send = std::move(send)] {
        net.source.restart();
        const Stopwatch watch;
        send();
        const Cost cost = watch.elapsed();
        if (drain(net.sink) != static_cast<std::uint64_t>(pdus) * kPduBytes) fail("a send lost datagrams");
        return cost;
    };
}

// Fills the receiver's buffer, then times the emptying alone: nobody else runs, nothing waits.
Round receiveRound(Loopback& net, int pdusPerDatagram, std::function<Delivered()> receive) {
    return [&net, pdusPerDatagram, receive = std::move(receive)] {
        net.source.restart();
        const Delivered expected =
            fill(net.feeder, net.receiverPort, net.source, net.datagrams, pdusPerDatagram);
        const Stopwatch watch;
        const Delivered got = receive();
        const Cost cost = watch.elapsed();
        if (!(got == expected)) fail("a receive brought other packets than were sent");
        return cost;
    };
}

Case sendCase(Loopback& net, int pdusPerDatagram) {
    const bool bundled = pdusPerDatagram > 1;
    const int pdus = net.datagrams * pdusPerDatagram;
    const int fd = net.sender.writeFd();
    const int port = net.sinkPort;
    const auto bare = [&net, fd, port, pdus, bundled] {
        bundled ? bareSendBundled(fd, port, net.source, pdus) : bareSend(fd, port, net.source, pdus);
    };
    const auto library = [&net, pdus] { librarySend(net.sender, net.source, pdus); };
    const auto setUp = [&net, bundled](Round round) {
        return [&net, bundled, round = std::move(round)] {
            net.sender.setBundling(bundled ? kBundleBytes : 0);
            return round();
        };
    };
    return Case{bundled ? "send bundles of 1400" : "send one PDU a datagram",
                bundled ? kBundleFloor : kDatagramFloor, pdusPerDatagram, setUp(sendRound(net, pdus, bare)),
                setUp(sendRound(net, pdus, library))};
}

// A filter list of `count` values, the one that matches last: every packet passes after the longest search.
std::vector<unsigned int> listEndingIn(unsigned int match, int count) {
    std::vector<unsigned int> values;
    for (int i = 1; i < count; ++i) values.push_back(200u + static_cast<unsigned int>(i));
    values.push_back(match);
    return values;
}

HandFilters filtersOf(int valuesEach) {
    HandFilters filters;
    filters.versions = listEndingIn(kPduVersion, valuesEach);
    filters.exercises = listEndingIn(kPduExercise, valuesEach);
    filters.types = listEndingIn(kPduType, valuesEach);
    filters.addresses = listEndingIn(loopbackAddr, valuesEach);
    return filters;
}

std::string filterName(Active active, int valuesEach) {
    if (active == Active::none) return "no filter";
    return std::string(active == Active::type ? "1 filter of " : "4 filters of ") +
           std::to_string(valuesEach);
}

Case receiveCase(Loopback& net, int pdusPerDatagram, Active active, int valuesEach) {
    const bool bundled = pdusPerDatagram > 1;
    const int pdus = net.datagrams * pdusPerDatagram;
    const int fd = net.receiver.readFd();
    const HandFilters filters = filtersOf(valuesEach);
    const auto bare = [fd, pdus, filters, active, bundled] {
        return bundled ? bareReceiveBundled(fd, pdus, filters, active)
                       : bareReceive(fd, pdus, filters, active);
    };
    const auto library = [&net, pdus] { return libraryReceive(net.receiver, pdus); };
    const auto setUp = [&net, filters, active](Round round) {
        return [&net, filters, active, round = std::move(round)] {
            setFilters(net.receiver, filters, active);
            return round();
        };
    };
    const std::string name = bundled ? "receive and split, " : "receive one PDU a datagram, ";
    return Case{name + filterName(active, valuesEach), bundled ? kBundleFloor : kDatagramFloor,
                pdusPerDatagram, setUp(receiveRound(net, pdusPerDatagram, bare)),
                setUp(receiveRound(net, pdusPerDatagram, library))};
}

Case copiedCase(Loopback& net) {
    const int pdus = net.datagrams * kPdusPerBundle;
    const int fd = net.receiver.readFd();
    const auto bare = [fd, pdus] { return bareReceiveBundledCopied(fd, pdus); };
    const auto library = [&net, pdus] { return libraryReceiveCopied(net.receiver, pdus); };
    const auto setUp = [&net](Round round) {
        return [&net, round = std::move(round)] {
            setFilters(net.receiver, HandFilters(), Active::none);
            return round();
        };
    };
    return Case{"receive and split, copied to the caller", kBundleFloor, kPdusPerBundle,
                setUp(receiveRound(net, kPdusPerBundle, bare)),
                setUp(receiveRound(net, kPdusPerBundle, library))};
}

// Both directions in one timed part: the library's sender to its receiver.
Case bothWaysCase(Loopback& net, int pdusPerDatagram) {
    const bool bundled = pdusPerDatagram > 1;
    const int pdus = net.datagrams * pdusPerDatagram;
    const auto round = [&net, pdus, bundled](bool library) {
        net.sender.setSendPort(net.receiverPort);
        net.sender.setBundling(bundled ? kBundleBytes : 0);
        setFilters(net.receiver, HandFilters(), Active::none);
        net.source.restart();
        const int out = net.sender.writeFd(), in = net.receiver.readFd();
        Delivered got;
        const Stopwatch watch;
        if (library) {
            librarySend(net.sender, net.source, pdus);
            got = libraryReceive(net.receiver, pdus);
        } else if (bundled) {
            bareSendBundled(out, net.receiverPort, net.source, pdus);
            got = bareReceiveBundled(in, pdus, HandFilters(), Active::none);
        } else {
            bareSend(out, net.receiverPort, net.source, pdus);
            got = bareReceive(in, pdus, HandFilters(), Active::none);
        }
        const Cost cost = watch.elapsed();
        net.sender.setSendPort(-1);
        if (got.bytes != static_cast<std::uint64_t>(pdus) * kPduBytes) fail("a round trip lost bytes");
        return cost;
    };
    return Case{bundled ? "pack, send, receive, split" : "send and receive one PDU a datagram",
                bundled ? kBundleFloor : kDatagramFloor, pdusPerDatagram, [round] { return round(false); },
                [round] { return round(true); }};
}

std::vector<Case> allCases(Loopback& net) {
    std::vector<Case> cases = {sendCase(net, 1), sendCase(net, kPdusPerBundle)};
    for (const int pdusPerDatagram : {1, kPdusPerBundle}) {
        cases.push_back(receiveCase(net, pdusPerDatagram, Active::none, 0));
        for (const Active active : {Active::type, Active::all})
            for (const int valuesEach : {1, 16})
                cases.push_back(receiveCase(net, pdusPerDatagram, active, valuesEach));
    }
    cases.push_back(copiedCase(net));
    cases.push_back(bothWaysCase(net, 1));
    cases.push_back(bothWaysCase(net, kPdusPerBundle));
    return cases;
}

// --- the table -------------------------------------------------------------------------------------------

double perPdu(double seconds, const Result& result) {
    return 1e9 * seconds / result.pdusPerRound;
}

void printHead(const Options& options, int datagrams) {
    std::printf(
        "UDP on loopback, PDUs of %d bytes, %d datagrams a round, %d interleaved pairs (bare library library "
        "bare)\n",
        kPduBytes, datagrams, options.pairs);
    std::printf(
        "rate: library / bare PDUs a second; cpu: library / bare processor time; median (quartiles)\n\n");
    std::printf("%-42s %9s %9s   %-21s %-21s %-15s\n", "", "bare", "library", "rate", "cpu", "floor");
    std::printf("%-42s %9s %9s\n", "path", "cpu ns", "cpu ns");
}

void printLine(const Result& result) {
    const Comparison& m = result.measured;
    std::printf("%-42s %9.1f %9.1f   %.3f (%.3f-%.3f)   %.3f (%.3f-%.3f)   %.2f / %.2f    %s\n",
                result.name.c_str(), perPdu(m.bareCpuSeconds, result), perPdu(m.libraryCpuSeconds, result),
                m.rate.median, m.rate.lowerQuartile, m.rate.upperQuartile, m.cpu.median, m.cpu.lowerQuartile,
                m.cpu.upperQuartile, result.floor.rateAtLeast, result.floor.cpuAtMost,
                result.reached() ? "PASS" : "MISSED");
    std::fflush(stdout);
}

void writeSpread(std::FILE* out, const char* name, const Spread& spread) {
    std::fprintf(out, "\"%s\": {\"median\": %.4f, \"lowerQuartile\": %.4f, \"upperQuartile\": %.4f}, ", name,
                 spread.median, spread.lowerQuartile, spread.upperQuartile);
}

void writeJson(const std::string& file, const Options& options, int datagrams,
               const std::vector<Result>& results) {
    std::FILE* out = std::fopen(file.c_str(), "w");
    if (!out) fail("cannot write " + file);
    utsname host;
    ::uname(&host);
    std::fprintf(
        out, "{\"pduBytes\": %d, \"datagramsPerRound\": %d, \"pairs\": %d, \"kernel\": \"%s\", \"paths\": [",
        kPduBytes, datagrams, options.pairs, host.release);
    const char* separator = "\n";
    for (const Result& result : results) {
        std::fprintf(out, "%s  {\"path\": \"%s\", ", separator, result.name.c_str());
        writeSpread(out, "rate", result.measured.rate);
        writeSpread(out, "cpu", result.measured.cpu);
        std::fprintf(
            out,
            "\"bareWallNs\": %.2f, \"libraryWallNs\": %.2f, \"bareCpuNs\": %.2f, \"libraryCpuNs\": %.2f, ",
            perPdu(result.measured.bareWallSeconds, result),
            perPdu(result.measured.libraryWallSeconds, result),
            perPdu(result.measured.bareCpuSeconds, result),
            perPdu(result.measured.libraryCpuSeconds, result));
        std::fprintf(out, "\"rateAtLeast\": %.2f, \"cpuAtMost\": %.2f, \"reached\": %s}",
                     result.floor.rateAtLeast, result.floor.cpuAtMost, result.reached() ? "true" : "false");
        separator = ",\n";
    }
    std::fprintf(out, "\n]}\n");
    if (std::fclose(out) != 0) fail("cannot write " + file);
}

Options readOptions(int count, char** words) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const bool hasValue = i + 1 < count;
        if (word == "--quick") {
            options.pairs = 2;
            options.datagrams = kQuickDatagrams;
        } else if (word == "--pairs" && hasValue) {
            options.pairs = std::atoi(words[++i]);
        } else if (word == "--json" && hasValue) {
            options.jsonFile = words[++i];
        } else if (word == "--only" && hasValue) {
            options.only = words[++i];
        } else {
            fail("usage: udp_bench [--quick] [--pairs N] [--json FILE] [--only TEXT]");
        }
    }
    if (options.pairs < 1) fail("--pairs takes a positive number");
    return options;
}

}  // namespace

// A missed floor is told, not turned into a failure: timings of a busy machine judge nothing by themselves.
int main(int argc, char** argv) {
    const Options options = readOptions(argc, argv);
    NwNetSocket::initErrorAction = 1;
    Loopback net(options.datagrams);
    printHead(options, net.datagrams);

    std::vector<Result> results;
    int missed = 0;
    for (const Case& one : allCases(net)) {
        if (one.name.find(options.only) == std::string::npos) continue;
        const Comparison measured = compareInPairs(one.bare, one.library, options.pairs);
        results.push_back(Result{one.name, one.floor, net.datagrams * one.pdusPerDatagram, measured});
        printLine(results.back());
        if (!results.back().reached()) ++missed;
    }
    std::printf("\n%d of %d paths reach their floors\n", static_cast<int>(results.size()) - missed,
                static_cast<int>(results.size()));
    if (!options.jsonFile.empty()) writeJson(options.jsonFile, options, net.datagrams, results);
    return 0;
}
