// SPDX-License-Identifier: BSD-3-Clause
// A transporter that receives, raw peers that give it bytes, and what is expected then: for the tests of
// receiving files.
#ifndef CVNC_TESTS_FILE_RECEIVE_H
#define CVNC_TESTS_FILE_RECEIVE_H

#include <cvNetworkCompatibility/cvFileTransport.h>
#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <deque>
#include <string>
#include <thread>
#include <vector>

#include "file_transfer.h"
#include "messages.h"
#include "network.h"
#include "tcp_peer.h"

const bool kIsSanitized = *CVNC_SANITIZER != '\0';
const unsigned int kId = 0x81020304u;  // negative as an int

const std::string kMalformed = "FileTransporter: malformed message-Exiting transfer\n";
const std::string kSocketError = "FileTransporter: Socket error-Exiting transfer\n";
const std::string kNoProgress = "FileTransporter: no progress-Exiting transfer\n";

inline void pause(int milliseconds) {
    std::this_thread::sleep_for(std::chrono::milliseconds(milliseconds));
}

inline std::string cantCreate(const std::string& path) {
    return "NwFileTransporter: cant create file" + path + "\n";
}

inline std::string errorWriting(const std::string& path) {
    return "NwFileTransporter: Error writing file" + path + "\n";
}

inline std::string fileBytes(const std::string& name, const std::string& data, unsigned int id = kId) {
    return FirstMessage(id, name, data).bytes();
}

// Opens what derived classes see.
class Receiver : public NwFileTransporter {
public:
    explicit Receiver(const std::string& dir, int port = 0)
        : NwFileTransporter(port, false, 0, dir, nullptr) {}

    using NwFileTransporter::callbacks;
    using NwFileTransporter::mySocketMgr;
    using NwFileTransporter::transfers;

    int connections() { return mySocketMgr->socketList()->count(); }
    std::size_t transfersUnderWay() const { return transfers.size(); }
};

// Notes the path of each file that arrives.
inline void note(const NwFilename& path, void* paths) {
    static_cast<std::vector<std::string>*>(paths)->push_back(path.c_str());
}

// The fixture of tests that look at one connection after the other.
class FileReceive : public testing::Test {
protected:
    FileReceive() { receiver.addFileTransferedCallback(note, &arrived); }

    std::string inbox() const { return dir / "inbox"; }
    std::string inInbox(const std::string& name) const { return inbox() + "/" + name; }
    TcpPeer connect() const { return TcpPeer(receiver.port()); }
    // A peer that sends the bytes and stays, and a look at what came.
    TcpPeer& deliver(const std::string& bytes) {
        peers.push_back(connect());
        peers.back().sendAll(bytes);
        receiver.tick();
        return peers.back();
    }
    // A peer that sends the bytes and has closed before they are looked at.
    void deliverAndClose(const std::string& bytes) {
        {
            TcpPeer peer = connect();
            peer.sendAll(bytes);
        }
        receiver.tick();
    }
    // Another file arrives as ever: nothing of what went before is left.
    void expectGoesOn() {
        arrived.clear();
        messages.warn();
        const Quiet quiet;  // for the ends of connections that are gone
        deliver(fileBytes("goes-on", "as ever"));
        EXPECT_EQ(contentsOf(inInbox("goes-on")), "as ever");
        EXPECT_EQ(arrived, std::vector<std::string>{inInbox("goes-on")});
        EXPECT_EQ(messages.warn(), "");
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
        ::unlink(inInbox("goes-on").c_str());
        arrived.clear();
    }
    // The bytes end their connection with one warning, and nothing is written anywhere.
    void expectRefused(const std::string& bytes, const std::string& warning = kMalformed) {
        const auto before = dir.tree();
        const int connections = receiver.connections();
        messages.warn();
        TcpPeer& peer = deliver(bytes);
        EXPECT_EQ(messages.warn(), warning);
        EXPECT_EQ(dir.tree(), before);
        EXPECT_TRUE(arrived.empty());
        EXPECT_EQ(receiver.transfersUnderWay(), 0u);
        EXPECT_EQ(receiver.connections(), connections) << "the connection is removed";
        expectEnded(peer);
    }
    // The other end has been shut, in order or, where bytes had not been read, by a reset.
    static void expectEnded(TcpPeer& peer) {
        ASSERT_TRUE(waitReadable(peer.fd()));
        char byte;
        EXPECT_LE(::recv(peer.fd(), &byte, 1, 0), 0);
    }

    Messages messages;
    Directory dir;
    Receiver receiver{inbox()};
    std::deque<TcpPeer> peers;
    std::vector<std::string> arrived;
};

#endif
