// SPDX-License-Identifier: BSD-3-Clause
// What the library prints, caught in memory instead of on standard error.
#ifndef CVNC_TESTS_MESSAGES_H
#define CVNC_TESTS_MESSAGES_H

#include <cvutil/cvOutput.h>

#include <sstream>
#include <string>

// While it lives, the four streams write here, at the most talkative level; afterwards as before.
class Messages {
public:
    Messages();
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    // What was written since the last call for that stream.
    std::string info() { return take(myInfo); }
    std::string warn() { return take(myWarn); }
    std::string verbose() { return take(myVerbose); }
    std::string debug() { return take(myDebug); }
    // Everything, in the order info, warn, verbose, debug.
    std::string all() { return info() + warn() + verbose() + debug(); }

private:
    static std::string take(std::stringbuf& buffer);

    std::stringbuf myInfo, myWarn, myVerbose, myDebug;
    std::streambuf *myOldInfo, *myOldWarn, *myOldVerbose, *myOldDebug;
    int myOldLevel;
};

// Quiet sockets while it lives.
class Quiet {
public:
    Quiet();
    ~Quiet();
    Quiet(const Quiet&) = delete;
    Quiet& operator=(const Quiet&) = delete;
};

// The report of a failed system call: text, ": ", the system's words for error, end of line.
std::string systemReport(const std::string& text, int error);

#endif
