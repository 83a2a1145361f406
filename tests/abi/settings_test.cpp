// SPDX-License-Identifier: BSD-3-Clause
// Exported settings that a program assigns directly. This program is linked at a fixed address, the way in
// which it gets copies of the libraries' variables: the libraries must then use the program's copy, not their
// own.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvByteOrder.h>
#include <cvutil/cvOutput.h>

#include "elf_file.h"

namespace {

// Puts a setting back when the test ends.
template <class T>
class Restored {
public:
    explicit Restored(T& setting) : mySetting(setting), myValue(setting) {}
    ~Restored() { mySetting = myValue; }

private:
    T& mySetting;
    const T myValue;
};

}  // namespace

// Without these copies the tests below would pass on any library.
TEST(AssignedSetting, isACopyInThisProgram) {
    std::vector<std::string> names;
    for (const std::string& name : ElfFile("/proc/self/exe").copiedVariables())
        names.push_back(demangled(name));
    for (const char* name : {"theMaxPacketSize", "NwSocket::theAreQuietSockets",
                             "NwNetSocket::initErrorAction", "NwNetSocket::theMaxSendRetries",
                             "NwNetSocket::theSendRetryPeriod", "NwNetworkByteOrderingSetting"})
        EXPECT_THAT(names, testing::Contains(name));
}

TEST(AssignedSetting, maxPacketSizeReachesTheLibraryAndComesBack) {
    Restored<int> restored(theMaxPacketSize);
    Restored<bool> quiet(NwSocket::theAreQuietSockets);
    EXPECT_EQ(theMaxPacketSize, 15000);
    theMaxPacketSize = 1234;
    EXPECT_EQ(NwMaxPacketSize(), 1234);
    NwSetMaxPacketSize(4321);
    EXPECT_EQ(theMaxPacketSize, 4321);
}

TEST(AssignedSetting, quietnessReachesTheLibraryAndComesBack) {
    Restored<bool> restored(NwSocket::theAreQuietSockets);
    NwSocket::theAreQuietSockets = true;
    EXPECT_TRUE(NwSocket::areQuietSockets());
    NwSocket::setQuietSockets(false);
    EXPECT_FALSE(NwSocket::theAreQuietSockets);
}

// With the action that the library starts with, the failing constructor would end this program.
TEST(AssignedSetting, initErrorActionReachesTheLibrary) {
    Restored<int> restored(NwNetSocket::initErrorAction);
    Restored<bool> quiet(NwSocket::theAreQuietSockets);
    NwSocket::theAreQuietSockets = true;
    NwNetSocket::initErrorAction = 1;
    char name[] = "";
    NwNetSocket socket(name, -1, (unsigned char)NwNetSocketRead);
    EXPECT_FALSE(socket.isOk());
}

TEST(AssignedSetting, sendRetriesComeBack) {
    Restored<unsigned int> retries(NwNetSocket::theMaxSendRetries);
    Restored<double> period(NwNetSocket::theSendRetryPeriod);
    NwNetSocket::setRetryOnSend(3, 0.25);
    EXPECT_EQ(NwNetSocket::theMaxSendRetries, 3u);
    EXPECT_EQ(NwNetSocket::theSendRetryPeriod, 0.25);
}

TEST(AssignedSetting, companionsSettingsComeBack) {
    NwSetNetworkByteOrdering(0);
    EXPECT_EQ(NwNetworkByteOrdering(), 0);
    NwSetNetworkByteOrdering(1);
    EXPECT_EQ(NwNetworkByteOrdering(), 1);
    const int level = NwGetOutputLevel();
    NwSetOutputLevel(NwOutputDebug);
    EXPECT_TRUE(NwDebug.okToPrint());
    NwSetOutputLevel(level);
}
