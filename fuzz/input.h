// SPDX-License-Identifier: BSD-3-Clause
// What the fuzz targets share: steps inside the fuzz bytes, and how a broken rule is told.
#ifndef CVNC_FUZZ_INPUT_H
#define CVNC_FUZZ_INPUT_H

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

[[noreturn]] inline void finding(const char* rule, long saw, long wanted) {
    std::fprintf(stderr, "finding: %s: %ld instead of %ld\n", rule, saw, wanted);
    std::abort();
}

inline void expectEqual(const char* rule, long saw, long wanted) {
    if (saw != wanted) finding(rule, saw, wanted);
}

// A step inside the fuzz bytes that never goes past them: what is missing reads as zeros.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : myData(data), mySize(size) {}

    // Least significant byte first.
    unsigned int number(int bytes) {
        unsigned int value = 0;
        for (int i = 0; i < bytes; ++i) value |= static_cast<unsigned int>(byte()) << (8 * i);
        return value;
    }
    int signedNumber() {
        const unsigned int value = number(4);
        int result;
        std::memcpy(&result, &value, sizeof result);
        return result;
    }
    // So many bytes, or as many as there are.
    std::string bytes(std::size_t count) {
        count = std::min(count, mySize - myPosition);
        const std::string result(reinterpret_cast<const char*>(myData) + myPosition, count);
        myPosition += count;
        return result;
    }
    // So many bytes, with zeros for those that are missing.
    std::string paddedBytes(std::size_t count) {
        std::string result = bytes(count);
        result.resize(count);
        return result;
    }
    bool isAtEnd() const { return myPosition == mySize; }

private:
    std::uint8_t byte() { return myPosition < mySize ? myData[myPosition++] : std::uint8_t(0); }

    const std::uint8_t* myData;
    std::size_t mySize;
    std::size_t myPosition = 0;
};

#endif
