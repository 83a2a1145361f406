// SPDX-License-Identifier: BSD-3-Clause
// Sends a file to itself: one transporter receives into a directory, another one sends.
#include <cvNetworkCompatibility/cvFileTransport.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <string>

#include "example.h"

namespace {

// Called when a file has been written; the count is ours, handed over with the registration.
void arrived(const NwFilename& path, void* count) {
    std::printf("arrived: %s, %lld bytes\n", path.stripPath().c_str(), path.fileSize());
    ++*static_cast<int*>(count);
}

// A directory that is gone at the end.
struct WorkDirectory {
    WorkDirectory() {
        std::string name = (std::filesystem::temp_directory_path() / "filesXXXXXX").string();
        if (::mkdtemp(&name[0])) path = name;
    }
    ~WorkDirectory() {
        if (!path.empty()) std::filesystem::remove_all(path);
    }
    std::string path;
};

}  // namespace

int main(int argc, char** argv) {
    const WorkDirectory directory;
    if (directory.path.empty()) return 1;
    const std::string tile = directory.path + "/tile_7.dat";
    std::ofstream(tile) << std::string(20000, '7');

    // Listens on the first free port of ten, and makes the directory for what arrives. Without the limit one
    // peer that connects and stays silent would hold tick() for ever.
    int files = 0, port = 0;
    NwFileTransporter::setReceiveStallLimit(10.0);
    NwFileTransporter receiver(portOf(argc, argv), true, 10, directory.path + "/inbox", &port);
    if (port < 0) {
        std::printf("no free port\n");
        return 1;
    }
    receiver.addFileTransferedCallback(arrived, &files);

    // A transporter that only sends needs neither port nor directory. It returns when the kernel has the
    // whole file: here that holds so little until tick() reads it; a larger one would need a second program.
    NwFileTransporter sender(-1, false, 0, "", nullptr);
    if (!sender.sendFile(tile, loopbackAddr, port)) return 1;  // the reason is on standard error
    std::printf("sent, %s\n", sender.lastSendComplete() ? "all of it" : "but the connection broke");

    while (files == 0) receiver.tick();  // in a real program: once a frame
    return 0;
}
