// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target for what arrives at a packet server's request socket: any process that may write there can send
// any datagram, with descriptors attached. The real socket receives it; what it makes of it is held against a
// model of what the header of cvPacketServerMsgs.h promises, and so is what the server's filters then let
// through. An input is a number of steps (modulo 4), and what each needs, numbers least significant first:
//
//     0  datagram: length, 1 byte; bytes
//     1  datagram with descriptors: how many, 1 byte (modulo 32); length, 1 byte; bytes
//     2  request of the right length and version: kind - 1, 1 byte (modulo 4); its other bytes
//     3  packet for the filters: length, 1 byte (modulo 5); source, 4 bytes; bytes
//
// An input that ends within a step goes on with zeros.
#include <cvutil/cvPacketServer.h>
#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "../packetserver/packet_filter.h"
#include "../packetserver/request_socket.h"
#include "input.h"

namespace {

using packetserver::PacketFilter;
using packetserver::RequestSocket;
using packetserver::Sender;

// --- the model -------------------------------------------------------------------------------------------

unsigned int field(const std::string& datagram, std::size_t at, std::size_t width) {
    unsigned int value = 0;
    for (std::size_t i = width; i-- > 0;) value = value << 8 | static_cast<unsigned char>(datagram[at + i]);
    return value;
}

std::size_t lengthOf(unsigned int kind) {
    const std::size_t lengths[] = {0, 176, 12, 12, 8};
    return kind < 5 ? lengths[kind] : 0;
}

bool isRequest(const std::string& datagram) {
    if (datagram.size() < 2) return false;
    const unsigned int kind = field(datagram, 0, 1);
    if (kind < 1 || kind > 4 || field(datagram, 1, 1) != 3 || datagram.size() != lengthOf(kind)) return false;
    switch (kind) {
        case 1:
            return datagram[16] == '/' && datagram.find('\0', 16) != std::string::npos;
        case 2:
            return field(datagram, 2, 1) < 4 && field(datagram, 3, 1) < 2 &&
                   (field(datagram, 3, 1) == 1 || field(datagram, 4, 4) < 2);
        case 3:
            return field(datagram, 2, 2) < 2 && field(datagram, 4, 4) >= 0xE0000000u &&
                   field(datagram, 4, 4) <= 0xEFFFFFFFu;
        default:
            return field(datagram, 2, 2) < 10;
    }
}

struct ModelField {
    bool excludes = true;
    std::multiset<unsigned int> values;
    bool passes(unsigned int value) const { return (values.count(value) != 0) != excludes; }
};

class ModelFilter {
public:
    void apply(const std::string& request) {
        ModelField& changed = fields[field(request, 2, 1)];
        if (field(request, 3, 1) == 1) {
            changed.values.insert(field(request, 4, 4));
            return;
        }
        changed.excludes = field(request, 4, 4) == 1;
        changed.values.clear();
    }
    // Exercise is the second byte, version the first, kind the third.
    bool passes(const std::string& packet, unsigned int source) const {
        const auto byte = [&](std::size_t at) { return at < packet.size() ? field(packet, at, 1) : 0u; };
        return fields[0].passes(byte(1)) && fields[1].passes(byte(0)) && fields[2].passes(byte(2)) &&
               fields[3].passes(source);
    }
    ModelField fields[4];
};

// --- the socket ------------------------------------------------------------------------------------------

// One for all inputs: a request leaves nothing behind in it.
class Place {
public:
    Place() {
        char name[] = "/tmp/requestsXXXXXX";
        if (::mkdtemp(name) == nullptr) std::abort();
        myDirectory = name;
        // A port that no other run of this program has.
        const int ports = 65535;
        int port = static_cast<int>(::getpid()) % ports + 1;
        for (int attempt = 0; attempt < 10; ++attempt, port = port % ports + 1) {
            socket.reset(new RequestSocket(name, port));
            if (socket->isOk() && socket->open(false)) break;
        }
        if (!socket->isOk()) {
            std::fprintf(stderr, "%s\n", socket->problem().c_str());
            std::abort();
        }
        // Newer systems keep descriptors away from such a socket; here they are to come.
        const int passRights = 83;  // SO_PASSRIGHTS
        const int on = 1;
        ::setsockopt(socket->fd(), SOL_SOCKET, passRights, &on, sizeof on);
        senderFd = NwOpenUnixDgram(socket->path().c_str(), NwUnixDgramConnect, "fuzz");
    }
    ~Place() {
        ::close(senderFd);
        socket.reset();
        ::rmdir(myDirectory.c_str());
    }
    Place(const Place&) = delete;
    Place& operator=(const Place&) = delete;

