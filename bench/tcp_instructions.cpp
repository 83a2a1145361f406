// SPDX-License-Identifier: BSD-3-Clause
// The work whose instructions instructions.sh counts: packets over a TCP connection, sent and received by one
// thread.
//
//     tcp_instructions PATH PDUS        PATH: plain, bundled, bare-plain, bare-bundled, empty
//
// As in udp_instructions, callgrind collects while `measured` runs or the library's functions in it.
#include <cstdio>
#include <cstdlib>
#include <string>

#include "bare_tcp.h"
#include "library_loops.h"
#include "tcp_pair.h"
#include "traffic.h"

namespace {

const int kBatchPdus = 10 * kPdusPerBundle;  // fits any window

struct Path {
    const char* name;
    bool bundled;
    enum Kind { library, bare, empty } kind;
};

const Path kPaths[] = {
    {"plain", false, Path::library},    {"bundled", true, Path::library}, {"bare-plain", false, Path::bare},
    {"bare-bundled", true, Path::bare}, {"empty", false, Path::empty},
};

const Path& pathNamed(const std::string& name) {
    for (const Path& path : kPaths)
        if (name == path.name) return path;
    fail("unknown path " + name);
}

Delivered sendAndReceive(const Path& path, TcpPair& pair, PduSource& source, int pdus) {
    if (path.kind == Path::empty) return emptyLoops(source, pdus);
    if (path.kind == Path::library) {
        librarySend(pair.client, source, pdus);
        return libraryStreamReceive(pair.server, pdus);
    }
    if (path.bundled)
        bareStreamSendBundled(pair.client.writeFd(), source, pdus);
    else
        bareStreamSend(pair.client.writeFd(), source, pdus);
    return bareStreamReceive(pair.server.readFd(), pdus);
}

int runBatches(const Path& path, TcpPair& pair, PduSource& source, int batches) {
    for (int i = 0; i < batches; ++i)
        if (sendAndReceive(path, pair, source, kBatchPdus).packets != kBatchPdus) fail("packets were lost");
    return batches * kBatchPdus;
}

}  // namespace

// Named for callgrind, which counts from here on.
extern "C" __attribute__((noinline)) int measured(const Path& path, TcpPair& pair, PduSource& source,
                                                  int batches) {
    return runBatches(path, pair, source, batches);
}

extern "C" __attribute__((noinline)) int warmUp(const Path& path, TcpPair& pair, PduSource& source) {
    return runBatches(path, pair, source, 2);
}

int main(int argc, char** argv) {
    if (argc != 3) fail("usage: tcp_instructions PATH PDUS");
    const Path& path = pathNamed(argv[1]);
    NwSocket::setQuietSockets(true);
    TcpPair pair;
    PduSource source;
    if (path.bundled) pair.client.setBundling(kBundleBytes);

    warmUp(path, pair, source);
    const int done = measured(path, pair, source, std::max(1, std::atoi(argv[2]) / kBatchPdus));
    std::printf("pdus %d\n", done);
    return 0;
}
