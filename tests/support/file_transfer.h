// SPDX-License-Identifier: BSD-3-Clause
// File transfers for tests: messages put together by hand, directories and files, and the settings that both
// ends share.
#ifndef CVNC_TESTS_FILE_TRANSFER_H
#define CVNC_TESTS_FILE_TRANSFER_H

#include <cstddef>
#include <functional>
#include <map>
#include <string>

// --- messages -------------------------------------------------------------------------------------------

// Four bytes, most significant first; those of this (x86-64) host the other way round.
std::string u32(unsigned long value, bool networkOrder = true);

// The first message of a file, as its fields say, whether or not they make sense.
struct FirstMessage {
    explicit FirstMessage(unsigned int newId, const std::string& newName, const std::string& newData)
        : id(newId), fileSize(newData.size()), dataSize(newData.size()), name(newName), data(newData) {}

    FirstMessage& announcing(unsigned long size) {
        fileSize = dataSize = size;
        return *this;
    }
    // All of it, its length in front; `nameEnd` is what stands between name and data.
    std::string bytes(bool networkOrder = true, const std::string& nameEnd = std::string(1, '\0')) const;

    unsigned int id;
    unsigned long fileSize, dataSize;
    unsigned int flags = 0;
    std::string name, data;
};

// A later message of the transfer `id`.
std::string laterMessage(unsigned int id, const std::string& data, bool networkOrder = true);

// `body` with its length and that of the length field in front.
std::string message(const std::string& body, bool networkOrder = true);

// The whole stream of a file in messages of at most `limit` bytes.
std::string streamOf(unsigned int id, const std::string& name, const std::string& data, int limit,
                     bool networkOrder = true);

// Bytes that no file system and no link compresses, the same for the same seed.
std::string randomBytes(std::size_t size, unsigned int seed = 1);

// --- settings of the process ----------------------------------------------------------------------------

// The longest message while it lives.
class MessageLimit {
public:
    explicit MessageLimit(int bytes);
    ~MessageLimit();
    MessageLimit(const MessageLimit&) = delete;
    MessageLimit& operator=(const MessageLimit&) = delete;

private:
    const int myFormer;
};

// Host byte order on the wire while it lives.
class HostByteOrder {
public:
    HostByteOrder();
    ~HostByteOrder();
    HostByteOrder(const HostByteOrder&) = delete;
    HostByteOrder& operator=(const HostByteOrder&) = delete;
};

// How long peers may stall, in seconds, while it lives.
class StallLimits {
public:
    StallLimits(double send, double receive);
    ~StallLimits();
    StallLimits(const StallLimits&) = delete;
    StallLimits& operator=(const StallLimits&) = delete;

private:
    const double myFormerSend, myFormerReceive;
};

// --- files ----------------------------------------------------------------------------------------------

// A directory of its own, in memory where the system has such a place, gone with all that is in it.
class Directory {
public:
    Directory();
    ~Directory();
    Directory(const Directory&) = delete;
    Directory& operator=(const Directory&) = delete;

    const std::string& path() const { return myPath; }
    std::string operator/(const std::string& name) const { return myPath + "/" + name; }
    // Writes a file of that name and returns its path.
    std::string write(const std::string& name, const std::string& contents) const;
    bool has(const std::string& name) const;  // a dangling link too
    std::string contents(const std::string& name) const;
    // Everything below, by name, with the contents of files; others have a word that tells their kind.
    std::map<std::string, std::string> tree() const;
    // Bytes that still fit.
    unsigned long long room() const;

private:
    std::string myPath;
};

std::string contentsOf(const std::string& path);

// Runs work with no more rights in the file system than any user has. False, without running it, where that
// is impossible.
bool asNobody(const std::function<void()>& work);

#endif
