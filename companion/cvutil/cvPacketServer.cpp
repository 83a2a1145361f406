// SPDX-License-Identifier: BSD-3-Clause
// Where packet servers listen, and the sockets to get there.
#include <cvutil/cvPacketServer.h>

#include <cvutil/cvOutput.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdarg>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <mutex>

namespace {

static_assert(sizeof(sockaddr_un::sun_path) == NwPacketServerPathSize, "a path is what an address holds");

const char kSystemDirectory[] = "/run/cvpacketserver";

// "/65535.v2147483647.18446744073709551615.18446744073709551615" and the end: what a directory leaves room
// for. Namespace numbers have 10 digits in practice; a directory may be so long that only those fit.
const std::size_t kLongestName = sizeof "/65535.v2147483647.4294967295.4294967295";
const std::size_t kLongestDirectory = NwPacketServerPathSize - kLongestName;

// A request that finds no room is worth waiting for, but not for ever.
const timeval kSendLimit = {5, 0};

// How often a name that is taken is answered with another one. Names have 62^6 forms: once is rare.
const int kNameAttempts = 16;

std::mutex theDirectoryMutex;
char theDirectory[NwPacketServerPathSize];  // guarded by the mutex; empty: the usual ones

class Descriptor {
public:
    explicit Descriptor(int fd) : myFd(fd) {}
    ~Descriptor() {
        const int error = errno;
        if (myFd >= 0) ::close(myFd);
        errno = error;
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return myFd; }
    int release() {
        const int fd = myFd;
        myFd = -1;
        return fd;
    }

private:
    int myFd;
};

// The number by which the calling thread's namespace is known, 0 where the system does not tell.
unsigned int namespaceNumber(const char* kind) {
    char path[64];
    ::snprintf(path, sizeof path, "/proc/thread-self/ns/%s", kind);
    struct stat status;
    return ::stat(path, &status) == 0 ? static_cast<unsigned int>(status.st_ino) : 0;
}

bool addressOf(const char* path, sockaddr_un* address) {
    if (!path || !*path) {
        errno = EINVAL;
        return false;
    }
    const std::size_t length = std::strlen(path);
    if (length >= sizeof address->sun_path) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path, length);
    return true;
}

