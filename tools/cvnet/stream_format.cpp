// SPDX-License-Identifier: BSD-3-Clause
#include "stream_format.h"

#include <climits>
#include <cstdint>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

#include "failure.h"
#include "options.h"
#include "text.h"

namespace cvnet {
namespace {

// What a field can say: a single byte is a signed number, and no packet is longer than an int.
long largestLength(int sizeLength) {
    return sizeLength == 1 ? SCHAR_MAX : sizeLength == 2 ? UINT16_MAX : INT_MAX;
}

}  // namespace

void StreamFormat::declare(CLI::App& app, CLI::Option* needs) {
    CLI::Option* offset =
        app.add_option("--size-offset", sizeOffset,
                       fmt::format("The byte at which packets have their length (default {})", sizeOffset))
            ->check(range(0, UINT16_MAX))
            ->type_name("N");
    CLI::Option* length =
        app.add_option("--size-length", sizeLength,
                       fmt::format("The bytes that their length takes: 1, 2 or 4 (default {})", sizeLength))
            ->check(CLI::IsMember({1, 2, 4}).description(""))
            ->type_name("N");
    if (needs == nullptr) return;
    offset->needs(needs);
    length->needs(needs);
}

void StreamFormat::check() const {
    if (sizeOffset + sizeLength < largestLength(sizeLength)) return;
    throw UsageFailure(fmt::format(
        "--size-offset {}: a length of {} at byte {} says {} at most, so no packet reaches that far",
        sizeOffset, counted(static_cast<unsigned>(sizeLength), "byte"), sizeOffset,
        largestLength(sizeLength)));
}

bool StreamFormat::holds(const char* bytes, std::size_t lengthBytes) const {
    const auto field = static_cast<std::size_t>(sizeOffset);
    const auto width = static_cast<std::size_t>(sizeLength);
    if (lengthBytes <= field + width || lengthBytes > static_cast<std::size_t>(largestLength(sizeLength)))
        return false;
    std::size_t announced = 0;
    for (std::size_t i = 0; i < width; ++i)
        announced = announced << 8 | static_cast<unsigned char>(bytes[field + i]);
    return announced == lengthBytes;
}

std::string StreamFormat::text() const {
    return fmt::format("lengths of {} at byte {}", counted(static_cast<unsigned>(sizeLength), "byte"),
                       sizeOffset);
}

}  // namespace cvnet
