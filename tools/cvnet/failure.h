// SPDX-License-Identifier: BSD-3-Clause
// How a command of cvnet ends when it cannot go on: one line for its user, and an exit status.
#ifndef CVNET_FAILURE_H
#define CVNET_FAILURE_H

#include <stdexcept>
#include <string>

namespace cvnet {

enum ExitStatus { kExitOk = 0, kExitFailed = 1, kExitUsage = 2 };

/// The host, a file or the network refused: exit status 1.
class Failure : public std::runtime_error {
public:
    explicit Failure(const std::string& line, int exitStatus = kExitFailed)
        : std::runtime_error(line), exitStatus_(exitStatus) {}
    int exitStatus() const { return exitStatus_; }

private:
    int exitStatus_;
};

/// The arguments make no sense: exit status 2.
class UsageFailure : public Failure {
public:
    explicit UsageFailure(const std::string& line) : Failure(line, kExitUsage) {}
};

}  // namespace cvnet

#endif
