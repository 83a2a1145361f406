// SPDX-License-Identifier: BSD-3-Clause
// The demonstration passes with the real cvnet and the real packet server, and fails loudly with ones that
// lose a PDU or leave something behind.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <filesystem>

#include "captures.h"
#include "cvnet_process.h"

using testing::AllOf;
using testing::ContainsRegex;
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

void writeScript(const std::string& folder, const std::string& name, const std::string& script) {
    std::filesystem::create_directories(folder);
    writeFile(folder + "/" + name, "#!/bin/bash\n" + script);
    ::chmod((folder + "/" + name).c_str(), 0755);
}

const char* const kRealCvnet = "exec " CVNET_BINARY " \"$@\"\n";
const char* const kRealServer = CVNET_BUILD_DIR "/packetserver/cvpacketserver \"$@\"\n";

// A build directory whose cvnet and cvpacketserver are scripts.
std::string buildWith(const TestDirectory& directory, const std::string& cvnetScript,
                      const std::string& serverScript = std::string("exec ") + kRealServer) {
    writeScript(directory.path("build/tools/cvnet"), "cvnet", cvnetScript);
    writeScript(directory.path("build/packetserver"), "cvpacketserver", serverScript);
    return directory.path("build");
}

}  // namespace

TEST(Demo, showsEveryPduByTypeAndTheBundlingFactor) {
    TestDirectory directory;
    const CvnetResult result = demo(directory, CVNET_BUILD_DIR);
    EXPECT_EQ(result.exitStatus, 0) << result.output;
    EXPECT_THAT(
        result.output,
        AllOf(HasSubstr("1 Entity State"), HasSubstr("72 Attribute"), HasSubstr("datagrams used: "),
              HasSubstr("bundling factor: "), HasSubstr("3. Two receivers on one unicast port"),
              HasSubstr("nothing was left behind"), HasSubstr("Every PDU arrived"), Not(HasSubstr("WRONG"))));
    // Sent, and what each of the two receivers got of it.
    EXPECT_THAT(result.output, AllOf(ContainsRegex("1 Entity State +137 +137 +-  ok"),
                                     ContainsRegex("41 Environmental Process +57 +- +57  ok"),
                                     ContainsRegex("72 Attribute +152 +152 +152  ok")));
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

TEST(Demo, failsWhenAPacketServerClientGetsTooMuch) {
    TestDirectory directory;
    const std::string script =
        std::string("[ \"$2\" = --server ] && set -- \"${@/!Entity State/!Data}\"\n") + kRealCvnet;
    const CvnetResult result = demo(directory, buildWith(directory, script));
    EXPECT_EQ(result.exitStatus, 1) << result.output;
    EXPECT_THAT(result.output, HasSubstr("FAILED: the second receiver got, by type and in number: 1 "));
}

TEST(Demo, failsWhenThePacketServerDoesNotStart) {
    TestDirectory directory;
    const CvnetResult result = demo(directory, buildWith(directory, kRealCvnet, "exit 1\n"));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("FAILED: the packet server did not start"));
}

TEST(Demo, failsWhenThePacketServerLeavesSomethingBehind) {
    TestDirectory directory;
    const std::string script = kRealServer + std::string("touch \"${@: -1}/stale\"\n");
    const CvnetResult result = demo(directory, buildWith(directory, kRealCvnet, script));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("FAILED: the packet server left behind: stale"));
}

TEST(Demo, failsWhenTheReceiverDoesNotStart) {
    TestDirectory directory;
    const CvnetResult result = demo(directory, buildWith(directory, "exit 1\n"));
    EXPECT_EQ(result.exitStatus, 1);
    EXPECT_THAT(result.output, HasSubstr("FAILED: the receiver did not start"));
}
