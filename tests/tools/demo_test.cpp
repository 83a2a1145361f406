// SPDX-License-Identifier: BSD-3-Clause
// The demonstration passes with the real cvnet, and fails loudly with one that loses a PDU.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "captures.h"
#include "cvnet_process.h"

using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

namespace {

// Runs the demonstration on a build directory; its exit status, and what it said in output.
CvnetResult demo(const TestDirectory& directory, const std::string& buildDirectory) {
    const std::string said = directory.path("said");
    const std::string command = std::string(CVNET_DEMO) + " " + buildDirectory + " >" + said + " 2>&1";
    const int status = std::system(command.c_str());  // NOLINT(concurrency-mt-unsafe): one thread
    CvnetResult result;
    result.exitStatus = WEXITSTATUS(status);
    result.output = readFile(said);
    return result;
}

// A build directory whose cvnet is a script.
std::string buildWith(const TestDirectory& directory, const std::string& script) {
    const std::string folder = directory.path("build/tools/cvnet");
    std::filesystem::create_directories(folder);
    writeFile(folder + "/cvnet", "#!/bin/bash\n" + script);
    ::chmod((folder + "/cvnet").c_str(), 0755);
    return directory.path("build");
}

}  // namespace

TEST(Demo, showsEveryPduByTypeAndTheBundlingFactor) {
    TestDirectory directory;
    const CvnetResult result = demo(directory, CVNET_BUILD_DIR);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_THAT(result.output, AllOf(HasSubstr("1 Entity State"), HasSubstr("72 Attribute"),
                                     HasSubstr("datagrams used: "), HasSubstr("bundling factor: "),
                                     HasSubstr("Every PDU arrived"), Not(HasSubstr("WRONG"))));
}

TEST(Demo, failsWhenASenderLosesAPdu) {
    TestDirectory directory;
    const std::string script =
        "args=(\"$@\"); [ \"$1\" = send ] && args+=(--count 382)\n"
        "exec " CVNET_BINARY " \"${args[@]}\"\n";
    const CvnetResult result = demo(directory, buildWith(directory, script));
    EXPECT_EQ(result.exitStatus, 1) << result.output;
    EXPECT_THAT(result.output,
                AllOf(HasSubstr("FAILED"), HasSubstr("WRONG"), Not(HasSubstr("Every PDU arrived"))));
}

TEST(Demo, failsWhenAFilterLetsTooMuchThrough) {
    TestDirectory directory;
    const std::string script =
        "[ \"$1\" = recv ] && set -- \"${@/Entity State,Attribute/Entity State,Attribute,Data}\"\n"
        "exec " CVNET_BINARY " \"$@\"\n";
    const CvnetResult result = demo(directory, buildWith(directory, script));
    EXPECT_EQ(result.exitStatus, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr("FAILED"));
}

TEST(Demo, failsWhenTheReceiverDoesNotStart) {
    TestDirectory directory;
    const CvnetResult result = demo(directory, buildWith(directory, "exit 1\n"));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("FAILED: the receiver did not start"));
}
