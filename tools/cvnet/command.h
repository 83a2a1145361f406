// SPDX-License-Identifier: BSD-3-Clause
// What a sub-command is to main(): it declares its options and then runs. Each has one file pair.
#ifndef CVNET_COMMAND_H
#define CVNET_COMMAND_H

namespace CLI {
class App;
}

namespace cvnet {

class Command {
public:
    virtual ~Command() = default;

    /// The word after `cvnet`.
    virtual const char* name() const = 0;

    /// One line for the list of sub-commands.
    virtual const char* purpose() const = 0;

    /// Declares options that write into this object, which outlives `app`.
    virtual void addOptions(CLI::App& app) = 0;

    /// Runs with the options read; returns the exit status or throws Failure.
    virtual int run() = 0;
};

}  // namespace cvnet

#endif