int openDatagramSocket() {
    return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

bool connectTo(int fd, const char* path) {
    sockaddr_un address;
    return addressOf(path, &address) &&
           ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

enum class Listener { none, forbidden, present };

// Forbidden: there is a socket that this user may not send to, whoever is behind it.
Listener listenerAt(const char* path) {
    const int error = errno;
    const Descriptor socket(openDatagramSocket());
    const bool listens = socket.get() >= 0 && connectTo(socket.get(), path);
    const Listener listener = listens           ? Listener::present
                              : errno == EACCES ? Listener::forbidden
                                                : Listener::none;
    errno = error;
    return listener;
}

bool someoneListensAt(const char* path) {
    return listenerAt(path) == Listener::present;
}

// Names of files are built in place: nothing here takes memory that may have ended.
struct Path {
    char text[NwPacketServerPathSize];
};

Path ownDirectory() {
    Path own;
    ::snprintf(own.text, sizeof own.text, "/tmp/cvpacketserver-%u", static_cast<unsigned int>(::geteuid()));
    return own;
}

// A directory that nobody but this user can have put anything into.
bool isPrivate(const char* directory) {
    struct stat status;
    return ::lstat(directory, &status) == 0 && S_ISDIR(status.st_mode) && status.st_uid == ::geteuid() &&
           (status.st_mode & 077) == 0;
}

Path directorySet() {
    const std::lock_guard<std::mutex> lock(theDirectoryMutex);
    Path set;
    std::memcpy(set.text, theDirectory, sizeof set.text);
    return set;
}

}  // namespace

int NwPacketServerIsAlive(int port) {
    if (port < 0 || port > 65535) return 0;
    char path[NwPacketServerPathSize];
    const unsigned int number = static_cast<unsigned int>(port);
    if (someoneListensAt(NwPacketServerRequestPath(number, path, NwPacketServerVersion))) return 1;
    if (someoneListensAt(NwPacketServerRequestPath(number, path, NwPacketServerOldVersion))) return -1;
    return 0;
}

char* NwPacketServerRequestPath(unsigned int port, char* path, int version) {
    const int error = errno;
    const Path set = directorySet();
    const bool isSet = set.text[0] != '\0';
    NwPacketServerPathIn(isSet ? set.text : kSystemDirectory, port, path, version);
    const Listener listener = isSet ? Listener::present : listenerAt(path);
    const Path own = ownDirectory();
    Path ownPath;
    if (listener != Listener::present && isPrivate(own.text) &&
        NwPacketServerPathIn(own.text, port, ownPath.text, version) &&
        (listener == Listener::none || someoneListensAt(ownPath.text)))
        std::memcpy(path, ownPath.text, sizeof ownPath.text);
    errno = error;
    return path;
}

char* NwPacketServerPathIn(const char* directory, unsigned int port, char* path, int version) {
    if (!directory || !*directory || std::strlen(directory) > kLongestDirectory) return nullptr;
    ::snprintf(path, NwPacketServerPathSize, "%s/%u.v%d.%u.%u", directory, port, version,
               namespaceNumber("ipc"), namespaceNumber("net"));
    return path;
}

bool NwSetPacketServerDirectory(const char* directory) {
    const std::size_t length = directory ? std::strlen(directory) : 0;
    if (length > kLongestDirectory) return false;
    const std::lock_guard<std::mutex> lock(theDirectoryMutex);
    if (length > 0) std::memcpy(theDirectory, directory, length);
    theDirectory[length] = 0;
    return true;
}

bool NwPacketServerOwnDirectory(char* directory) {
    const Path own = ownDirectory();
    if (::mkdir(own.text, 0700) != 0 && errno != EEXIST) return false;
    if (!isPrivate(own.text)) {
        errno = EPERM;
        return false;
    }
    std::memcpy(directory, own.text, sizeof own.text);
    return true;
}

namespace {

// "<directory>/.cvAbC123": no longer than the name that mkstemp has made of "cvcXXXXXX". False if the system
// gives no random numbers, or the name does not fit (ENAMETOOLONG).
bool siblingOf(const char* path, Path* sibling) {
    static const char characters[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789";
    unsigned char random[6];
    if (::getrandom(random, sizeof random, 0) != static_cast<ssize_t>(sizeof random)) return false;
    const char* const slash = std::strrchr(path, '/');
    const std::size_t directory = slash ? static_cast<std::size_t>(slash + 1 - path) : 0;
    if (directory + sizeof ".cvXXXXXX" > sizeof sibling->text) {
        errno = ENAMETOOLONG;
        return false;
    }
    std::memcpy(sibling->text, path, directory);
    char* end = sibling->text + directory;
    for (const char c : {'.', 'c', 'v'}) *end++ = c;
    for (const unsigned char r : random) *end++ = characters[r % (sizeof characters - 1)];
    *end = '\0';
    return true;
}

// bind() makes a name or fails; it follows no link and replaces nothing.
bool bindTo(int fd, const char* path) {
    sockaddr_un address;
    return addressOf(path, &address) &&
           ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
}

bool bindBeside(int fd, const char* path, Path* sibling) {
    for (int attempt = 0; attempt < kNameAttempts; ++attempt) {
        if (!siblingOf(path, sibling)) return false;
        if (bindTo(fd, sibling->text)) return true;
        if (errno != EADDRINUSE) return false;
    }
    return false;
}

bool bindAndReplace(int fd, const char* path) {
    sockaddr_un address;
    if (!addressOf(path, &address)) return false;
    Path sibling;
    if (!bindBeside(fd, path, &sibling)) return false;
    // A server may run as another user than its client: both have to be able to send here.
    if (::chmod(sibling.text, 0666) == 0 && ::rename(sibling.text, path) == 0) return true;
    const int error = errno;
    ::unlink(sibling.text);
    errno = error;
    return false;
}

bool connectWithLimit(int fd, const char* path) {
    return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &kSendLimit, sizeof kSendLimit) == 0 &&
           connectTo(fd, path);
}

bool open(int fd, const char* path, int action) {
    if (fd < 0) return false;
    switch (action) {
        case NwUnixDgramBind:
            return bindAndReplace(fd, path);
        case NwUnixDgramConnect:
            return connectWithLimit(fd, path);
        default:
            errno = EINVAL;
            return false;
    }
}

}  // namespace

int NwOpenUnixDgram(const char* path, int action, const char* name) {
    Descriptor socket(openDatagramSocket());
    if (open(socket.get(), path, action)) return socket.release();
    const int error = errno;
    if (name)
        NwWarnPerror("%s: cannot %s %s", name, action == NwUnixDgramConnect ? "connect to" : "bind to",
                     path ? path : "no path");
    errno = error;
    return -1;
}
