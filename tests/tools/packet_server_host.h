// SPDX-License-Identifier: BSD-3-Clause
// A host with packet servers of its own, and cvnet on it.
#ifndef CVNC_TESTS_PACKET_SERVER_HOST_H
#define CVNC_TESTS_PACKET_SERVER_HOST_H

#include <gtest/gtest.h>

#include <string>

#include "cvnet_process.h"
#include "packet_server_process.h"
#include "private_host.h"

// Before anything is put into /tmp.
struct PrivateHost {
    PrivateHost() { hasPrivateHost(); }
};

// Ends in order, unless a test has ended it, and then leaves nothing.
class OrderlyServer : public Server {
public:
    using Server::Server;
    ~OrderlyServer() {
        if (daemon().isRunning()) stop();
    }
};

// Every test ends with nothing left in shared memory or of clients' paths.
class PacketServerHost : PrivateHost, public testing::Test {
protected:
    void SetUp() override { REQUIRE_PRIVATE_HOST(); }
    void TearDown() override {
        if (hasPrivateHost()) {
            EXPECT_EQ(leftovers(), "");
        }
    }

    // `arguments`, which begin with a sub-command, for that server.
    static Arguments at(const Server& server, Arguments arguments) {
        for (const std::string& more : {std::string("--port"), std::to_string(server.port()),
                                        std::string("--run-dir"), server.directory().path()})
            arguments.push_back(more);
        return arguments;
    }
    static CvnetResult cvnetAt(const Server& server, const Arguments& arguments) {
        return cvnet(at(server, arguments));
    }
    // The only JSON line of a successful `cvnet server ...`.
    static nlohmann::json answer(const Server& server, Arguments arguments) {
        arguments.insert(arguments.begin(), "server");
        arguments.emplace_back("--json");
        const CvnetResult result = cvnetAt(server, arguments);
        EXPECT_EQ(result.exitStatus, 0) << result.errors;
        EXPECT_EQ(result.errors, "");
        const auto lines = jsonLines(result.output);
        EXPECT_EQ(lines.size(), 1U) << result.output;
        return lines.empty() ? nlohmann::json::object() : lines.front();
    }
};

// One line on standard error, from that command, and a status.
inline void expectError(const CvnetResult& result, int exitStatus, const std::string& line) {
    EXPECT_EQ(result.exitStatus, exitStatus) << result.output;
    EXPECT_EQ(result.errors, line + '\n');
}

#endif
