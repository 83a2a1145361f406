// SPDX-License-Identifier: BSD-3-Clause
// What the library prints, caught in memory instead of on standard error.
#ifndef CVNC_TESTS_MESSAGES_H
#define CVNC_TESTS_MESSAGES_H

#include <cvutil/cvOutput.h>

#include <mutex>
#include <streambuf>
#include <string>
#include <vector>

// What a stream writes, to be taken while worker threads go on writing.
class TextBuffer : public std::streambuf {
public:
    // What came since the last call.
    std::string take();

protected:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize length) override;

private:
    std::mutex myMutex;
    std::string myText;
};

// While it lives, the four streams write here, at the most talkative level; afterwards as before.
class Messages {
public:
    Messages();
    ~Messages();
    Messages(const Messages&) = delete;
    Messages& operator=(const Messages&) = delete;

    // What was written since the last call for that stream.
    std::string info() { return myInfo.take(); }
    std::string warn() { return myWarn.take(); }
    std::string verbose() { return myVerbose.take(); }
    std::string debug() { return myDebug.take(); }
    // Everything, in the order info, warn, verbose, debug.
    std::string all() { return info() + warn() + verbose() + debug(); }

private:
    TextBuffer myInfo, myWarn, myVerbose, myDebug;
    std::streambuf *myOldInfo, *myOldWarn, *myOldVerbose, *myOldDebug;
    int myOldLevel;
};

// While it lives, NwWarn writes here, where only what was flushed counts: warnings that someone who waits for
// them has seen.
class FlushedWarnings : private std::streambuf {
public:
    FlushedWarnings();
    ~FlushedWarnings() override;
    FlushedWarnings(const FlushedWarnings&) = delete;
    FlushedWarnings& operator=(const FlushedWarnings&) = delete;

    // What each flush since the last call brought. What was not flushed comes last, behind "not flushed: ".
    std::vector<std::string> take();

private:
    int_type overflow(int_type c) override;
    std::streamsize xsputn(const char* text, std::streamsize length) override;
    int sync() override;

    std::streambuf* const myOld;
    std::string myText;
    std::vector<std::string> myFlushed;
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
