// SPDX-License-Identifier: BSD-3-Clause
// The vocabulary that sub-commands share: each option is declared, checked and explained once.
#ifndef CVNET_OPTIONS_H
#define CVNET_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <cvutil/cvInetAddr.h>

namespace CLI {
class App;
class Validator;
}  // namespace CLI
class NwFilterTest;

namespace cvnet {

constexpr int kDefaultDisPort = 3000;

/// --json, --quiet
struct ReportOptions {
    bool json = false;
    bool quiet = false;

    void declare(CLI::App& app);
};

/// --count, --seconds: when to stop by oneself.
struct LimitOptions {
    std::uint64_t count = 0;  // 0: no limit
    double seconds = 0.0;     // 0: no limit

    void declare(CLI::App& app, const char* whatIsCounted);
};

/// --port
struct PortOption {
    int port = kDefaultDisPort;

    void declareDestination(CLI::App& app);
    /// 0 lets the kernel choose.
    void declareListening(CLI::App& app, const char* protocol);
};

/// --stall: how long a peer may keep a transfer waiting.
struct StallOption {
    double seconds;  // 0: for ever

    explicit StallOption(double defaultSeconds) : seconds(defaultSeconds) {}
    void declare(CLI::App& app, const char* purpose);
    /// Throws UsageFailure.
    void check() const;
};

/// --run-dir DIR: where to look for packet servers.
struct RunDirOption {
    std::string directory;  // empty: the library's usual places

    void declare(CLI::App& app);
    /// Makes it the library's. Throws UsageFailure.
    void apply() const;
};

/// --interface NAME|ADDRESS
struct InterfaceOption {
    std::string nameOrAddress;

    void declare(CLI::App& app, const char* purpose);
    bool given() const { return !nameOrAddress.empty(); }
    /// Its local address; 0 when not given. Throws Failure.
    NwIpv4Addr address() const;
};

/// An address option's text, turned into addresses after parsing. Throws UsageFailure.
std::vector<NwIpv4Addr> addressesFromTexts(const std::vector<std::string>& texts, const std::string& option);

/// The values of one filter: to be let through or, after a leading '!', to be refused.
struct FilterValues {
    bool given = false;
    bool exclude = false;
    std::vector<unsigned int> values;
};

/// --exercise, --version, --type, --from: applied through a socket's own filter tests.
struct FilterOptions {
    std::vector<std::string> exercise;
    std::vector<std::string> version;
    std::vector<std::string> type;
    std::vector<std::string> from;

    void declare(CLI::App& app);
};

/// Filters whose texts have been read. Throws UsageFailure for what makes no sense.
struct Filters {
    explicit Filters(const FilterOptions& options);

    FilterValues exercise;
    FilterValues version;
    FilterValues type;
    FilterValues from;
};

/// Sets the test when values were given, else leaves it alone.
void applyFilter(NwFilterTest& test, FilterValues& values);

/// A bounds check whose bounds --help does not spell out.
CLI::Validator range(int least, int most);
CLI::Validator range(double least, double most);
/// `least` or more, without an end.
CLI::Validator wholeNumberFrom(unsigned least);

/// For options without a check of their own. Throws UsageFailure.
void checkRange(const char* option, double value, double least, double most);

}  // namespace cvnet

#endif
