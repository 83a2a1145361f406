// SPDX-License-Identifier: BSD-3-Clause
// cvnet: shows a person how the packet library works. Reads the options, runs one sub-command.
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstring>
#include <exception>
#include <iostream>
#include <memory>
#include <string>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>

#include "command.h"
#include "failure.h"
#include "ifaces.h"
#include "library.h"
#include "output.h"
#include "pull.h"
#include "push.h"
#include "recv.h"
#include "relay.h"
#include "send.h"
#include "server.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

using Commands = std::array<std::unique_ptr<Command>, 7>;

Commands makeCommands() {
    return {makeIfacesCommand(), makeSendCommand(), makeRecvCommand(),  makeRelayCommand(),
            makePushCommand(),   makePullCommand(), makeServerCommand()};
}

// Started with one of them closed, the next socket or file would take its number, and lines meant for a
// person would end up in there.
void fillStandardDescriptors() {
    int fd = 0;
    while ((fd = ::open("/dev/null", O_RDWR)) >= 0 && fd <= STDERR_FILENO) {
    }
    if (fd >= 0) ::close(fd);
}

// Known before the options are read, so that an error in them already says whose they are.
void nameErrorsAfter(const Commands& commands, int argc, char** argv) {
    if (argc < 2 || argv[1][0] == '-') return;
    std::string known;
    for (const auto& command : commands) {
        known += fmt::format("{}{}", known.empty() ? "" : ", ", command->name());
        if (std::strcmp(argv[1], command->name()) != 0) continue;
        setErrorPrefix(fmt::format("cvnet {}", command->name()));
        return;
    }
    throw UsageFailure(fmt::format("no sub-command is called {} (there are {})", printable(argv[1]), known));
}

int runChosen(const Commands& commands, const CLI::App& app) {
    for (const auto& command : commands) {
        if (!app.got_subcommand(command->name())) continue;
        StopSignal::install();
        prepareLibrary();
        return command->run();
    }
    throw UsageFailure("give a sub-command (see cvnet --help)");
}

int run(int argc, char** argv) {
    CLI::App app("Sends, receives and shows DIS traffic through the packet library.", "cvnet");
    app.set_version_flag("--version", "cvnet " CVNET_VERSION);
    app.footer(
        "Each sub-command has its own --help, with examples.\n"
        "Exit status: 0 done, 1 the host, a file or the network refused, 2 the arguments make no sense.");
    const Commands commands = makeCommands();
    for (const auto& command : commands)
        command->addOptions(*app.add_subcommand(command->name(), command->purpose()));
    app.require_subcommand(0, 1);
    nameErrorsAfter(commands, argc, argv);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        if (error.get_exit_code() == 0) return app.exit(error);  // --help, --version
        throw UsageFailure(oneLine(error.what()));
    }
    return runChosen(commands, app);
}

}  // namespace
}  // namespace cvnet

int main(int argc, char** argv) {
    cvnet::fillStandardDescriptors();
    try {
        return cvnet::run(argc, argv);
    } catch (const cvnet::Failure& failure) {
        cvnet::errorLine(failure.what());
        return failure.exitStatus();
    } catch (const std::exception& error) {
        cvnet::errorLine(cvnet::oneLine(error.what()));
        return cvnet::kExitFailed;
    }
}
