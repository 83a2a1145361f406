// SPDX-License-Identifier: BSD-3-Clause
// Files over TCP by hand.
#include "bare_files.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/sendfile.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "traffic.h"

namespace {

const std::size_t kMessage = 15000;
const std::size_t kLaterHeader = 8;
const char kName[] = "tile.dat";
const std::size_t kFirstHeader = 20 + sizeof kName;
const std::size_t kSpliceBytes = std::size_t{1} << 20;

void putField(char* message, std::size_t offset, std::size_t value) {
    const std::uint32_t field = htonl(static_cast<std::uint32_t>(value));
    std::memcpy(message + offset, &field, sizeof field);
}

std::size_t fieldAt(const char* message, std::size_t offset) {
    std::uint32_t field;
    std::memcpy(&field, message + offset, sizeof field);
    return ntohl(field);
}

int openToRead(const std::string& path) {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) fail("cannot open " + path);
    return fd;
}

int openToWrite(const std::string& path) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0) fail("cannot create " + path);
    return fd;
}

std::size_t sizeOf(int file) {
    struct stat status;
    if (::fstat(file, &status) != 0) fail("cannot look at a file");
    return static_cast<std::size_t>(status.st_size);
}

void readAll(int file, char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::read(file, bytes, size);
        if (count <= 0) fail("cannot read a file");
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
}

void writeAll(int file, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::write(file, bytes, size);
        if (count <= 0) fail("cannot write a file");
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
}

void sendAll(int fd, const char* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t count = ::send(fd, bytes, size, MSG_NOSIGNAL);
        if (count <= 0) fail("the bare loop cannot send");
        bytes += count;
        size -= static_cast<std::size_t>(count);
    }
}

void receiveAll(int fd, char* bytes, std::size_t size) {
    if (::recv(fd, bytes, size, MSG_WAITALL) != static_cast<ssize_t>(size))
        fail("the bare loop cannot receive");
}

// Calls put(where, length) for the data of each message, which it then sends.
template <class Put>
void sendMessages(int fd, std::size_t size, const Put& put) {
    std::vector<char> message(kMessage);
    for (std::size_t sent = 0; sent < size;) {
        const std::size_t header = sent == 0 ? kFirstHeader : kLaterHeader;
        const std::size_t part = std::min(size - sent, kMessage - header);
        putField(message.data(), 0, header + part);
        putField(message.data(), 4, 1);
        if (sent == 0) {
            putField(message.data(), 8, size);
            putField(message.data(), 12, size);
            putField(message.data(), 16, 0);
            std::memcpy(message.data() + 20, kName, sizeof kName);
        }
        put(message.data() + header, part);
        sendAll(fd, message.data(), header + part);
        sent += part;
    }
}

// Calls begin(size) and then take(data, length) for each message.
template <class Begin, class Take>
void receiveMessages(int fd, const Begin& begin, const Take& take) {
    std::vector<char> message(kMessage);
    std::size_t size = 0;
    bool isFirst = true;
    for (std::size_t received = 0; isFirst || received < size; isFirst = false) {
        receiveAll(fd, message.data(), 4);
        const std::size_t length = fieldAt(message.data(), 0);
        const std::size_t header = isFirst ? kFirstHeader : kLaterHeader;
        if (length < header || length > kMessage) fail("a message of another length came");
        receiveAll(fd, message.data() + 4, length - 4);
        if (isFirst) begin(size = fieldAt(message.data(), 12));
        take(message.data() + header, length - header);
        received += length - header;
    }
}

}  // namespace

int bareConnect(int port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_in peer = loopbackAddress(port);
    const int on = 1;
    if (fd < 0 || ::connect(fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0 ||
        ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on) != 0)
        fail("cannot connect to 127.0.0.1");
    return fd;
}

void bareSendWhole(const std::string& path, int fd) {
    const Descriptor file(openToRead(path));
    const std::size_t size = sizeOf(file);
    std::vector<char> data(size + 1);
    readAll(file, data.data(), size);
    const char* next = data.data();
    sendMessages(fd, size, [&](char* where, std::size_t length) {
        std::memcpy(where, next, length);
        next += length;
    });
}

void bareReceiveWhole(int fd, const std::string& path) {
    std::vector<char> data;
    receiveMessages(
        fd, [&](std::size_t size) { data.reserve(size + 1); },
        [&](const char* bytes, std::size_t length) { data.insert(data.end(), bytes, bytes + length); });
    const Descriptor file(openToWrite(path));
    writeAll(file, data.data(), data.size());
}

void bareSendStreamed(const std::string& path, int fd) {
    const Descriptor file(openToRead(path));
    sendMessages(fd, sizeOf(file), [&](char* where, std::size_t length) { readAll(file, where, length); });
}

void bareReceiveStreamed(int fd, const std::string& path) {
    const Descriptor file(openToWrite(path));
    receiveMessages(
        fd, [](std::size_t) {},
        [&](const char* bytes, std::size_t length) { writeAll(file, bytes, length); });
}

void bareSendFile(const std::string& path, int fd) {
    const Descriptor file(openToRead(path));
    for (std::size_t left = sizeOf(file); left > 0;) {
        const ssize_t count = ::sendfile(fd, file, nullptr, left);
        if (count <= 0) fail("cannot sendfile");
        left -= static_cast<std::size_t>(count);
    }
}

void bareSplice(int fd, const std::string& path) {
    const Descriptor file(openToWrite(path));
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) fail("cannot open a pipe");
    const Descriptor out(ends[0]), in(ends[1]);
    ::fcntl(in, F_SETPIPE_SZ, static_cast<int>(kSpliceBytes));
    ssize_t count = 0;
    while ((count = ::splice(fd, nullptr, in, nullptr, kSpliceBytes, SPLICE_F_MOVE)) > 0) {
        while (count > 0) {
            const ssize_t written =
                ::splice(out, nullptr, file, nullptr, static_cast<std::size_t>(count), SPLICE_F_MOVE);
            if (written <= 0) fail("cannot splice into a file");
            count -= written;
        }
    }
    if (count < 0) fail("cannot splice from a socket");
}
