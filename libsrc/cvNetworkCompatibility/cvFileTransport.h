// SPDX-License-Identifier: BSD-3-Clause
// Whole files pushed to a peer over TCP.
#ifndef CVNETWORKCOMPATIBILITY_CVFILETRANSPORT_H
#define CVNETWORKCOMPATIBILITY_CVFILETRANSPORT_H

#include <cvNetworkCompatibility/cvExport.h>
#include <cvNetworkCompatibility/cvTcpSocketMgr.h>
#include <cvutil/cvFilename.h>

#include <cstdint>
#include <iosfwd>
#include <map>
#include <memory>
#include <vector>

class NwFileTransportObject;

// Sends files to other transporters and receives theirs: a file arrives whole and named, or not at all.
//
//     int port = 0;
//     NwFileTransporter transporter(4000, true, 10, "/var/inbox", &port);  // the first free of 4000 to 4009
//     transporter.addFileTransferedCallback(arrived, nullptr);  // void arrived(const NwFilename&, void*)
//     transporter.sendFile("/data/tile_7.dat", loopbackAddr, 4000);  // returns when it is sent
//     while (running) transporter.tick();                            // receives
//
// One connection carries one file, in messages of at most NwMaxPacketSize() bytes; both ends must agree on
// that size and on the byte order (NwSetNetworkByteOrdering). Numbers are unsigned, 4 bytes long:
//
//     first message    0 length of this message | 4 file identifier | 8 file size | 12 data size |
//                      16 flags (0) | 20 name without directories, NUL | data
//     later messages   0 length of this message | 4 file identifier | 8 data
//
// A file is complete when data size bytes have come. There is no encryption, no authentication and no
// checksum beyond TCP's: whoever reaches the port can put files into the target directory.
//
// Both directions hold the caller: sendFile until the kernel has taken the file, tick until a file that has
// begun to arrive, or a connection that was just made, has come to its end. See the two limits below for
// peers that stall (connecting takes what the system allows, outside of them). A transporter that sends to
// itself, or two that send to each other at once, wait for each other. The whole file is in memory meanwhile,
// once; files have at most INT_MAX bytes to be sent, and 4294967295 to be received.
//
// "Whole or not at all" is what callbacks see. The file is written in place: other processes may see it grow,
// a hard link of that name is written through, and after a failed write the former file is gone as well.
//
// What a peer may not do: a name that is not ended inside its message; an empty name, "." or ".." (of a name
// with directories the last component counts); data beyond the announced size; a message longer than
// NwMaxPacketSize() (it is refused when it has come) or too short for its fields; a transfer that another
// connection carries; more than 1000 open transfers. Then
// "FileTransporter: malformed message-Exiting transfer" is printed, the connection is shut down, its
// transfers are dropped, and nothing is written. The same with "FileTransporter: no memory-Exiting transfer"
// when memory does not hold what comes.
//
// Warnings go to NwWarn, also while sockets are quiet; sizes of messages to NwDebug. One thread uses a
// transporter. Callbacks may use it, but not destroy it. Not copyable. The order of the virtual operations is
// part of the binary interface, and so is the order of the fields.
class CVNC_API NwFileTransporter {
public:
    // Carried with each file; this library writes 0 and acts on nothing.
    enum NwFileTransportFlags : unsigned int { NwFileTransportPlain = 0 };

    typedef void (*FileTransferedCallback)(const NwFilename& path, void* userData);

    // Makes the target directory, then listens on `port`; with searchPorts on the first that is free of
    // `port` to `port + portRange - 1` (a port that cannot be had for another reason than being taken is
    // reported by the manager). *portOut (which may be null) becomes the port. Port 0 lets the system choose.
    // A number that is no port, such as -1, is not tried: for transporters that only send, with an empty
    // targetDir. When there was none, port() and *portOut are -1 and tick does nothing; when searching with a
    // portRange of 0 or less, "Corvane(NwFileTransporter) Could not find a free port in range " and the range
    // are printed.
    NwFileTransporter(int port, bool searchPorts, int portRange, const NwFilename& targetDir, int* portOut);
    // Stops listening, closes every connection, and drops what has not arrived whole.
    virtual ~NwFileTransporter();
    NwFileTransporter(const NwFileTransporter&) = delete;
    NwFileTransporter& operator=(const NwFileTransporter&) = delete;

    // Accepts connections, receives the file of each, and removes connections that have ended. To be called
    // often. Returns at once when nobody has connected.
    virtual void tick();

    // The port listened on, -1 for none.
    virtual int port() const;

    // cb(path, userData) is called for each file that was written; path is in the target directory. A
    // function is registered once: registering it again replaces its userData (the application's, passed on).
    // They are called in the order of their addresses. The file's stream is still open then: its bytes are
    // with the system, but nothing was synchronised to the disk.
    virtual void addFileTransferedCallback(FileTransferedCallback cb, void* userData);
    // Unregisters cb, whatever userData.
    virtual void removeFileTransferedCallback(FileTransferedCallback cb, void* userData);