    static int freeFd() {
        const int fd = ::dup(STDERR_FILENO);
        ::close(fd);
        return fd;
    }

    std::unique_ptr<RequestSocket> socket;
    int senderFd = -1;

private:
    std::string myDirectory;
};

class Run {
public:
    Run(Input& input, Place& place) : myPlace(place) {
        while (!input.isAtEnd()) step(input);
    }

private:
    void step(Input& input) {
        switch (input.number(1) % 4) {
            case 0:
                exchange(input.paddedBytes(input.number(1)), 0);
                break;
            case 1: {
                const unsigned int descriptors = input.number(1) % 32;
                exchange(input.paddedBytes(input.number(1)), descriptors);
                break;
            }
            case 2: {
                const unsigned int kind = 1 + input.number(1) % 4;
                std::string request = std::string(1, static_cast<char>(kind)) + '\3';
                request += input.paddedBytes(lengthOf(kind) - 2);
                exchange(request, 0);
                break;
            }
            default: {
                const unsigned int length = input.number(1) % 5;
                const unsigned int source = input.number(4);
                const std::string packet = input.paddedBytes(length);
                expectEqual("packet passes", myFilter.passes(packet.data(), length, source),
                            myModel.passes(packet, source));
            }
        }
    }

    void exchange(const std::string& datagram, unsigned int descriptors) {
        const int before = Place::freeFd();
        send(datagram, descriptors);
        NwCsMsg request;
        Sender sender;
        const char* why = nullptr;
        const RequestSocket::Result result = myPlace.socket->next(request, sender, why);
        expectEqual("descriptors left open", Place::freeFd(), before);
        expectEqual("something came", result != RequestSocket::Result::nothing, true);
        expectEqual("is a request", result == RequestSocket::Result::request, isRequest(datagram));
        expectEqual("has a reason", why != nullptr, !isRequest(datagram));
        expectEqual("process", sender.pid, ::getpid());
        expectEqual("user", sender.uid, ::getuid());
        if (result == RequestSocket::Result::request) take(request, datagram);
        expectEqual("nothing more came",
                    myPlace.socket->next(request, sender, why) == RequestSocket::Result::nothing, true);
    }

    void send(const std::string& datagram, unsigned int descriptors) {
        iovec part{const_cast<char*>(datagram.data()), datagram.size()};
        const std::vector<int> given(descriptors, STDERR_FILENO);
        const std::size_t size = given.size() * sizeof(int);
        std::vector<char> control(CMSG_SPACE(size));
        msghdr message{};
        message.msg_iov = &part;
        message.msg_iovlen = 1;
        if (descriptors != 0) {
            message.msg_control = control.data();
            message.msg_controllen = control.size();
            cmsghdr* const head = CMSG_FIRSTHDR(&message);
            head->cmsg_level = SOL_SOCKET;
            head->cmsg_type = SCM_RIGHTS;
            head->cmsg_len = CMSG_LEN(size);
            std::memcpy(CMSG_DATA(head), given.data(), size);
        }
        if (::sendmsg(myPlace.senderFd, &message, 0) != static_cast<ssize_t>(datagram.size())) std::abort();
    }

    // What the server does with a request: makes a message of it, and reads that.
    void take(const NwCsMsg& request, const std::string& datagram) {
        std::string whole = datagram;
        whole.resize(sizeof request);
        expectEqual("bytes of the request", std::memcmp(&request, whole.data(), whole.size()), 0);
        switch (request.kind) {
            case NwCsKindAddClient: {
                const NwCsAddClientMsg add(-1, &request);
                expectEqual("flags", add.flags(), field(datagram, 2, 2));
                expectEqual("notify path", std::strcmp(add.notifyPath(), datagram.data() + 16), 0);
                break;
            }
            case NwCsKindFilter: {
                expectEqual("filter applied", myFilter.apply(NwCsFilterMsg(-1, &request)), true);
                myModel.apply(datagram);
                for (int i = 0; i < NwCsFilterCount; ++i) {
                    expectEqual("filter's operator", myFilter.state(i).excludes, myModel.fields[i].excludes);
                    expectEqual("filter's values", myFilter.state(i).values,
                                static_cast<long>(myModel.fields[i].values.size()));
                }
                break;
            }
            case NwCsKindMulticastReq:
                expectEqual("group", NwCsMulticastReqMsg(-1, &request).group(), field(datagram, 4, 4));
                break;
            default:
                expectEqual("control request", NwCsControlReqMsg(-1, &request).request(),
                            field(datagram, 2, 2));
        }
    }

    Place& myPlace;
    PacketFilter myFilter;
    ModelFilter myModel;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Place place;
    Input input(data, size);
    Run(input, place);
    return 0;
}
