// SPDX-License-Identifier: BSD-3-Clause
// Fields in messages: literal bytes in both orders, at every address.
#include <cvutil/cvByteOrder.h>

#include <gtest/gtest.h>

#include <cstring>
#include <type_traits>

namespace {

class ByteOrder : public testing::Test {
protected:
    ~ByteOrder() override { NwSetNetworkByteOrdering(1); }

    NwNetU16& field16(int offset) { return *reinterpret_cast<NwNetU16*>(myBuffer + offset); }
    NwNetU32& field32(int offset) { return *reinterpret_cast<NwNetU32*>(myBuffer + offset); }

    unsigned char myBuffer[16] = {0};
};

TEST_F(ByteOrder, isNetworkOrderAtTheStart) {
    EXPECT_EQ(NwNetworkByteOrdering(), 1);
}

TEST_F(ByteOrder, setterTakesAnyNonZeroValueForNetworkOrder) {
    NwSetNetworkByteOrdering(0);
    EXPECT_EQ(NwNetworkByteOrdering(), 0);
    NwSetNetworkByteOrdering(-7);
    EXPECT_EQ(NwNetworkByteOrdering(), 1);
}

TEST_F(ByteOrder, networkOrderStoresTheMostSignificantByteFirst) {
    field16(0) = 0x0102;
    field32(2) = 0x03040506;
    const unsigned char expected[] = {1, 2, 3, 4, 5, 6, 0};
    EXPECT_EQ(std::memcmp(myBuffer, expected, sizeof expected), 0);
}

TEST_F(ByteOrder, networkOrderReadsTheMostSignificantByteFirst) {
    const unsigned char bytes[] = {0xFF, 0x01, 0x80, 0x00, 0x00, 0xFE};
    std::memcpy(myBuffer, bytes, sizeof bytes);
    EXPECT_EQ(field16(0), 0xFF01);
    EXPECT_EQ(field32(2), 0x800000FEu);
}

TEST_F(ByteOrder, hostOrderStoresAndReadsTheBytesOfThisHost) {
    NwSetNetworkByteOrdering(0);
    const std::uint16_t shortValue = 0xA1B2;
    const std::uint32_t longValue = 0xC3D4E5F6;
    field16(1) = shortValue;
    field32(3) = longValue;
    EXPECT_EQ(std::memcmp(myBuffer + 1, &shortValue, 2), 0);
    EXPECT_EQ(std::memcmp(myBuffer + 3, &longValue, 4), 0);
    EXPECT_EQ(field16(1), shortValue);
    EXPECT_EQ(field32(3), longValue);
}

TEST_F(ByteOrder, everyAddressIsGoodEnough) {
    for (int offset = 0; offset < 8; ++offset) {
        SCOPED_TRACE(offset);
        std::memset(myBuffer, 0x55, sizeof myBuffer);
        field32(offset) = 0xDEADBEEF;
        EXPECT_EQ(field32(offset), 0xDEADBEEFu);
        field16(offset) = 0xCAFE;
        EXPECT_EQ(field16(offset), 0xCAFE);
        for (int i = 0; i < 16; ++i)
            if (i < offset || i >= offset + 4) {
                EXPECT_EQ(myBuffer[i], 0x55) << "byte " << i;
            }
    }
}

TEST_F(ByteOrder, edgesGoInAndOutUnchangedInBothOrders) {
    for (int order : {1, 0}) {
        NwSetNetworkByteOrdering(order);
        for (unsigned value : {0u, 1u, 0x7Fu, 0x80u, 0xFFu, 0x100u, 0x7FFFu, 0x8000u, 0xFFFFu}) {
            field16(1) = static_cast<std::uint16_t>(value);
            EXPECT_EQ(field16(1), value) << "order " << order;
        }
        for (unsigned value : {0u, 1u, 0xFFFFu, 0x10000u, 0x7FFFFFFFu, 0x80000000u, 0xFFFFFFFFu}) {
            field32(1) = value;
            EXPECT_EQ(field32(1), value) << "order " << order;
        }
    }
}

TEST_F(ByteOrder, constructorStoresInTheCurrentOrder) {
    const NwNetU16 shortField(0x0102);
    const NwNetU32 longField(0x01020304);
    EXPECT_EQ(std::memcmp(&shortField, "\1\2", 2), 0);
    EXPECT_EQ(std::memcmp(&longField, "\1\2\3\4", 4), 0);
}

TEST_F(ByteOrder, copyTakesTheBytesWhateverTheOrder) {
    NwNetU32 source(0x01020304);
    NwSetNetworkByteOrdering(0);
    field32(0) = source;
    EXPECT_EQ(std::memcmp(myBuffer, "\1\2\3\4", 4), 0);
}

TEST_F(ByteOrder, fieldsAreBytesAndNothingElse) {
    EXPECT_EQ(sizeof(NwNetU16), 2u);
    EXPECT_EQ(sizeof(NwNetU32), 4u);
    EXPECT_EQ(alignof(NwNetU16), 1u);
    EXPECT_EQ(alignof(NwNetU32), 1u);
    EXPECT_TRUE(std::is_trivial<NwNetU16>::value);
    EXPECT_TRUE(std::is_trivial<NwNetU32>::value);
}

}  // namespace