    // Sends `file` to the transporter at addr (host byte order) and port. True: the file was read, the peer
    // was reached, and the messages were handed over; true also when the connection broke on the way (then
    // the socket warned, and lastSendComplete() is false) and for an empty file, of which nothing is sent.
    // False with one of these on NwWarn, the path behind it:
    //   "Corvane(NwFileTransporter): error opening file "   not there, not readable, no regular file, larger
    //                                                       than INT_MAX, or its name does not fit a message
    //   "Corvane(NwFileTransporter) error reading file "    readFileToBuffer refused, or memory ended
    //   "Corvane(NwFileTransporter): Could not create socket send() to addr ADDRESS port= PORT"
    //   "Corvane(NwFileTransporter): no progress sending file "   see setSendStallLimit
    virtual bool sendFile(const NwFilename& file, unsigned int addr, int port);
    // The same to the port number that this transporter itself listens on.
    virtual bool sendFile(const NwFilename& file, unsigned int addr);

    // Receives one file from a connection just accepted; tick arranges for this. Returns when every transfer
    // that the connection began has ended. A connection that breaks: "FileTransporter: Socket error-Exiting
    // transfer", and its transfers are dropped.
    virtual void receiveFile(NwTcpSocket* sock);

    // The identifier of the next transfer sent: seconds since 1970 plus a count of the process.
    virtual unsigned int nextFileIdentifier();

    // Reads `size` bytes of `in` for sending. A derived transporter may transform them. buffer becomes size +
    // 1 bytes, bytesRead what is to be sent of them, flags what goes into the first message. False: no
    // transfer. This one reads as is, without a look at the stream's state, and returns true.
    virtual bool readFileToBuffer(std::ifstream& in, std::vector<char>& buffer, int size, int& bytesRead,
                                  NwFileTransportFlags& flags);

    // Writes a transfer that is complete into the target directory, in place of a file of that name, calls
    // the callbacks, and ends the transfer. What is there and is no regular file, a symbolic link too, is
    // left alone: "NwFileTransporter: cant create file" and the path. "NwFileTransporter: Error writing file"
    // and the path when the disk is full, for one; what was written is removed then.
    virtual void finishFile(NwFileTransportObject& obj);

    // The transfer of that identifier, begun if there is none. Lent until the transfer ends.
    virtual NwFileTransportObject& transportObject(int id);

    // Called by sendFile when the kernel has taken `sent` of `total` data bytes, after each message; the last
    // time with both equal and the socket still open. For progress, and for waiting for the peer. Does
    // nothing.
    virtual void sendProgress(NwTcpSocket& socket, int sent, int total);

    // Where files are written. Setting it makes the directory, as far as that is possible.
    const NwFilename& targetDirectory() const;
    void setTargetDirectory(const NwFilename& dir);

    // Whether the last sendFile handed over everything: false when it returned false or its connection broke.
    bool lastSendComplete() const;

    // How long a peer may stall, in seconds, for every transporter of the process; 0 is for ever. sendFile
    // gives up when a receiver has taken nothing for that long (30 at the start). A receive gives up when no
    // message with data has been completed for that long (0 at the start: the application decides):
    // "FileTransporter: no progress-Exiting transfer", and the connection is shut down. Any thread may set
    // them.
    static void setSendStallLimit(double seconds);
    static void setReceiveStallLimit(double seconds);
    static double theSendStallLimit;
    static double theReceiveStallLimit;

    // The manager's addition callback: receiveFile(sock) of the transporter.
    static void receiveFileCb(NwTcpSocket* sock, void* transporter);

protected:
    std::map<FileTransferedCallback, void*> callbacks;
    int myPort;
    std::unique_ptr<NwTcpSocketMgr> mySocketMgr;  // null without a port
    NwFilename targetDir;
    std::map<int, NwFileTransportObject> transfers;  // by identifier
    bool sendComplete;

private:
    struct Reception;
    struct Outgoing;

    CVNC_LOCAL void search(bool searchPorts, int portRange);
    CVNC_LOCAL bool isReceiving(const NwTcpSocket* sock) const;
    CVNC_LOCAL void receive(Reception& reception);
    CVNC_LOCAL void removeEnded();
    CVNC_LOCAL const char* take(Reception& reception, int length);
    CVNC_LOCAL const char* store(Reception& reception, int id, int length, NwFileTransportObject*& obj);
    CVNC_LOCAL void drop(Reception& reception, const char* reason);
    CVNC_LOCAL void callBack(const NwFilename& path);
    CVNC_LOCAL bool load(Outgoing& out);
    CVNC_LOCAL bool send(const Outgoing& out, NwTcpSocket& socket);
    CVNC_LOCAL static int writeFirstHeader(const Outgoing& out, char* message);

    Reception* receptions;  // those under way, innermost first
};

// One file on its way in.
class CVNC_API NwFileTransportObject {
public:
    // All numbers 0, name and data empty.
    NwFileTransportObject();
    NwFileTransportObject(const NwFileTransportObject&);
    NwFileTransportObject& operator=(const NwFileTransportObject&);
    ~NwFileTransportObject();

    std::int32_t identifier;
    NwFilename fileName;         // its last component
    std::uint32_t fileSize;      // bytes of the sender's file
    std::int64_t dataSize;       // bytes that are to come
    std::int64_t bytesReceived;  // of them
    std::vector<char> data;      // those; at the end one zero byte more
    NwFileTransporter::NwFileTransportFlags flags;
    bool headerSeen;
};

#endif
