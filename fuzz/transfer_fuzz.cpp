// SPDX-License-Identifier: BSD-3-Clause
// Fuzz target for receiving files: the streams of two connections in, files out, through real descriptors and
// a real directory. The second connection is received from inside the first one's first callback. Files,
// callbacks and warnings are held against a model that shares no code with the library; and nothing appears
// outside the directory, or inside it under a name of several components. An input is
//
//     byte  0  flags: 1 network byte order, 2 quiet
//           1  the longest message, 2 bytes, least significant first, as all numbers here (65535: a negative
//           one) 3  steps: a byte, modulo 6, and what it says:
//                0 bytes of the stream as they are: their count (2 bytes) and they
//                1 a message around such bytes
//                2 a first message: identifier (1), file size (1), data size (2; 65535: 4 GiB less one),
//                flags (1),
//                  length of the name (2), name, length of the data (2), data
//                3 a later message: identifier (1), length of the data (2), data
//                4 a connection test
//                5 from here on the stream is the second connection's
//
// Each stream ends with its last step.
#include <cvNetworkCompatibility/cvFileTransport.h>

#include <cvNetworkCompatibility/cvTcpSocket.h>
#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <climits>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "input.h"
#include "little_memory.h"

namespace fs = std::filesystem;

namespace {

typedef std::map<std::string, std::string> Files;

const std::size_t kLongestStream = 60000;  // fits a socket's buffer

void expectSame(const char* what, const std::string& saw, const std::string& wanted) {
    if (saw == wanted) return;
    std::fprintf(stderr, "finding: %s: \"%s\" instead of \"%s\"\n", what, saw.c_str(), wanted.c_str());
    std::abort();
}

// --- input -----------------------------------------------------------------------------------------------

struct Scene {
    explicit Scene(Input& input) {
        const unsigned int flags = input.number(1);
        networkOrder = flags & 1;
        quiet = flags & 2;
        const unsigned int limit = input.number(2);
        longest = limit == 0xFFFF ? -1 : static_cast<int>(limit);
        std::string* stream = &streams[0];
        while (!input.isAtEnd() && stream->size() < kLongestStream) step(input, stream);
        for (std::string& each : streams) each.resize(std::min(each.size(), kLongestStream));
    }

    std::string u32(unsigned long value) const {
        std::string bytes;
        for (int i = 0; i < 4; ++i)
            bytes += static_cast<char>(value >> 8 * (networkOrder ? 3 - i : i) & 0xFF);
        return bytes;
    }

    bool networkOrder, quiet;
    int longest;
    std::string streams[2];

private:
    void step(Input& input, std::string*& stream) {
        switch (input.number(1) % 6) {
            case 0:
                *stream += input.bytes(input.number(2));
                break;
            case 1:
                *stream += message(input.bytes(input.number(2)));
                break;
            case 2: {
                std::string body = u32(input.number(1));
                body += u32(input.number(1));
                const unsigned int dataSize = input.number(2);
                body += u32(dataSize == 0xFFFF ? 0xFFFFFFFFu : dataSize);
                body += u32(input.number(1));
                body += input.bytes(input.number(2)) + '\0';
                body += input.bytes(input.number(2));
                *stream += message(body);
                break;
            }
            case 3: {
                const std::string id = u32(input.number(1));
                *stream += message(id + input.bytes(input.number(2)));
                break;
            }
            case 4:
                *stream += message("");
                break;
            default:
                stream = &streams[1];
        }
    }
    std::string message(const std::string& body) const { return u32(body.size() + 4) + body; }
};

// --- what must come out ----------------------------------------------------------------------------------

// The target directory and what stands beside it. A directory "d" and a link "l" are in the way of such
// names.
struct Place {
    Place() {
        for (std::string path : {"/dev/shm/transfer_fuzz.XXXXXX", "/tmp/transfer_fuzz.XXXXXX"})
            if (base.empty() && ::mkdtemp(&path[0])) base = path;
        if (base.empty() || ::mkdir(inbox().c_str(), 0755) != 0) std::abort();
        fs::create_directory(inbox() + "/d");
        fs::create_symlink("../victim", inbox() + "/l");
    }
    ~Place() {
        std::error_code ignored;
        fs::remove_all(base, ignored);
    }
    std::string inbox() const { return base + "/inbox"; }

