// SPDX-License-Identifier: BSD-3-Clause
// The real cvnet as a child process, with its output in pipes or on a terminal.
#ifndef CVNC_TESTS_CVNET_PROCESS_H
#define CVNC_TESTS_CVNET_PROCESS_H

#include <sys/types.h>

#include <functional>
#include <string>
#include <vector>

#include "json_lines.h"

using Arguments = std::vector<std::string>;

struct CvnetResult {
    int exitStatus = -1;  // -1 when a signal ended it
    int signal = 0;
    std::string output;
    std::string errors;
};

class CvnetProcess {
public:
    enum Where { inPipes, onTerminal };

    // Starts `cvnet arguments`. On a terminal, output and errors arrive together in output. beforeExec runs
    // in the child, for limits and the environment.
    explicit CvnetProcess(const Arguments& arguments, Where where = inPipes,
                          const std::function<void()>& beforeExec = nullptr);
    ~CvnetProcess();
    CvnetProcess(const CvnetProcess&) = delete;
    CvnetProcess& operator=(const CvnetProcess&) = delete;

    pid_t pid() const { return myPid; }
    void signal(int number) const;

    // Reads until text has come on standard output (or error); false when it ended or patience did before.
    bool waitForOutput(const std::string& text);
    bool waitForError(const std::string& text);
    // Reads what there is and tells whether text has come on standard output.
    bool outputHas(const std::string& text);
    // The port in the "listening" line, once it is there.
    int listeningPort();
    // What came so far.
    const std::string& output() const { return myResult.output; }
    const std::string& errors() const { return myResult.errors; }
    // As `| head -1` does.
    void closeOutput();
    // Waits for its end; kills it (and says signal 9) when patience ends.
    CvnetResult finish();

private:
    bool readSome();
    bool waitFor(const std::string& text, const std::string& in);
    static void take(int& fd, std::string& into);

    pid_t myPid = -1;
    int myOutput = -1;
    int myErrors = -1;
    bool myIsFinished = false;
    CvnetResult myResult;
};

// For beforeExec.
void setVariable(const char* name, const char* value);

// Starts it and waits for its end.
CvnetResult cvnet(const Arguments& arguments);

// The line with that event; fails the test when there is none.
nlohmann::json eventOf(const std::vector<nlohmann::json>& lines, const std::string& event);

// PDUs by type in the "types" of a totals line.
std::vector<std::pair<int, int>> pdusByType(const nlohmann::json& totals);

std::vector<std::string> linesOf(const std::string& text);

// A directory of its own for each test, removed with what is in it.
class TestDirectory {
public:
    TestDirectory();
    ~TestDirectory();
    TestDirectory(const TestDirectory&) = delete;
    TestDirectory& operator=(const TestDirectory&) = delete;
    std::string path(const std::string& name) const { return myPath + "/" + name; }

private:
    std::string myPath;
};

#endif
