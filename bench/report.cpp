// SPDX-License-Identifier: BSD-3-Clause
// Options, table, JSON.
#include "report.h"

#include <sys/utsname.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "traffic.h"

namespace {

std::string text(const char* format, ...) __attribute__((format(printf, 1, 2)));
std::string text(const char* format, ...) {
    char line[1024];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(line, sizeof line, format, arguments);
    va_end(arguments);
    return line;
}

std::string spreadText(const char* name, const Spread& spread) {
    return text("\"%s\": {\"median\": %.4f, \"lowerQuartile\": %.4f, \"upperQuartile\": %.4f}", name,
                spread.median, spread.lowerQuartile, spread.upperQuartile);
}

}  // namespace

Options readOptions(int count, char** words) {
    Options options;
    for (int i = 1; i < count; ++i) {
        const std::string word = words[i];
        const bool hasValue = i + 1 < count;
        if (word == "--quick") {
            options.quick = true;
            options.pairs = 1;
        } else if (word == "--pairs" && hasValue) {
            options.pairs = std::atoi(words[++i]);
        } else if (word == "--json" && hasValue) {
            options.jsonFile = words[++i];
        } else if (word == "--only" && hasValue) {
            options.only = words[++i];
        } else {
            fail(std::string("usage: ") + words[0] + " [--quick] [--pairs N] [--json FILE] [--only TEXT]");
        }
    }
    if (options.pairs < 1) fail("--pairs takes a positive number");
    return options;
}

void Report::heading(const std::string& line) {
    std::printf("\n%s\n", line.c_str());
}

void Report::compare(const std::string& name, int units, Floor floor, const Round& bare, const Round& library,
                     const char* firstName, const char* secondName) {
    if (!wants(name)) return;
    const Comparison m = compareInPairs(bare, library, myOptions.pairs);
    const auto each = [units](double seconds) { return 1e9 * seconds / units; };
    const bool isJudged = floor.rateAtLeast > 0;
    const bool isReached =
        m.rate.median >= floor.rateAtLeast && (floor.cpuAtMost <= 0 || m.cpu.median <= floor.cpuAtMost);
    std::printf(
        "%-40s %8s %7.0f wall ns %7.0f cpu ns   %8s %7.0f wall ns %7.0f cpu ns   rate %.3f (%.3f-%.3f)   cpu "
        "%.3f "
        "(%.3f-%.3f)",
        name.c_str(), firstName, each(m.bareWallSeconds), each(m.bareCpuSeconds), secondName,
        each(m.libraryWallSeconds), each(m.libraryCpuSeconds), m.rate.median, m.rate.lowerQuartile,
        m.rate.upperQuartile, m.cpu.median, m.cpu.lowerQuartile, m.cpu.upperQuartile);
    if (isJudged) {
        ++myFloors;
        if (!isReached) ++myMissed;
        std::printf("   %.2f", floor.rateAtLeast);
        if (floor.cpuAtMost > 0) std::printf(" / %.2f", floor.cpuAtMost);
        std::printf(" %s", isReached ? "PASS" : "MISSED");
    }
    std::printf("\n");
    std::fflush(stdout);
    myJson.push_back(
        text("{\"path\": \"%s\", %s, %s, \"first\": \"%s\", \"second\": \"%s\", \"firstWallNs\": %.2f, "
             "\"secondWallNs\": %.2f, \"firstCpuNs\": %.2f, \"secondCpuNs\": %.2f, \"rateAtLeast\": %.2f, "
             "\"cpuAtMost\": %.2f, \"reached\": %s}",
             name.c_str(), spreadText("rate", m.rate).c_str(), spreadText("cpu", m.cpu).c_str(), firstName,
             secondName, each(m.bareWallSeconds), each(m.libraryWallSeconds), each(m.bareCpuSeconds),
             each(m.libraryCpuSeconds), floor.rateAtLeast, floor.cpuAtMost, isReached ? "true" : "false"));
}

void Report::figures(const std::string& name, const std::string& unit, const std::vector<Figure>& values) {
    write(name, unit, values, "", "");
}

void Report::latencies(const std::string& name, std::vector<double>& nanoseconds) {
    figures(name, "ns",
            {{"median", percentile(nanoseconds, 0.5)},
             {"99%", percentile(nanoseconds, 0.99)},
             {"99.9%", percentile(nanoseconds, 0.999)}});
}

void Report::limited(const std::string& name, const std::string& unit, const std::vector<Figure>& values,
                     double atMost) {
    bool isReached = true;
    for (const Figure& one : values) isReached = isReached && one.value <= atMost;
    ++myFloors;
    if (!isReached) ++myMissed;
    write(name, unit, values, text("   at most %.6g %s", atMost, isReached ? "PASS" : "MISSED"),
          text(", \"atMost\": %.6g, \"reached\": %s", atMost, isReached ? "true" : "false"));
}

void Report::write(const std::string& name, const std::string& unit, const std::vector<Figure>& values,
                   const std::string& verdict, const std::string& verdictJson) {
    std::string json = text("{\"path\": \"%s\", \"unit\": \"%s\"", name.c_str(), unit.c_str());
    std::printf("%-40s", name.c_str());
    for (const Figure& one : values) {
        std::printf(" %s %.6g", one.name.c_str(), one.value);
        json += text(", \"%s\": %.6g", one.name.c_str(), one.value);
    }
    std::printf(" %s%s\n", unit.c_str(), verdict.c_str());
    std::fflush(stdout);
    myJson.push_back(json + verdictJson + "}");
}

void Report::finish() {
    if (myFloors > 0) std::printf("\n%d of %d paths reach their floors\n", myFloors - myMissed, myFloors);
    if (myOptions.jsonFile.empty()) return;
    std::FILE* out = std::fopen(myOptions.jsonFile.c_str(), "w");
    if (!out) fail("cannot write " + myOptions.jsonFile);
    utsname host;
    ::uname(&host);
    std::fprintf(out, "{\"pduBytes\": %d, \"pairs\": %d, \"kernel\": \"%s\", \"paths\": [", kPduBytes,
                 myOptions.pairs, host.release);
    const char* separator = "\n  ";
    for (const std::string& line : myJson) {
        std::fprintf(out, "%s%s", separator, line.c_str());
        separator = ",\n  ";
    }
    std::fprintf(out, "\n]}\n");
    if (std::fclose(out) != 0) fail("cannot write " + myOptions.jsonFile);
}

double percentile(std::vector<double>& sample, double fraction) {
    if (sample.empty()) return 0;
    const std::size_t place =
        static_cast<std::size_t>(std::ceil(fraction * static_cast<double>(sample.size() - 1)));
    std::nth_element(sample.begin(), sample.begin() + static_cast<std::ptrdiff_t>(place), sample.end());
    return sample[place];
}