    // Takes the files out; fails on whatever else is there.
    Files take() const {
        for (const fs::directory_entry& entry : fs::directory_iterator(base))
            expectSame("an entry beside the directory", entry.path().filename().string(), "inbox");
        Files files;
        for (const fs::directory_entry& entry : fs::directory_iterator(inbox())) {
            const std::string name = entry.path().filename().string();
            if (name == "d" && fs::is_directory(entry.symlink_status())) continue;
            if (name == "l" && fs::is_symlink(entry.symlink_status())) continue;
            std::ifstream file(entry.path(), std::ios::binary);
            files[name].assign(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
            fs::remove(entry.path());
        }
        expectEqual("nothing is in the directory's own directory", fs::is_empty(inbox() + "/d"), true);
        return files;
    }

    std::string base;
};

const Place& place() {
    static const Place theOne;
    return theOne;
}

class Model {
public:
    explicit Model(const Scene& scene) : myScene(scene) { receive(0, {}); }

    Files files;
    std::vector<std::string> calls;
    std::string warnings;
    bool isOk[2] = {true, true};  // the connections, afterwards
    bool isInnerUsed = false;

private:
    struct Transfer {
        std::string name, data;
        unsigned long dataSize;
    };
    typedef std::map<unsigned long, Transfer> Transfers;
    enum Verdict { kGoOn, kMalformed };

    unsigned long field(const std::string& bytes, std::size_t at) const {
        unsigned long value = 0;
        for (std::size_t i = 0; i < 4; ++i)
            value = value << 8 | static_cast<unsigned char>(bytes[at + (myScene.networkOrder ? i : 3 - i)]);
        return value;
    }

    void receive(int connection, const Transfers& others) {
        const std::string& stream = myScene.streams[connection];
        Transfers own;
        std::uint64_t buffer = 20000;
        for (std::size_t at = 0;;) {
            if (stream.size() - at < 4) return end(connection, "Socket error");
            const unsigned long length = field(stream, at);
            if (length < 4 || length > INT_MAX || !fits(length, buffer)) {
                if (!myScene.quiet)
                    warnings += "NwTcpSocket: bad packet length " + std::to_string(length) + "\n";
                return end(connection, "Socket error");
            }
            if (stream.size() - at < length) return end(connection, "Socket error");
            const std::string message = stream.substr(at, length);
            at += length;
            if (length == 4) continue;
            if (take(message, own, others) == kMalformed) return end(connection, "malformed message");
            if (own.empty()) return;
        }
    }

    // The socket's buffer grows in multiples of its size.
    static bool fits(std::uint64_t length, std::uint64_t& buffer) {
        if (buffer > length) return true;
        const std::uint64_t size = (length / buffer + 1) * buffer;
        if (size > kMostMemory) return false;
        buffer = size;
        return true;
    }

    void end(int connection, const std::string& reason) {
        isOk[connection] = false;
        warnings += "FileTransporter: " + reason + "-Exiting transfer\n";
    }

    Verdict take(const std::string& message, Transfers& own, const Transfers& others) {
        if (message.size() < 8 || static_cast<long>(message.size()) > myScene.longest) return kMalformed;
        const unsigned long id = field(message, 4);
        if (others.count(id)) return kMalformed;
        std::size_t start = 8;
        if (!own.count(id)) {
            const std::size_t nameEnd = message.size() > 20 ? message.find('\0', 20) : std::string::npos;
            if (nameEnd == std::string::npos) return kMalformed;
            const std::string path = message.substr(20, nameEnd - 20);
            const std::size_t slash = path.rfind('/');
            const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
            if (name.empty() || name == "." || name == "..") return kMalformed;
            if (own.size() >= 1000) return kMalformed;
            own[id] = {name, "", field(message, 12)};
            start = nameEnd + 1;
        }
        Transfer& transfer = own[id];
        transfer.data += message.substr(start);
        if (transfer.data.size() > transfer.dataSize) return kMalformed;
        if (transfer.data.size() < transfer.dataSize) return kGoOn;
        finish(transfer, own, others);
        own.erase(id);
        return kGoOn;
    }

    void finish(const Transfer& transfer, const Transfers& own, Transfers others) {
        const std::string path = place().inbox() + "/" + transfer.name;
        if (transfer.name == "d" || transfer.name == "l" || transfer.name.size() > 255) {
            warnings += "NwFileTransporter: cant create file" + escaped(path) + "\n";
            return;
        }
        files[transfer.name] = transfer.data;
        calls.push_back(path);
        if (isInnerUsed) return;
        isInnerUsed = true;
        others.insert(own.begin(), own.end());
        receive(1, others);
    }

