// SPDX-License-Identifier: BSD-3-Clause
// Work that must not harm the test: run in a child process whose ending and last words are looked at.
#ifndef CVNC_TESTS_CHILD_H
#define CVNC_TESTS_CHILD_H

#include <functional>
#include <string>

struct ChildResult {
    int exitStatus;      // -1 when a signal ended it
    int signal;          // 0 when it exited
    std::string output;  // standard error
    std::string standardOutput;
};

// Forks, runs work, and exits with its result if work returns (without destructors of statics).
ChildResult inChild(const std::function<int()>& work);

#endif
