// SPDX-License-Identifier: BSD-3-Clause
// What the programs beside udp_bench have in common: options, the table on standard output, and the JSON
// file.
//
//     PROGRAM [--quick] [--pairs N] [--json FILE] [--only TEXT]
#ifndef BENCH_REPORT_H
#define BENCH_REPORT_H

#include <string>
#include <vector>

#include "measure.h"

struct Options {
    bool quick = false;
    int pairs = 100;
    std::string jsonFile;
    std::string only;  // what a line's name must hold
};
// Ends the program with its usage when the words are wrong.
Options readOptions(int count, char** words);

// How near to the bare loop a path must come; 0 where that is only told.
struct Floor {
    double rateAtLeast;
    double cpuAtMost;
};
const Floor kToldOnly = {0, 0};

struct Figure {
    std::string name;
    double value;
};

class Report {
public:
    explicit Report(const Options& options) : myOptions(options) {}

    void heading(const std::string& text);
    // One line: two ways of handling `units` packets a round, in interleaved pairs. `names` are the two ways.
    void compare(const std::string& name, int units, Floor floor, const Round& bare, const Round& library,
                 const char* firstName = "bare", const char* secondName = "library");
    // One line of figures of one unit.
    void figures(const std::string& name, const std::string& unit, const std::vector<Figure>& values);
    // The same where the largest of them must not be above `atMost`.
    void limited(const std::string& name, const std::string& unit, const std::vector<Figure>& values,
                 double atMost);
    // One line of how long single calls or round trips took: median, 99th and 99.9th percentile.
    void latencies(const std::string& name, std::vector<double>& nanoseconds);
    bool wants(const std::string& name) const { return name.find(myOptions.only) != std::string::npos; }
    // The last line, and the file. A missed floor is told, not turned into a failure.
    void finish();

private:
    void write(const std::string& name, const std::string& unit, const std::vector<Figure>& values,
               const std::string& verdict, const std::string& verdictJson);

    Options myOptions;
    std::vector<std::string> myJson;
    int myFloors = 0, myMissed = 0;
};

// The value that this fraction of the sample does not exceed.
double percentile(std::vector<double>& sample, double fraction);

#endif
