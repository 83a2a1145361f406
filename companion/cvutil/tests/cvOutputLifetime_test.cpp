// SPDX-License-Identifier: BSD-3-Clause
// The streams exist before any static constructor and after every static destructor.
#include <gtest/gtest.h>

#include <cstdlib>
#include <sstream>
#include <thread>

#include "childProcess.h"

#include <cvutil/cvOutput.h>

namespace {

bool theDestructorPrints = false;

// Built before every other static object of this program, and so destroyed after them.
struct EarlyAndLate {
    EarlyAndLate() {
        std::stringbuf capture;
        std::streambuf* former = NwWarn.rdbuf(&capture);
        NwWarn("printf %d\n", 1);
        NwWarn << "inserted " << 2 << std::endl;
        NwWarn.rdbuf(former);
        text = new std::string(capture.str());
        infoShows = NwInfo.okToPrint();
        debugShows = NwDebug.okToPrint();
        targetIsSet =
            former && NwInfo.rdbuf() == former && NwVerbose.rdbuf() == former && NwDebug.rdbuf() == former;
    }
    ~EarlyAndLate() {
        if (theDestructorPrints) {
            NwWarn("last %s\n", "words");
            NwInfo << "and more" << std::endl;
        }
        delete text;
    }

    std::string* text;
    bool infoShows;
    bool debugShows;
    bool targetIsSet;
};

EarlyAndLate theEarlyAndLate __attribute__((init_priority(102)));

struct PrintsAtThreadEnd {
    ~PrintsAtThreadEnd() { NwWarn("thread ends\n"); }
    bool used = false;
};

thread_local PrintsAtThreadEnd thePrinter;

TEST(OutputLifetime, worksInTheFirstStaticConstructor) {
    EXPECT_EQ(*theEarlyAndLate.text, "printf 1\ninserted 2\n");
    EXPECT_TRUE(theEarlyAndLate.infoShows);
    EXPECT_FALSE(theEarlyAndLate.debugShows);
    EXPECT_TRUE(theEarlyAndLate.targetIsSet);
}

TEST(OutputLifetime, worksInTheLastStaticDestructor) {
    const ChildResult result = runInChild([] {
        theDestructorPrints = true;
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): no other thread
    });
    EXPECT_EQ(result.errors, "last words\nand more\n");
    EXPECT_TRUE(result.exitedWith(0)) << result.status;
}

TEST(OutputLifetime, worksWhileAThreadEnds) {
    const ChildResult result = runInChild([] { std::thread([] { thePrinter.used = true; }).join(); });
    EXPECT_EQ(result.errors, "thread ends\n");
    EXPECT_TRUE(result.exitedWith(kBodyReturned)) << result.status;
}

}  // namespace
