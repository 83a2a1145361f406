// SPDX-License-Identifier: BSD-3-Clause
// What the server says: one line for each event, for people or, with --json, for programs.
#ifndef PACKETSERVER_LOG_H
#define PACKETSERVER_LOG_H

#include <string>

#include <nlohmann/json_fwd.hpp>

namespace packetserver {

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

private:
    void write(int fd, const std::string& line);

    const bool isJson_;
    const std::string file_;
    int fileFd_ = -1;
};

}  // namespace packetserver

#endif
