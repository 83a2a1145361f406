// SPDX-License-Identifier: BSD-3-Clause
// What the server says: one line for each event, for people or, with --json, for programs.
#ifndef PACKETSERVER_LOG_H
#define PACKETSERVER_LOG_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <nlohmann/json_fwd.hpp>

namespace packetserver {

/// Never waits for whoever reads. Lines that find no room are lost, and their number is told with the next
/// one that finds some.
class Log {
public:
    /// Lines go to standard error, JSON lines to standard output, and both to `file` instead if one is named.
    Log(bool isJson, std::string file);
    ~Log();
    Log(const Log&) = delete;
    Log& operator=(const Log&) = delete;

    /// Opens the file, anew for a log that was moved away. False, errno set, when it cannot be.
    bool open();

    /// An event: its fields for programs, its words for people.
    void event(const nlohmann::json& fields, const std::string& words);
    /// An event that can be told when nothing else can.
    void outOfMemory();

private:
    void put(const nlohmann::json& fields, const std::string& words);
    bool write(const char* line, std::size_t length) const;
    void takeBack(std::size_t bytes) const;

    const bool isJson_;
    const std::string file_;
    int fileFd_ = -1;
    std::uint64_t lost_ = 0;  // lines since the last one that was written
};

}  // namespace packetserver

#endif
