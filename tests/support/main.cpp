// SPDX-License-Identifier: BSD-3-Clause
// main() of every test program: each process gets a network of its own, where the system lets it.
#include <gtest/gtest.h>

#include "network.h"

int main(int argc, char** argv) {
    testing::InitGoogleTest(&argc, argv);
    if (!testing::GTEST_FLAG(list_tests)) enterPrivateNetwork();
    return RUN_ALL_TESTS();
}
