// SPDX-License-Identifier: BSD-3-Clause
// The order of virtual operations, read from the tables in the linked library. Programs call by position: an
// operation that moves, appears or disappears makes every program that is already built call another one.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "elf_file.h"

namespace {

const std::string kPureMark = " = 0";

// The documented operations of one class. The destructor comes first in every table, in two entries: one that
// destroys, one that also frees.
struct ClassSlots {
    std::string name;
    const ClassSlots* base;
    std::vector<std::string> added;     // in slot order, behind those of the base; " = 0" marks a pure one
    std::vector<std::string> replaced;  // of the base, in any order
    std::string library = CVNC_LIBRARY;
};

// What a test's name says of its row.
void PrintTo(const ClassSlots& aClass, std::ostream* out) {
    *out << aClass.name;
}

const ClassSlots kFilterTest = {"NwFilterTest",
                                nullptr,
                                {
                                    "setOperator(NwTestOperator)",
                                    "setTest(NwTestOperator, int, unsigned int*)",
                                    "extendTest(int, unsigned int*)",
                                    "reduceTest(int, unsigned int*)",
                                    "evalTest(char*, int, NwFilterType)",
                                    "clearList()",
                                },
                                {}};

const ClassSlots kSocket = {"NwSocket",
                            nullptr,
                            {
                                "NwSend(char*, unsigned long, unsigned int)",
                                "sendTo(char*, unsigned long, unsigned int) = 0",
                                "NwRecv(char**, int*) = 0",
                                "NwRecv(char*, unsigned long) = 0",
                                "flush()",
                                "flush(long&)",
                                "setReceiveBufferSize(int)",
                                "setSendBufferSize(int)",
                                "setBundling(int)",
                                "isBundling()",
                                "setUnbundling(int)",
                                "lastSourceInetAddr()",
                                "NwReportPktsRcvd()",
                                "NwBecomeNonBlocking()",
                                "notifyMe()",
                                "listenToMulticastGroup(unsigned int, unsigned int)",
                                "dropMulticastGroup(unsigned int, unsigned int)",
                                "setMcastTtl(int)",
                                "setMcastDevice(unsigned int)",
                                "exerciseId()",
                                "protocolVersion()",
                                "pduKind()",
                                "ipAddr()",
                                "readFd()",
                                "writeFd()",
                                "isOk() const",
                                "accept(char*, unsigned int)",
                            },
                            {}};

const ClassSlots kNetSocket = {"NwNetSocket",
                               &kSocket,
                               {
                                   "setBundling(int, bool, int, int, int, bool)",
                                   "isUnbundling()",
                                   "minPacketSize()",
                                   "setMinPacketSize(int)",
                                   "sizeOffset()",
                                   "setSizeOffset(int)",
                                   "sizeLength()",
                                   "setSizeLength(int)",
                                   "testDisHeader()",
                                   "enableDisHeaderTest(bool)",
                                   "mcastDevice() const",
                                   "setFilterPort(int const&)",
                                   "setSendPort(int const&)",
                                   "dataLeftInCurrentBundle()",
                                   "retrySendTo(char*, unsigned long, sockaddr_in&)",
                                   "recvWithStatus(char**, int*)",
                                   "recvFromNet(char**)",
                                   "recvWithUnbundling(char**)",
                                   "privateListenToMulticastGroup(unsigned int, int, unsigned int)",
                                   "findNextPacket()",
                                   "getNextPacketSize()",
                                   "currentHeaderMatchesFirstInBundle()",
                               },
                               {
                                   "sendTo(char*, unsigned long, unsigned int)",
                                   "NwRecv(char**, int*)",
                                   "NwRecv(char*, unsigned long)",
                                   "setBundling(int)",
                                   "setUnbundling(int)",
                                   "lastSourceInetAddr()",
                                   "NwBecomeNonBlocking()",
                                   "listenToMulticastGroup(unsigned int, unsigned int)",
                                   "dropMulticastGroup(unsigned int, unsigned int)",
                                   "setMcastTtl(int)",
                                   "setMcastDevice(unsigned int)",
                                   "readFd()",
                                   "writeFd()",
                                   "isOk() const",
                               }};

const ClassSlots kQueueSocket = {"NwQueueSocket",
                                 &kSocket,
                                 {},
                                 {
                                     "sendTo(char*, unsigned long, unsigned int)",
                                     "NwRecv(char**, int*)",
                                     "NwRecv(char*, unsigned long)",
                                 }};

const ClassSlots kPairSocket = {"NwSocketPairSocket",
                                &kSocket,
                                {},
                                {
                                    "sendTo(char*, unsigned long, unsigned int)",
                                    "NwRecv(char**, int*)",
                                    "NwRecv(char*, unsigned long)",
                                    "NwBecomeNonBlocking()",
                                    "readFd()",
                                    "writeFd()",
                                }};

const ClassSlots kGroupSocket = {"NwGroupSocket",
                                 &kNetSocket,
                                 {
                                     "removeAllRemoteSites()",
                                     "addRemoteSite(unsigned int)",
                                     "removeRemoteSite(unsigned int)",
                                     "sendToAllRemoteSites(char*, unsigned long, unsigned int)",
                                     "remoteSitesList() const",
                                 },
                                 {
                                     "NwSend(char*, unsigned long, unsigned int)",
                                 }};

const ClassSlots kAsyncPacket = {"NwAsyncSocketPacket", nullptr, {}, {}};

const ClassSlots kAsyncSocket = {"NwAsyncNetSocket",
                                 &kNetSocket,
                                 {
                                     "directSendTo(char*, unsigned long, unsigned int)",
                                     "usingAsyncSend() const",
                                     "setUsingAsyncSend(bool)",
                                     "usingAsyncReceive() const",
                                     "setUsingAsyncReceive(bool)",
                                     "workerSendThread()",
                                     "workerReceiveThread()",
                                     "processSendQueue()",
                                     "processReceiveQueue()",
                                 },
                                 {
                                     "sendTo(char*, unsigned long, unsigned int)",
                                     "recvFromNet(char**)",
                                 }};

const ClassSlots kTcpSocket = {"NwTcpSocket",
                               &kSocket,
                               {
                                   "NwBecomeBlocking()",
                                   "isConnectionEstablished()",
                                   "testConnectionStatus()",
                                   "setNoDelay(bool)",
                                   "peerPort() const",
                                   "localPort() const",
                               },
                               {
                                   "sendTo(char*, unsigned long, unsigned int)",
                                   "NwRecv(char**, int*)",
                                   "NwRecv(char*, unsigned long)",
                                   "flush()",
                                   "flush(long&)",
                                   "NwBecomeNonBlocking()",
                                   "isOk() const",
                               }};

const ClassSlots kTcpSocketMgr = {"NwTcpSocketMgr",
                                  nullptr,
                                  {
                                      "processConnections()",
                                      "isOk() const",
                                      "addrInUse() const",
                                      "currentClientAddr() const",
                                      "currentClientPort() const",
                                      "currentSockFd() const",
                                      "socketList()",
                                      "addSocketAdditionCallback(void (*)(NwTcpSocket*, void*), void*)",
                                      "removeSocketAdditionCallback(void (*)(NwTcpSocket*, void*), void*)",
                                      "addSocketRemovalCallback(void (*)(NwTcpSocket*, void*), void*)",
                                      "removeSocketRemovalCallback(void (*)(NwTcpSocket*, void*), void*)",
                                      "sizeOffset()",
                                      "sizeLength()",
                                      "setSizeOffset(int)",
                                      "setSizeLength(int)",
                                      "setPacketBundling(unsigned int)",
                                      "emptyCallbackLists()",
                                  },
                                  {}};

const ClassSlots kTcpForwarder = {"NwTcpForwarder",
                                  nullptr,
                                  {
                                      "sendToAll(char*, unsigned long)",
                                      "readAndForward(double, double)",
                                      "readAndForward(NwTcpSocket*, double)",
                                      "socketMgr()",
                                      "sizeLength()",
                                      "sizeOffset()",
                                      "setSizeLength(int)",
                                      "setSizeOffset(int)",
                                  },
                                  {}};

const ClassSlots kFileTransporter = {
    "NwFileTransporter",
    nullptr,
    {
        "tick()",
        "port() const",
        "addFileTransferedCallback(void (*)(NwFilename const&, void*), void*)",
        "removeFileTransferedCallback(void (*)(NwFilename const&, void*), void*)",
        "sendFile(NwFilename const&, unsigned int, int)",
        "sendFile(NwFilename const&, unsigned int)",
        "receiveFile(NwTcpSocket*)",
        "nextFileIdentifier()",
        "readFileToBuffer(std::basic_ifstream<char, std::char_traits<char> >&, std::vector<char, "
        "std::allocator<char> >&, int, int&, NwFileTransporter::NwFileTransportFlags&)",
        "finishFile(NwFileTransportObject&)",
        "transportObject(int)",
        "sendProgress(NwTcpSocket&, int, int)",
    },
    {}};

const ClassSlots kCsFilterTest = {"NwCsFilterTest",
                                  &kFilterTest,
                                  {},
                                  {
                                      "setOperator(NwTestOperator)",
                                      "extendTest(int, unsigned int*)",
                                      "reduceTest(int, unsigned int*)",
                                      "evalTest(char*, int, NwFilterType)",
                                  }};

const ClassSlots kClientSocket = {"NwClientSocket",
                                  &kSocket,
                                  {},
                                  {
                                      "sendTo(char*, unsigned long, unsigned int)",
                                      "NwRecv(char**, int*)",
                                      "NwRecv(char*, unsigned long)",
                                      "setUnbundling(int)",
                                      "lastSourceInetAddr()",
                                      "NwBecomeNonBlocking()",
                                      "notifyMe()",
                                      "setMcastTtl(int)",
                                      "exerciseId()",
                                      "protocolVersion()",
                                      "pduKind()",
                                      "ipAddr()",
                                      "readFd()",
                                      "writeFd()",
                                      "isOk() const",
                                  }};

const ClassSlots kMsg = {"NwClientServerMsg", nullptr, {"send()", "print()"}, {}, CVUTIL_LIBRARY};
const ClassSlots kSocketMsg = {"NwSocketMsg", &kMsg, {}, {"send()"}, CVUTIL_LIBRARY};
const ClassSlots kShmMsg = {"NwShmMsg", &kMsg, {}, {"send()"}, CVUTIL_LIBRARY};

ClassSlots printing(const std::string& name, const ClassSlots& base) {
    return {name, &base, {}, {"print()"}, CVUTIL_LIBRARY};
}

const ClassSlots kCompanionClasses[] = {
    kMsg,
    kSocketMsg,
    kShmMsg,
    printing("NwCsAddClientMsg", kSocketMsg),
    printing("NwCsFilterMsg", kSocketMsg),
    printing("NwCsMulticastReqMsg", kSocketMsg),
    printing("NwCsControlReqMsg", kSocketMsg),
    printing("NwCsAckMsg", kSocketMsg),
    printing("NwCsQuotaMsg", kSocketMsg),
    {"NwCsPingMsg", &kShmMsg, {}, {}, CVUTIL_LIBRARY},
    printing("NwCsStateReturnMsg", kShmMsg),
    printing("NwCsCStateReturnMsg", kShmMsg),
    printing("NwCsWarningMsg", kShmMsg),
    printing("NwCsNoticeMsg", kShmMsg),
    {"NwShmMsgQueueReader", nullptr, {"read(void*, int, int*)"}, {}, CVUTIL_LIBRARY},
    {"NwShmMsgQueueWriter", nullptr, {"write(void const*, unsigned int)"}, {}, CVUTIL_LIBRARY},
};

const ClassSlots kClasses[] = {kFilterTest,   kSocket,          kNetSocket,    kQueueSocket, kPairSocket,
                               kGroupSocket,  kAsyncPacket,     kAsyncSocket,  kTcpSocket,   kTcpSocketMgr,
                               kTcpForwarder, kFileTransporter, kCsFilterTest, kClientSocket};

struct Slot {
    std::string operation;
    std::string implementer;  // empty while it is pure
};

std::vector<Slot> slotsOf(const ClassSlots& aClass) {
    std::vector<Slot> slots;
    if (aClass.base) slots = slotsOf(*aClass.base);
    for (const std::string& operation : aClass.replaced) {
        const auto slot =
            std::find_if(slots.begin(), slots.end(), [&](const Slot& s) { return s.operation == operation; });
        if (slot == slots.end()) {
            ADD_FAILURE() << aClass.name << " cannot replace " << operation;
            continue;
        }
        slot->implementer = aClass.name;
    }
    for (std::string operation : aClass.added) {
        const std::size_t pure = operation.find(kPureMark);
        if (pure != std::string::npos) operation.erase(pure);
        slots.push_back({operation, pure == std::string::npos ? aClass.name : std::string()});
    }
    return slots;
}

std::vector<std::string> demangledAll(const std::vector<std::string>& names) {
    std::vector<std::string> texts;
    for (const std::string& name : names) texts.push_back(demangled(name));
    return texts;
}

bool endsWith(const std::string& text, const std::string& end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

bool anyEndsWith(const std::vector<std::string>& names, const std::string& end) {
    return std::any_of(names.begin(), names.end(), [&](const std::string& n) { return endsWith(n, end); });
}

bool isAbstract(const std::vector<Slot>& slots) {
    return std::any_of(slots.begin(), slots.end(), [](const Slot& slot) { return slot.implementer.empty(); });
}

// Slot 1. "D1Ev" and "D2Ev" destroy, "D0Ev" also frees. No object is ever just of an abstract class, so that
// some compilers leave both of its entries null.
void expectDestructors(const std::string& name, bool ofAbstractClass,
                       const std::vector<std::string>& destroying, const std::vector<std::string>& freeing) {
    if (ofAbstractClass && destroying.empty() && freeing.empty()) return;
    const std::string destructor = name + "::~" + name + "()";
    EXPECT_THAT(demangledAll(destroying), testing::Contains(destructor)) << "slot 1";
    EXPECT_TRUE(anyEndsWith(destroying, "D1Ev") || anyEndsWith(destroying, "D2Ev")) << "slot 1";
    EXPECT_THAT(demangledAll(freeing), testing::Contains(destructor)) << "slot 1, second entry";
    EXPECT_TRUE(anyEndsWith(freeing, "D0Ev")) << "slot 1, second entry";
}

class SlotOrder : public testing::TestWithParam<ClassSlots> {};

}  // namespace

TEST_P(SlotOrder, isTheDocumentedOne) {
    const ElfFile library(GetParam().library);
    const std::string& name = GetParam().name;
    const ElfSymbol* table = library.find("_ZTV" + std::to_string(name.size()) + name);
    ASSERT_NE(table, nullptr) << "no table of " << name;
    const std::vector<std::vector<std::string>> entries = library.pointersOf(*table);
    const std::vector<Slot> slots = slotsOf(GetParam());

    const std::size_t kBeforeSlots = 2;  // offset to the whole object, type information
    const std::size_t kDestructors = 2;
    ASSERT_EQ(entries.size(), kBeforeSlots + kDestructors + slots.size())
        << name << " has as many entries as documented, and no more";
    EXPECT_THAT(entries[0], testing::IsEmpty());
    EXPECT_THAT(demangledAll(entries[1]), testing::Contains("typeinfo for " + name));

    expectDestructors(name, isAbstract(slots), entries[kBeforeSlots], entries[kBeforeSlots + 1]);

    for (std::size_t i = 0; i < slots.size(); ++i) {
        const std::string expected = slots[i].implementer.empty()
                                         ? "__cxa_pure_virtual"
                                         : slots[i].implementer + "::" + slots[i].operation;
        EXPECT_THAT(demangledAll(entries[kBeforeSlots + kDestructors + i]), testing::Contains(expected))
            << "slot " << i + 2 << ", " << slots[i].operation;
    }
}

std::string nameOfRow(const testing::TestParamInfo<ClassSlots>& row) {
    return row.param.name;
}

INSTANTIATE_TEST_SUITE_P(Of, SlotOrder, testing::ValuesIn(kClasses), nameOfRow);
INSTANTIATE_TEST_SUITE_P(OfCompanion, SlotOrder, testing::ValuesIn(kCompanionClasses), nameOfRow);

namespace {

const std::string kTableMark = "vtable for ";

std::vector<std::string> tablesIn(const char* library) {
    std::vector<std::string> tables;
    for (const std::string& line : exportedNames(ElfFile(library)))
        if (line.compare(0, kTableMark.size(), kTableMark) == 0) tables.push_back(line);
    return tables;
}

}  // namespace

// A new class of the library gets its row above.
TEST(SlotTables, coverEveryClassOfTheLibrary) {
    std::vector<std::string> known;
    for (const ClassSlots& aClass : kClasses) known.push_back(kTableMark + aClass.name);
    EXPECT_THAT(tablesIn(CVNC_LIBRARY), testing::UnorderedElementsAreArray(known));
}

// Those of the companion too; its stream is a std::ostream and has that one's operations.
TEST(SlotTables, coverEveryClassOfTheCompanion) {
    std::vector<std::string> known = {kTableMark + "NwOutputStream", kTableMark + "NwOutputStream::Gate"};
    for (const ClassSlots& aClass : kCompanionClasses) known.push_back(kTableMark + aClass.name);
    EXPECT_THAT(tablesIn(CVUTIL_LIBRARY), testing::UnorderedElementsAreArray(known));
}