    // Control characters as numbers, those above ASCII too: as bytes by themselves or as letters of UTF-8.
    static std::string escaped(const std::string& text) {
        std::ostringstream shown;
        for (std::size_t at = 0; at < text.size();) {
            std::size_t size = 0;
            const unsigned long letter = decoded(text, at, size);
            for (const std::size_t end = at + size; at < end; ++at) {
                const unsigned int byte = static_cast<unsigned char>(text[at]);
                if (letter < 32 || (letter >= 127 && letter < 160))
                    shown << "\\x"
                          << "0123456789ABCDEF"[byte >> 4] << "0123456789ABCDEF"[byte & 15];
                else
                    shown << text[at];
            }
        }
        return shown.str();
    }

    static unsigned long decoded(const std::string& text, std::size_t at, std::size_t& size) {
        const auto byte = [&](std::size_t i) {
            return i < text.size() ? static_cast<unsigned long>(static_cast<unsigned char>(text[i])) : 0;
        };
        const auto more = [&](std::size_t i) { return byte(i) / 64 == 2; };
        const unsigned long first = byte(at);
        size = first / 32 == 6 && more(at + 1) ? 2 : 1;
        if (first / 16 == 14 && more(at + 1) && more(at + 2)) size = 3;
        if (first / 8 == 30 && more(at + 1) && more(at + 2) && more(at + 3)) size = 4;
        if (size == 1) return first;
        unsigned long letter = first % (1ul << (7 - size));
        for (std::size_t i = 1; i < size; ++i) letter = letter * 64 + byte(at + i) % 64;
        return letter;
    }

    const Scene& myScene;
};

// --- what does come out ------------------------------------------------------------------------------------

// One end of a connection, around which the library's socket lies; the other end has sent all and is closed.
class Connection {
public:
    explicit Connection(const std::string& stream) : mySocket(openedWith(stream), 0x7F000001u, 0) {}
    NwTcpSocket& socket() { return mySocket; }

private:
    static int openedWith(const std::string& stream) {
        int ends[2];
        if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0) std::abort();
        if (!stream.empty() && ::send(ends[1], stream.data(), stream.size(), MSG_DONTWAIT) !=
                                   static_cast<ssize_t>(stream.size())) {
            std::perror("send");
            std::abort();
        }
        ::close(ends[1]);
        return ends[0];
    }

    NwTcpSocket mySocket;
};

class Run : public NwFileTransporter {
public:
    Run(const Scene& scene, const Model& model)
        : NwFileTransporter(-1, false, 0, place().inbox().c_str(), nullptr), myScene(scene) {
        std::ostringstream warnings;
        NwWarn.rdbuf(warnings.rdbuf());
        addFileTransferedCallback(arrived, this);
        receiveFrom(0);
        NwWarn.rdbuf(nullptr);

        expectSame("warnings", warnings.str(), model.warnings);
        expectEqual("the second connection is used", isInnerUsed, model.isInnerUsed);
        for (int i = 0; i < 2; ++i) expectEqual("the connection is alive", isOk[i], model.isOk[i]);
        expectEqual("transfers left", static_cast<long>(transfers.size()), 0);
        expectEqual("callbacks", static_cast<long>(calls.size()), static_cast<long>(model.calls.size()));
        for (std::size_t i = 0; i < calls.size(); ++i) expectSame("path", calls[i], model.calls[i]);
        const Files files = place().take();
        expectEqual("files", static_cast<long>(files.size()), static_cast<long>(model.files.size()));
        for (const auto& file : model.files) {
            expectEqual("a file is there", static_cast<long>(files.count(file.first)), 1);
            expectSame("contents", files.at(file.first), file.second);
        }
    }

private:
    void receiveFrom(int connection) {
        NwSocket::setQuietSockets(true);  // such a descriptor has no delay to switch off
        Connection peer(myScene.streams[connection]);
        NwSocket::setQuietSockets(myScene.quiet);
        receiveFile(&peer.socket());
        isOk[connection] = peer.socket().isOk();
    }

    static void arrived(const NwFilename& path, void* data) {
        Run& run = *static_cast<Run*>(data);
        run.calls.push_back(path.c_str());
        if (run.isInnerUsed) return;
        run.isInnerUsed = true;
        run.receiveFrom(1);
    }

    const Scene& myScene;
    std::vector<std::string> calls;
    bool isOk[2] = {true, true};
    bool isInnerUsed = false;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    NwInfo.rdbuf(nullptr);
    NwWarn.rdbuf(nullptr);
    Input input(data, size);
    const Scene scene(input);
    NwSetNetworkByteOrdering(scene.networkOrder ? 1 : 0);
    theMaxPacketSize = scene.longest;
    Run(scene, Model(scene));
    return 0;
}
