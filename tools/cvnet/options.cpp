// SPDX-License-Identifier: BSD-3-Clause
// Declaring shared options, and reading the lists of the filters.
#include "options.h"

#include <cctype>
#include <cmath>
#include <cstdlib>

#include <fmt/format.h>
#include <CLI/App.hpp>
#include <CLI/Config.hpp>
#include <CLI/Formatter.hpp>
#include <CLI/Validators.hpp>

#include <cvNetworkCompatibility/cvSocket.h>
#include <cvutil/cvPacketServer.h>

#include "address.h"
#include "failure.h"
#include "pdu.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr int kMaxPort = 65535;
constexpr unsigned kMaxByte = 255;
constexpr double kMaxStallSeconds = 1e9;

void declareList(CLI::App& app, const char* name, std::vector<std::string>& values, const char* help) {
    app.add_option(name, values, help)->delimiter(',')->allow_extra_args(false)->type_name("LIST");
}

std::string trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    if (first == std::string::npos) return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

unsigned byteFromText(const std::string& text, const std::string& option) {
    const bool digits =
        !text.empty() && text.size() <= 3 && text.find_first_not_of("0123456789") == std::string::npos;
    const unsigned long value = digits ? std::strtoul(text.c_str(), nullptr, 10) : kMaxByte + 1;
    if (value > kMaxByte) {
        throw UsageFailure(
            fmt::format("{}: '{}' is no number of 0 to {}", option, printable(text), kMaxByte));
    }
    return static_cast<unsigned>(value);
}

unsigned typeFromText(const std::string& text, const std::string& option) {
    if (const auto type = pduTypeFromText(text)) return *type;
    throw UsageFailure(
        fmt::format("{}: '{}' is no PDU type (a number of 0 to 255, or a name such as "
                    "'Entity State')",
                    option, printable(text)));
}

// "!3,4" refuses both, and so does "!3,!4"; "3,!4" contradicts itself.
FilterValues filterFromTexts(const std::vector<std::string>& texts, const std::string& option,
                             unsigned (*read)(const std::string&, const std::string&)) {
    FilterValues result;
    result.given = !texts.empty();
    for (std::size_t i = 0; i < texts.size(); ++i) {
        std::string text = trimmed(texts[i]);
        const bool excludes = !text.empty() && text[0] == '!';
        if (excludes) text = trimmed(text.substr(1));
        if (i == 0) result.exclude = excludes;
        if (excludes && !result.exclude) {
            throw UsageFailure(
                option + ": a list names either what to include or, after a leading '!', what to exclude");
        }
        result.values.push_back(read(text, option));
    }
    return result;
}

}  // namespace

CLI::Validator range(int least, int most) {
    return CLI::Range(least, most).description("");
}
CLI::Validator range(double least, double most) {
    return CLI::Range(least, most).description("");
}

CLI::Validator wholeNumberFrom(unsigned least) {
    return CLI::Validator(
        [least](const std::string& text) {
            const std::size_t mostDigits = 18;  // of any 64-bit number
            const bool isNumber = !text.empty() && text.size() <= mostDigits &&
                                  text.find_first_not_of("0123456789") == std::string::npos;
            return isNumber && std::stoull(text) >= least
                       ? std::string()
                       : fmt::format("{} is no whole number from {} on", printable(text), least);
        },
        "");
}

void ReportOptions::declare(CLI::App& app) {
    app.add_flag("--json", json, "Print JSON lines");
    app.add_flag("--quiet", quiet, "Print the totals only");
}

void LimitOptions::declare(CLI::App& app, const char* whatIsCounted) {
    app.add_option("--count", count, fmt::format("Stop after N {}", whatIsCounted))
        ->check(wholeNumberFrom(0))
        ->type_name("N");
    app.add_option("--seconds", seconds, "Stop after S seconds")->type_name("S");
}

void PortOption::declareDestination(CLI::App& app) {
    app.add_option("--port", port, fmt::format("UDP port to send to (default {})", kDefaultDisPort))
        ->check(range(1, kMaxPort))
        ->type_name("PORT");
}

void PortOption::declareListening(CLI::App& app, const char* protocol) {
    app.add_option(
           "--port", port,
           fmt::format("{} port to listen on, 0 for any free one (default {})", protocol, kDefaultDisPort))
        ->check(range(0, kMaxPort))
        ->type_name("PORT");
}

void StallOption::declare(CLI::App& app, const char* purpose) {
    app.add_option("--stall", seconds, fmt::format("{} (default {}; 0: wait for ever)", purpose, seconds))
        ->type_name("S");
}

void StallOption::check() const {
    checkRange("--stall", seconds, 0.0, kMaxStallSeconds);
}

void RunDirOption::declare(CLI::App& app) {
    app.add_option("--run-dir", directory, "Look for the packet server here (its own --run-dir)")
        ->type_name("DIR");
}

void RunDirOption::apply() const {
    if (!NwSetPacketServerDirectory(directory.c_str()))
        throw UsageFailure("--run-dir: the name is too long: " + printable(directory));
}

void InterfaceOption::declare(CLI::App& app, const char* purpose) {
    app.add_option("--interface", nameOrAddress, purpose)->type_name("NAME|ADDRESS");
}

NwIpv4Addr InterfaceOption::address() const {
    return given() ? interfaceAddress(nameOrAddress) : 0;
}

std::vector<NwIpv4Addr> addressesFromTexts(const std::vector<std::string>& texts, const std::string& option) {
    std::vector<NwIpv4Addr> addresses;
    addresses.reserve(texts.size());
    for (const std::string& text : texts) addresses.push_back(addressFromText(trimmed(text), option));
    return addresses;
}

void FilterOptions::declare(CLI::App& app) {
    declareList(app, "--exercise", exercise, "Only these exercises (1,2), or all but these ('!3')");
    declareList(app, "--version", version, "Only these DIS versions, or all but these ('!6')");
    declareList(app, "--type", type, "Only these PDU types, by number or name, or all but these");
    declareList(app, "--from", from, "Only from these addresses, or from all but these");
}

Filters::Filters(const FilterOptions& options)
    : exercise(filterFromTexts(options.exercise, "--exercise", byteFromText)),
      version(filterFromTexts(options.version, "--version", byteFromText)),
      type(filterFromTexts(options.type, "--type", typeFromText)),
      from(filterFromTexts(options.from, "--from", addressFromText)) {}

void applyFilter(NwFilterTest& test, FilterValues& values) {
    if (!values.given) return;
    test.setTest(values.exclude ? NwTestExclude : NwTestInclude, static_cast<int>(values.values.size()),
                 values.values.data());
}

void checkRange(const char* option, double value, double least, double most) {
    if (std::isfinite(value) && value >= least && value <= most) return;
    throw UsageFailure(fmt::format("{}: {} is not in the range {} to {}", option, value, least, most));
}

}  // namespace cvnet
