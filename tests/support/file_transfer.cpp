// SPDX-License-Identifier: BSD-3-Clause
#include "file_transfer.h"

#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvByteOrder.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <stdexcept>
#include <thread>

namespace fs = std::filesystem;

// --- messages -------------------------------------------------------------------------------------------

std::string u32(unsigned long value, bool networkOrder) {
    std::string bytes;
    for (int shift = 24; shift >= 0; shift -= 8) bytes += static_cast<char>(value >> shift & 0xFF);
    if (!networkOrder) std::reverse(bytes.begin(), bytes.end());
    return bytes;
}

std::string message(const std::string& body, bool networkOrder) {
    return u32(body.size() + 4, networkOrder) + body;
}

std::string FirstMessage::bytes(bool networkOrder, const std::string& nameEnd) const {
    return message(u32(id, networkOrder) + u32(fileSize, networkOrder) + u32(dataSize, networkOrder) +
                       u32(flags, networkOrder) + name + nameEnd + data,
                   networkOrder);
}

std::string laterMessage(unsigned int id, const std::string& data, bool networkOrder) {
    return message(u32(id, networkOrder) + data, networkOrder);
}

std::string streamOf(unsigned int id, const std::string& name, const std::string& data, int limit,
                     bool networkOrder) {
    if (data.empty()) return std::string();
    const std::size_t firstPart = static_cast<std::size_t>(limit) - 21 - name.size();
    const std::size_t laterPart = static_cast<std::size_t>(limit) - 8;
    std::string stream =
        FirstMessage(id, name, data.substr(0, firstPart)).announcing(data.size()).bytes(networkOrder);
    for (std::size_t at = firstPart; at < data.size(); at += laterPart)
        stream += laterMessage(id, data.substr(at, laterPart), networkOrder);
    return stream;
}

std::string randomBytes(std::size_t size, unsigned int seed) {
    std::mt19937_64 random(seed);
    std::string bytes(size, '\0');
    for (std::size_t at = 0; at < size; at += 8) {
        const std::uint64_t word = random();
        bytes.replace(at, std::min<std::size_t>(8, size - at), reinterpret_cast<const char*>(&word),
                      std::min<std::size_t>(8, size - at));
    }
    return bytes;
}

// --- settings of the process ----------------------------------------------------------------------------

MessageLimit::MessageLimit(int bytes) : myFormer(NwMaxPacketSize()) {
    theMaxPacketSize = bytes;
}

MessageLimit::~MessageLimit() {
    theMaxPacketSize = myFormer;
}

HostByteOrder::HostByteOrder() {
    NwSetNetworkByteOrdering(0);
}

HostByteOrder::~HostByteOrder() {
    NwSetNetworkByteOrdering(1);
}

StallLimits::StallLimits(double send, double receive)
    : myFormerSend(NwFileTransporter::theSendStallLimit),
      myFormerReceive(NwFileTransporter::theReceiveStallLimit) {
    NwFileTransporter::setSendStallLimit(send);
    NwFileTransporter::setReceiveStallLimit(receive);
}

StallLimits::~StallLimits() {
    NwFileTransporter::setSendStallLimit(myFormerSend);
    NwFileTransporter::setReceiveStallLimit(myFormerReceive);
}

// --- files ----------------------------------------------------------------------------------------------

Directory::Directory() {
    for (std::string path : {"/dev/shm/cvnc.XXXXXX", "/tmp/cvnc.XXXXXX"}) {
        if (!::mkdtemp(&path[0])) continue;
        myPath = path;
        return;
    }
    throw std::runtime_error("mkdtemp");
}

Directory::~Directory() {
    std::error_code ignored;
    fs::remove_all(myPath, ignored);
}

std::string Directory::write(const std::string& name, const std::string& contents) const {
    std::ofstream file(*this / name, std::ios::binary);
    file << contents << std::flush;
    if (!file) throw std::runtime_error("cannot write " + *this / name);
    return *this / name;
}

bool Directory::has(const std::string& name) const {
    struct stat status;
    return ::lstat((*this / name).c_str(), &status) == 0;
}

std::string Directory::contents(const std::string& name) const {
    return contentsOf(*this / name);
}

std::map<std::string, std::string> Directory::tree() const {
    std::map<std::string, std::string> all;
    for (const fs::directory_entry& entry : fs::recursive_directory_iterator(myPath)) {
        const std::string name = entry.path().string().substr(myPath.size() + 1);
        const fs::file_status status = entry.symlink_status();
        if (fs::is_symlink(status))
            all[name] = "link to " + fs::read_symlink(entry.path()).string();
        else if (fs::is_directory(status))
            all[name] = "directory";
        else if (fs::is_regular_file(status))
            all[name] = contentsOf(entry.path().string());
        else
            all[name] = "special";
    }
    return all;
}

unsigned long long Directory::room() const {
    return fs::space(myPath).available;
}

std::string contentsOf(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
}

// The rights of a thread of its own are taken away; nobody else notices.
bool asNobody(const std::function<void()>& work) {
    bool isNobody = true;
    std::thread([&] {
        const int nobody = 65534;
        if (::getuid() == 0) {
            ::setfsuid(nobody);
            isNobody = ::setfsuid(static_cast<uid_t>(-1)) == nobody;
        }
        if (isNobody) work();
    }).join();
    return isNobody;
}
