// SPDX-License-Identifier: BSD-3-Clause
// The work whose instructions instructions.sh counts: PDUs over loopback, sent and received by one thread.
//
//     udp_instructions PATH PDUS        PATH: unbundled, bundled, bare-unbundled, bare-bundled, empty, ...
//
// callgrind collects while `measured` runs, all that it calls included. The first batch goes through
// `warmUp`, outside of the count: symbols get bound and buffers reserved there.
#include <cvNetworkCompatibility/cvNetSocket.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include "bare_loops.h"
#include "library_loops.h"
#include "traffic.h"

namespace {

const int kBatchDatagrams = 50;  // fits any receive buffer

struct Path {
    const char* name;
    bool bundled;
    Active active;
    int valuesEach;
    enum Kind { library, copied, bare, empty } kind;
};

const Path kPaths[] = {
    {"unbundled", false, Active::none, 0, Path::library},
    {"bundled", true, Active::none, 0, Path::library},
    {"bundled-copied", true, Active::none, 0, Path::copied},
    {"bundled-4-filters-of-1", true, Active::all, 1, Path::library},
    {"bundled-4-filters-of-16", true, Active::all, 16, Path::library},
    {"bare-unbundled", false, Active::none, 0, Path::bare},
    {"bare-bundled", true, Active::none, 0, Path::bare},
    {"bare-bundled-4-filters-of-16", true, Active::all, 16, Path::bare},
    {"empty", true, Active::none, 0, Path::empty},
};

const Path& pathNamed(const std::string& name) {
    for (const Path& path : kPaths)
        if (name == path.name) return path;
    fail("unknown path " + name);
}

std::vector<unsigned int> listEndingIn(unsigned int match, int count) {
    std::vector<unsigned int> values;
    for (int i = 1; i < count; ++i) values.push_back(200u + static_cast<unsigned int>(i));
    values.push_back(match);
    return values;
}

HandFilters filtersOf(int valuesEach) {
    return HandFilters{listEndingIn(kPduVersion, valuesEach), listEndingIn(kPduExercise, valuesEach),
                       listEndingIn(kPduType, valuesEach), listEndingIn(loopbackAddr, valuesEach)};
}

struct Sockets {
    NwNetSocket receiver{
        0, loopbackAddr,
        static_cast<unsigned char>(NwNetSocketRead | NwNetSocketBindToDest | NwNetSocketQuietStart),
        loopbackAddr};
    int port = portOf(receiver.readFd());
    NwNetSocket sender{port, loopbackAddr,
                       static_cast<unsigned char>(NwNetSocketWrite | NwNetSocketQuietStart), loopbackAddr};
    PduSource source;
};

Delivered sendAndReceive(const Path& path, Sockets& sockets, const HandFilters& filters, int pdus) {
    const int out = sockets.sender.writeFd(), in = sockets.receiver.readFd();
    switch (path.kind) {
        case Path::library:
            librarySend(sockets.sender, sockets.source, pdus);
            return libraryReceive(sockets.receiver, pdus);
        case Path::copied:
            librarySend(sockets.sender, sockets.source, pdus);
            return libraryReceiveCopied(sockets.receiver, pdus);
        case Path::bare:
            if (path.bundled) {
                bareSendBundled(out, sockets.port, sockets.source, pdus);
                return bareReceiveBundled(in, pdus, filters, path.active);
            }
            bareSend(out, sockets.port, sockets.source, pdus);
            return bareReceive(in, pdus, filters, path.active);
        case Path::empty:
            break;
    }
    return emptyLoops(sockets.source, pdus);
}

int runBatches(const Path& path, Sockets& sockets, const HandFilters& filters, int batches) {
    const int pdus = kBatchDatagrams * (path.bundled ? kPdusPerBundle : 1);
    for (int i = 0; i < batches; ++i) {
        const Delivered delivered = sendAndReceive(path, sockets, filters, pdus);
        if (delivered.packets != static_cast<std::uint64_t>(pdus)) fail("packets were lost");
    }
    return batches * pdus;
}

}  // namespace

// Named for callgrind, which counts from here on.
extern "C" __attribute__((noinline)) int measured(const Path& path, Sockets& sockets,
                                                  const HandFilters& filters, int batches) {
    return runBatches(path, sockets, filters, batches);
}

extern "C" __attribute__((noinline)) int warmUp(const Path& path, Sockets& sockets,
                                                const HandFilters& filters) {
    return runBatches(path, sockets, filters, 2);
}

int main(int argc, char** argv) {
    if (argc != 3) fail("usage: udp_instructions PATH PDUS");
    const Path& path = pathNamed(argv[1]);
    NwNetSocket::initErrorAction = 1;
    Sockets sockets;
    if (!sockets.sender.isOk() || !sockets.receiver.isOk())
        fail("cannot open the library's sockets on 127.0.0.1");
    const HandFilters filters = filtersOf(path.valuesEach);
    if (path.kind == Path::library) setFilters(sockets.receiver, filters, path.active);
    if (path.bundled) sockets.sender.setBundling(kBundleBytes);
    const int perBatch = kBatchDatagrams * (path.bundled ? kPdusPerBundle : 1);

    warmUp(path, sockets, filters);
    const int done = measured(path, sockets, filters, std::max(1, std::atoi(argv[2]) / perBatch));
    std::printf("pdus %d\n", done);
    return 0;
}
