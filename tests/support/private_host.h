// SPDX-License-Identifier: BSD-3-Clause
// A host of its own for each test process: System V IPC and a /tmp that nobody else uses, so that what a
// server or a client leaves behind can be counted.
#ifndef CVNC_TESTS_PRIVATE_HOST_H
#define CVNC_TESTS_PRIVATE_HOST_H

#include <gtest/gtest.h>

#include <string>

#include "network.h"

// Tries at the first call. The network is main()'s.
bool hasPrivateHost();
const std::string& privateHostProblem();
#define REQUIRE_PRIVATE_HOST() \
    REQUIRE_PRIVATE_NETWORK(); \
    if (!hasPrivateHost()) GTEST_SKIP() << "needs namespaces: " << privateHostProblem()

// Other users' processes, which root alone can start.
#define REQUIRE_OTHER_USERS() \
    if (!canBecomeOthers()) GTEST_SKIP() << "needs a root that may change its user"
bool canBecomeOthers();
const unsigned kOtherUser = 65534;
const unsigned kThirdUser = 65533;

// The segments and semaphore sets of this host, and the notify paths in /tmp: one line each, empty when
// there are none.
std::string leftovers();
int segmentsThere();
int setsThere();
int notifyPathsThere();

#endif
