// SPDX-License-Identifier: BSD-3-Clause
// The two shared libraries as files: their names, what they need, what they export, and what stays out of
// them.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "elf_file.h"

using testing::Contains;
using testing::IsSubsetOf;

namespace {

// Where this build was made. With debug information, which users do not get, a build directory outside the
// source tree may be named.
#ifdef CVNC_DEBUG_INFORMATION
const std::vector<std::string> kBuildPaths = {CVNC_SOURCE_DIR};
#else
const std::vector<std::string> kBuildPaths = {CVNC_SOURCE_DIR, CVNC_BINARY_DIR};
#endif

#ifdef CVNC_INSTRUMENTED
const bool kIsInstrumented = true;
#else
const bool kIsInstrumented = false;
#endif

const std::vector<std::string> kSystemLibraries = {"libstdc++.so.6", "libc++.so.1", "libgcc_s.so.1",
                                                   "libc.so.6", "libm.so.6"};

// What the compiler's own switches add to a build that users do not get.
bool isInstrumentation(const std::string& library) {
    return library.find("san.so") != std::string::npos || library == "libdl.so.2" ||
           library == "libpthread.so.0" || library == "librt.so.1";
}

std::vector<std::string> neededBy(const ElfFile& library) {
    std::vector<std::string> names = library.needed();
    if (kIsInstrumented)
        names.erase(std::remove_if(names.begin(), names.end(), isInstrumentation), names.end());
    // The loader itself, which carries thread-local storage.
    names.erase(std::remove_if(names.begin(), names.end(),
                               [](const std::string& name) { return name.compare(0, 8, "ld-linux") == 0; }),
                names.end());
    return names;
}

std::vector<std::string> linesOf(const std::string& path) {
    std::ifstream file(path);
    EXPECT_TRUE(file.is_open()) << path;
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);) lines.push_back(line);
    return lines;
}

// The lines of sorted a that sorted b lacks, each behind a mark.
std::string linesMissing(const std::vector<std::string>& a, const std::vector<std::string>& b,
                         const char* mark) {
    std::vector<std::string> lines;
    std::set_difference(a.begin(), a.end(), b.begin(), b.end(), std::back_inserter(lines));
    std::string text;
    for (const std::string& line : lines) text += mark + line + "\n";
    return text;
}

void expectExports(const char* library, const char* list) {
    std::vector<std::string> expected = linesOf(list);
    std::sort(expected.begin(), expected.end());
    const std::vector<std::string> exported = exportedNames(ElfFile(library));

    const std::string difference =
        linesMissing(expected, exported, "- ") + linesMissing(exported, expected, "+ ");
    EXPECT_TRUE(difference.empty())
        << library << " does not export what " << list << " says (- missing, + new):\n"
        << difference << "Programs that are already built need every name there. When the change is meant: "
        << "tests/abi/update.sh BUILD_DIRECTORY";
}

// Names that an application is meant to use: everything else that is exported is a leak.
bool isPublicName(std::string line) {
    for (const char* prefix : {"vtable for ", "VTT for ", "typeinfo for ", "typeinfo name for ",
                               "virtual thunk to ", "non-virtual thunk to ", "version "})
        if (line.compare(0, std::string(prefix).size(), prefix) == 0)
            line.erase(0, std::string(prefix).size());
    const std::string construction = "construction vtable for ";
    if (line.compare(0, construction.size(), construction) == 0) {
        const std::size_t in = line.find("-in-");
        line.erase(0, in == std::string::npos ? 0 : in + 4);
    }
    // A blank in the name itself: "NwSocket& std::..." is a container's operation with one of our classes.
    const std::string name = line.substr(0, line.find_first_of("(<"));
    const bool isOurs = name.compare(0, 2, "Nw") == 0 && name.find_last_not_of(' ') < name.find(' ');
    return isOurs || line == "theMaxPacketSize  (size 4)" || line == "semid  (size 4)" ||
           line == "CVNETWORKCOMPATIBILITY_54";
}

void expectOnlyPublicNames(const char* library) {
    for (const std::string& line : exportedNames(ElfFile(library))) EXPECT_TRUE(isPublicName(line)) << line;
}

// A build tree's library knows where its companion was built; installing takes that away.
std::string bytesWithoutRunPaths(const char* path) {
    const ElfFile library(path);
    std::string bytes = library.bytes();
    for (const std::string& runPath : library.runPaths()) {
        const std::size_t at = bytes.find(runPath);
        if (at != std::string::npos) bytes.replace(at, runPath.size(), runPath.size(), '\0');
    }
    return bytes;
}

void expectNoBuildPath(const char* library) {
    const std::string bytes = bytesWithoutRunPaths(library);
    for (const std::string& path : kBuildPaths) {
        const std::size_t at = bytes.find(path);
        EXPECT_EQ(at, std::string::npos)
            << library << " holds " << bytes.c_str() + std::min(at, bytes.size());
    }
}

}  // namespace

TEST(LibraryFile, sonamesEndInTheMajorVersion) {
    EXPECT_EQ(ElfFile(CVNC_LIBRARY).soname(), "libcvNetworkCompatibility.so.54");
    EXPECT_EQ(ElfFile(CVUTIL_LIBRARY).soname(), "libcvutil.so.54");
}

TEST(LibraryFile, needsTheCompanionAndTheSystemOnly) {
    std::vector<std::string> allowed = kSystemLibraries;
    allowed.push_back("libcvutil.so.54");
    EXPECT_THAT(neededBy(ElfFile(CVNC_LIBRARY)), IsSubsetOf(allowed));
    EXPECT_THAT(neededBy(ElfFile(CVNC_LIBRARY)), Contains("libcvutil.so.54"));
}

TEST(LibraryFile, companionNeedsTheSystemOnly) {
    EXPECT_THAT(neededBy(ElfFile(CVUTIL_LIBRARY)), IsSubsetOf(kSystemLibraries));
}

TEST(LibraryFile, exportsTheListedNames) {
    expectExports(CVNC_LIBRARY, CVNC_ABI_DIR "/cvNetworkCompatibility.symbols");
}

TEST(LibraryFile, companionExportsTheListedNames) {
    expectExports(CVUTIL_LIBRARY, CVNC_ABI_DIR "/cvutil.symbols");
}

// Whatever the lists say: an update must not let a name of another kind in.
TEST(LibraryFile, exportsPublicNamesOnly) {
    expectOnlyPublicNames(CVNC_LIBRARY);
    expectOnlyPublicNames(CVUTIL_LIBRARY);
}

// Such a library would go on reading its own copy of a setting that a program has assigned.
TEST(LibraryFile, isNotBoundToItsOwnNames) {
    EXPECT_FALSE(ElfFile(CVNC_LIBRARY).isSymbolic());
    EXPECT_FALSE(ElfFile(CVUTIL_LIBRARY).isSymbolic());
}

TEST(LibraryFile, holdsNoBuildPath) {
    if (kIsInstrumented) GTEST_SKIP() << "sanitizers and coverage note where the sources are";
    expectNoBuildPath(CVNC_LIBRARY);
    expectNoBuildPath(CVUTIL_LIBRARY);
}
