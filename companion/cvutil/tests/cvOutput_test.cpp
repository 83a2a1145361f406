// SPDX-License-Identifier: BSD-3-Clause
// Streams, levels, texts, whole lines from many threads, error texts and fatal endings.
#include <cvutil/cvOutput.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <iomanip>
#include <map>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "childProcess.h"
#include "sanitizers.h"

namespace {

// A target that keeps each text and counts what it is asked to do.
class Recorder : public std::streambuf {
public:
    std::vector<std::string> writes;
    int flushes = 0;

    std::string text() const {
        std::string all;
        for (const std::string& write : writes) all += write;
        return all;
    }

protected:
    int_type overflow(int_type c) override {
        writes.push_back(std::string(1, traits_type::to_char_type(c)));
        return c;
    }
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        writes.push_back(std::string(text, static_cast<std::size_t>(length)));
        return length;
    }
    int sync() override {
        ++flushes;
        return 0;
    }
};

// All four streams into one recorder; level, targets and handler come back at the end.
class Output : public testing::Test {
protected:
    Output() {
        for (int i = 0; i < 4; ++i) myFormer[i] = ourStreams[i]->rdbuf(&myRecorder);
    }
    ~Output() override {
        for (int i = 0; i < 4; ++i) ourStreams[i]->rdbuf(myFormer[i]);
        NwSetOutputLevel(NwOutputInfo);
        NwSetFatalHandler(nullptr);
    }

    std::string take() {
        std::string text = myRecorder.text();
        myRecorder.writes.clear();
        return text;
    }

    static NwOutputStream* const ourStreams[4];
    Recorder myRecorder;
    std::streambuf* myFormer[4];
};

NwOutputStream* const Output::ourStreams[4] = {&NwWarn, &NwInfo, &NwVerbose, &NwDebug};

// --- levels ---

TEST_F(Output, warnAndInfoPrintAtTheStart) {
    EXPECT_EQ(NwGetOutputLevel(), NwOutputInfo);
    EXPECT_TRUE(NwWarn.okToPrint());
    EXPECT_TRUE(NwInfo.okToPrint());
    EXPECT_FALSE(NwVerbose.okToPrint());
    EXPECT_FALSE(NwDebug.okToPrint());
}

TEST_F(Output, levelDecidesWhichStreamsPrint) {
    const struct {
        int level;
        const char* shown;
    } cases[] = {{-2147483647 - 1, ""},
                 {-1, ""},
                 {0, "00."},
                 {1, "00.11."},
                 {2, "00.11.22."},
                 {3, "00.11.22.33."},
                 {2147483647, "00.11.22.33."}};
    for (const auto& sample : cases) {
        NwSetOutputLevel(sample.level);
        EXPECT_EQ(NwGetOutputLevel(), sample.level);
        for (int i = 0; i < 4; ++i) {
            (*ourStreams[i])("%d", i);
            *ourStreams[i] << i;
            ourStreams[i]->put('.');
        }
        EXPECT_EQ(take(), sample.shown) << "level " << sample.level;
        for (int i = 0; i < 4; ++i) EXPECT_EQ(ourStreams[i]->okToPrint(), i <= sample.level);
    }
}

TEST_F(Output, streamOfOnesOwnFollowsItsLevel) {
    NwOutputStream own(7);
    own.rdbuf(&myRecorder);
    own("a");
    own << "b";
    NwSetOutputLevel(7);
    own("c");
    own << "d";
    EXPECT_EQ(take(), "cd");
}

// --- texts ---

TEST_F(Output, printfStyleFormats) {
    NwWarn("plain\n");
    NwWarn("%s %d 0x%X %.2f%%\n", "text", -5, 255u, 1.5);
    EXPECT_EQ(take(), "plain\ntext -5 0xFF 1.50%\n");
}

TEST_F(Output, printfStyleMessageIsOneWriteAtAnyLength) {
    for (std::size_t length : {1u, 2u, 510u, 511u, 512u, 513u, 4096u, 100000u}) {
        const std::string text(length, 'x');
        NwInfo("%s", text.c_str());
        ASSERT_EQ(myRecorder.writes.size(), 1u) << length;
        EXPECT_EQ(take(), text) << length;
    }
}

TEST_F(Output, emptyMessageWritesNothing) {
    NwInfo("%s", "");
    EXPECT_TRUE(myRecorder.writes.empty());
}

TEST_F(Output, printfStyleKeepsNulBytes) {
    NwInfo("a%cb", '\0');
    EXPECT_EQ(take(), std::string("a\0b", 3));
}

TEST_F(Output, textThatCannotBeFormattedGivesItsFormat) {
    const wchar_t unprintable[] = {static_cast<wchar_t>(0x12345), 0};  // no such character in the C locale
    NwInfo("name %ls", unprintable);
    EXPECT_EQ(take(), "name %ls");
}

TEST_F(Output, insertionWorksAsOnAnyStream) {
    NwInfo << "a " << 1 << ' ' << 2.5 << ' ' << std::hex << 255 << std::dec << ' ' << std::setw(3) << 7
           << '\n';
    EXPECT_EQ(take(), "a 1 2.5 ff   7\n");
    std::ostream& plain = NwWarn;
    plain << "through the base";
    EXPECT_EQ(take(), "through the base");
}

TEST_F(Output, insertionArrivesWithoutFlush) {
    NwInfo << "here";
    EXPECT_EQ(take(), "here");
}

TEST_F(Output, wholeTextInsertedIsOneWrite) {
    NwWarn.write("one piece\n", 10);
    NwWarn << std::string("another\n");
    ASSERT_EQ(myRecorder.writes.size(), 2u);
    EXPECT_EQ(myRecorder.writes[0], "one piece\n");
    EXPECT_EQ(myRecorder.writes[1], "another\n");
}

TEST_F(Output, endlAndFlushReachTheTarget) {
    NwInfo << "line" << std::endl;
    EXPECT_EQ(myRecorder.flushes, 1);
    NwInfo << std::flush;
    EXPECT_EQ(myRecorder.flushes, 2);
    EXPECT_EQ(take(), "line\n");
}

// --- targets ---

TEST_F(Output, handingInATargetGivesBackTheFormer) {
    Recorder other;
    EXPECT_EQ(NwInfo.rdbuf(), &myRecorder);
    EXPECT_EQ(NwInfo.rdbuf(&other), &myRecorder);
    NwInfo("x");
    NwWarn("y");
    EXPECT_EQ(other.text(), "x");
    EXPECT_EQ(NwInfo.rdbuf(&myRecorder), &other);
    EXPECT_EQ(take(), "y");
}

TEST_F(Output, nullTargetSwallowsAndTheStreamStaysGood) {
    NwWarn.rdbuf(nullptr);
    NwWarn("lost");
    NwWarn << "lost" << std::endl;
    EXPECT_TRUE(NwWarn.good());
    NwWarn.rdbuf(&myRecorder);
    NwWarn << "back";
    EXPECT_EQ(take(), "back");
}

class Failing : public std::streambuf {
public:
    explicit Failing(bool throws) : myThrows(throws) {}

protected:
    int_type overflow(int_type) override {
        fail();
        return traits_type::eof();
    }
    std::streamsize xsputn(const char*, std::streamsize) override {
        fail();
        return 0;
    }
    int sync() override {
        fail();
        return -1;
    }

private:
    void fail() {
        if (myThrows) throw std::runtime_error("target fails");
    }
    bool myThrows;
};

TEST_F(Output, failingTargetLosesItsTextAndNothingElse) {
    for (bool throws : {false, true}) {
        Failing failing(throws);
        NwWarn.rdbuf(&failing);
        NwWarn.exceptions(std::ios::badbit | std::ios::failbit);
        EXPECT_NO_THROW({
            NwWarn("x");
            NwWarn << 'c' << "text" << 5 << std::endl;
            NwWarnPerror("y");
        });
        EXPECT_TRUE(NwWarn.good());
        NwWarn.exceptions(std::ios::goodbit);
        NwWarn.rdbuf(&myRecorder);
        NwWarn << "back";
        EXPECT_EQ(take(), "back");
    }
}

TEST_F(Output, targetMayPrintOnAnotherStream) {
    struct Echo : Recorder {
        std::streamsize xsputn(const char* text, std::streamsize length) override {
            NwWarn("echo of %.*s", static_cast<int>(length), text);
            return length;
        }
    } echo;
    NwInfo.rdbuf(&echo);
    NwInfo("info");
    EXPECT_EQ(take(), "echo of info");
}

// The recorder has no lock: the streams keep threads apart, and a target that was replaced is never touched
// again.
TEST_F(Output, oneTargetServesStreamsAndThreadsWithoutALockOfItsOwn) {
    const int kThreads = 8;
    const int kLines = 500;
    NwSetOutputLevel(NwOutputDebug);
    std::vector<std::thread> threads;
    threads.reserve(kThreads);
    for (int id = 0; id < kThreads; ++id)
        threads.emplace_back([id] {
            NwOutputStream& stream = *ourStreams[id % 4];
            for (int i = 0; i < kLines; ++i) {
                stream("thread %d line %d\n", id, i);
                stream.flush();
            }
        });
    std::string before;
    {
        Recorder shortLived;
        for (NwOutputStream* stream : ourStreams) stream->rdbuf(&shortLived);
        std::this_thread::yield();
        for (NwOutputStream* stream : ourStreams) stream->rdbuf(&myRecorder);
        before = shortLived.text();
    }
    for (std::thread& thread : threads) thread.join();
    std::istringstream lines(before + take());
    std::map<std::string, int> count;
    for (std::string line; std::getline(lines, line);) ++count[line];
    EXPECT_EQ(count.size(), static_cast<std::size_t>(kThreads * kLines));
}

TEST_F(Output, levelMayChangeWhileThreadsPrint) {
    std::thread printer([] {
        for (int i = 0; i < 2000; ++i) {
            NwDebug("%d\n", i);
            NwDebug.write("x\n", 2);
        }
    });
    for (int i = 0; i < 2000; ++i) NwSetOutputLevel(i % 4);
    printer.join();
    EXPECT_EQ(NwGetOutputLevel(), 3);
}

// --- standard error ---

TEST(OutputToStandardError, isTheTargetAtTheStart) {
    const ChildResult result = runInChild([] {
        NwSetOutputLevel(NwOutputDebug);
        NwWarn("warn %d\n", 1);
        NwInfo << "info " << 2 << std::endl;
        NwVerbose("verbose\n");
        NwDebug << 'd' << '\n';
    });
    EXPECT_EQ(result.errors, "warn 1\ninfo 2\nverbose\nd\n");
    EXPECT_EQ(result.output, "");
}

// A datagram socket in the place of standard error shows each write by itself.
TEST(OutputToStandardError, messageIsOneWrite) {
    int ends[2];
    ASSERT_EQ(::socketpair(AF_UNIX, SOCK_DGRAM, 0, ends), 0);
    const std::string longText(3000, 'x');
    runInChild([&] {
        ::dup2(ends[1], STDERR_FILENO);
        NwWarn("first %d\n", 1);
        NwWarn("%s\n", longText.c_str());
        errno = ENOENT;
        NwWarnPerror("third");
        NwWarn.write("fourth\n", 7);
    });
    const std::string expected[] = {"first 1\n", longText + "\n", "third: No such file or directory\n",
                                    "fourth\n"};
    for (const std::string& text : expected) {
        char buffer[8192];
        const ssize_t got = ::recv(ends[0], buffer, sizeof buffer, MSG_DONTWAIT);
        ASSERT_GE(got, 0);
        EXPECT_EQ(std::string(buffer, static_cast<std::size_t>(got)), text);
    }
    char one;
    EXPECT_EQ(::recv(ends[0], &one, 1, MSG_DONTWAIT), -1) << "a further write";
    ::close(ends[0]);
    ::close(ends[1]);
}

std::string lineOf(int writer, int number, std::size_t longest) {
    const std::size_t length = static_cast<std::size_t>(writer * 7919 + number * 104729) % longest;
    return std::to_string(writer) + ":" + std::to_string(number) + ":" +
           std::string(length, static_cast<char>('a' + writer % 26)) + ":" + std::to_string(length);
}

void printLines(int writer, int lines, std::size_t longest) {
    for (int i = 0; i < lines; ++i) NwWarn("%s\n", lineOf(writer, i, longest).c_str());
}

// Every line of every writer, whole, and each writer's in its order.
void expectWholeLines(const std::string& text, int writers, int lines, std::size_t longest) {
    std::vector<int> next(static_cast<std::size_t>(writers), 0);
    std::istringstream stream(text);
    for (std::string line; std::getline(stream, line);) {
        const int writer = std::atoi(line.c_str());
        ASSERT_TRUE(writer >= 0 && writer < writers) << line;
        ASSERT_EQ(line, lineOf(writer, next[static_cast<std::size_t>(writer)]++, longest));
    }
    for (int count : next) EXPECT_EQ(count, lines);
}

TEST(OutputToStandardError, linesOfThreadsNeverMix) {
    const std::size_t kLongest = 9000;  // beyond what a pipe takes in one piece
    const ChildResult result = runInChild([&] {
        std::vector<std::thread> threads;
        threads.reserve(8);
        for (int id = 0; id < 8; ++id) threads.emplace_back(printLines, id, 200, kLongest);
        for (std::thread& thread : threads) thread.join();
    });
    expectWholeLines(result.errors, 8, 200, kLongest);
}

TEST(OutputToStandardError, linesOfProcessesNeverMix) {
    const std::size_t kLongest = 3000;  // what the system keeps whole on a pipe
    const ChildResult result = runInChild([&] {
        for (int id = 0; id < 4; ++id)
            if (::fork() == 0) {
                printLines(id, 200, kLongest);
                ::_exit(0);
            }
        while (::wait(nullptr) > 0) {
        }
    });
    expectWholeLines(result.errors, 4, 200, kLongest);
}

TEST(OutputToStandardError, fullNonBlockingPipeIsWaitedFor) {
    const std::string text(1000000, 'n');
    const ChildResult result = runInChild([&] {
        ::fcntl(STDERR_FILENO, F_SETFL, O_NONBLOCK | O_WRONLY);
        NwWarn("%s", text.c_str());
    });
    EXPECT_EQ(result.errors.size(), text.size());
}

TEST(OutputToStandardError, interruptedWritesGoOn) {
    const std::string text(2000000, 'i');
    int slowPipe[2];
    ASSERT_EQ(::pipe(slowPipe), 0);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(slowPipe[1], STDERR_FILENO);
        ::close(slowPipe[0]);
        struct sigaction action = {};
        action.sa_handler = [](int) {};
        ::sigaction(SIGALRM, &action, nullptr);
        itimerval timer = {{0, 1000}, {0, 1000}};
        ::setitimer(ITIMER_REAL, &timer, nullptr);
        NwWarn("%s", text.c_str());
        ::_exit(0);
    }
    ::close(slowPipe[1]);
    std::size_t got = 0;
    char buffer[50000];
    for (ssize_t n; (n = ::read(slowPipe[0], buffer, sizeof buffer)) > 0;) {
        got += static_cast<std::size_t>(n);
        std::this_thread::sleep_for(
            std::chrono::milliseconds(3));  // keeps the writer waiting; nothing depends on how long
    }
    ::close(slowPipe[0]);
    ::waitpid(pid, nullptr, 0);
    EXPECT_EQ(got, text.size());
}

TEST(OutputToStandardError, pipeThatNobodyEmptiesCostsTheTextAndNotTheProgram) {
    int ends[2];
    ASSERT_EQ(::pipe2(ends, O_NONBLOCK), 0);
    const ChildResult result = runInChild([&] {
        ::dup2(ends[1], STDERR_FILENO);
        NwWarn("%s", std::string(200000, 'x').c_str());
        if (NwWarn.good()) std::puts("going on");
        std::fflush(stdout);
    });
    EXPECT_EQ(result.output, "going on\n");
    ::close(ends[0]);
    ::close(ends[1]);
}

TEST(OutputToStandardError, closedStandardErrorLosesTheTextAndNothingElse) {
    const ChildResult result = runInChild([] {
        const int keep = ::dup(STDERR_FILENO);
        ::close(STDERR_FILENO);
        errno = ENOTDIR;
        NwWarn("lost\n");
        const bool printfKeptErrno = errno == ENOTDIR;
        NwWarnPerror("lost");
        const bool perrorKeptErrno = errno == ENOTDIR;
        NwWarn << "lost" << 1 << std::endl;
        const bool good = NwWarn.good() && errno == ENOTDIR;
        ::dup2(keep, STDERR_FILENO);
        NwWarn("printf %d perror %d good %d\n", printfKeptErrno, perrorKeptErrno, good);
    });
    EXPECT_EQ(result.errors, "printf 1 perror 1 good 1\n");
}

// --- threads that end inside a target, and forks ---

// A target in which a thread stays until it is let go.
class Trap : public std::streambuf {
public:
    void waitUntilOccupied() {
        std::unique_lock<std::mutex> lock(myMutex);
        myChanged.wait(lock, [this] { return myOccupied; });
    }
    void open() {
        std::lock_guard<std::mutex> lock(myMutex);
        myOpen = true;
        myChanged.notify_all();
    }

protected:
    std::streamsize xsputn(const char*, std::streamsize length) override {
        std::unique_lock<std::mutex> lock(myMutex);
        myOccupied = true;
        myChanged.notify_all();
        myChanged.wait(lock, [this] { return myOpen; });
        return length;
    }

private:
    std::mutex myMutex;
    std::condition_variable myChanged;
    bool myOccupied = false;
    bool myOpen = false;
};

TEST_F(Output, childMayPrintAlthoughAnotherThreadWasPrinting) {
    Trap trap;
    NwInfo.rdbuf(&trap);
    std::thread printer([] { NwInfo("into the trap"); });
    trap.waitUntilOccupied();
    std::streambuf* standardError = myFormer[0];
    const ChildResult result = runInChild([&] {
        NwWarn.rdbuf(standardError);
        NwWarn("from the child\n");
    });
    trap.open();
    printer.join();
    EXPECT_EQ(result.errors, "from the child\n");
    EXPECT_TRUE(result.exitedWith(kBodyReturned)) << result.status;
}

TEST_F(Output, cancelledThreadLeavesTheStreamsFree) {
    if (kUnderThreadSanitizer)
        GTEST_SKIP() << "the thread sanitizer overlooks what a cancelled thread unlocks";
    struct CancelHere : Recorder {
        std::streamsize xsputn(const char*, std::streamsize) override {
            for (;;) ::pause();
        }
    } target;
    NwInfo.rdbuf(&target);
    pthread_t thread;
    ASSERT_EQ(pthread_create(
                  &thread, nullptr,
                  [](void*) -> void* {
                      NwInfo("never ends");
                      return nullptr;
                  },
                  nullptr),
              0);
    ASSERT_EQ(pthread_cancel(thread), 0);
    void* result = nullptr;
    pthread_join(thread, &result);
    EXPECT_EQ(result, PTHREAD_CANCELED);
    NwWarn("free");
    EXPECT_EQ(take(), "free");
}

// --- errors of the system ---

TEST_F(Output, perrorAppendsTheSystemsDescription) {
    errno = ENOENT;
    NwWarnPerror("open %s, try %d", "file", 2);
    EXPECT_EQ(take(), "open file, try 2: No such file or directory\n");
    errno = ECONNREFUSED;
    NwWarnNetPerror("connect");
    EXPECT_EQ(take(), "connect: Connection refused\n");
    errno = 0;
    NwWarnPerror("nothing");
    EXPECT_EQ(take(), "nothing: Success\n");
    errno = 99999;
    NwWarnNetPerror("odd");
    EXPECT_EQ(take(), "odd: Unknown error 99999\n");
}

TEST_F(Output, perrorTakesTheTextAsItIs) {
    errno = EPERM;
    NwWarnPerror("ends with line\n");
    EXPECT_EQ(take(), "ends with line\n: Operation not permitted\n");
    errno = EPERM;
    NwWarnPerror("with colon: ");
    EXPECT_EQ(take(), "with colon: : Operation not permitted\n");
}

TEST_F(Output, perrorIsOneWriteAtAnyLength) {
    for (std::size_t length : {0u, 490u, 500u, 511u, 512u, 50000u}) {
        const std::string text(length, 'p');
        errno = EPERM;
        NwWarnPerror("%s", text.c_str());
        ASSERT_EQ(myRecorder.writes.size(), 1u) << length;
        EXPECT_EQ(take(), text + ": Operation not permitted\n");
    }
}

TEST_F(Output, perrorFollowsTheLevelOfWarn) {
    NwSetOutputLevel(-1);
    NwWarnPerror("silent");
    NwWarnNetPerror("silent");
    EXPECT_TRUE(myRecorder.writes.empty());
}

TEST_F(Output, everyCallKeepsErrno) {
    struct Spoiler : Recorder {
        std::streamsize xsputn(const char*, std::streamsize length) override {
            errno = E2BIG;
            return length;
        }
        int sync() override {
            errno = E2BIG;
            return 0;
        }
    } spoiler;
    NwWarn.rdbuf(&spoiler);
    NwSetFatalHandler([](const char*) { errno = E2BIG; });
    errno = ENOENT;
    NwWarn("%s\n", std::string(5000, 'x').c_str());
    EXPECT_EQ(errno, ENOENT);
    NwWarn << "inserted" << std::endl;
    EXPECT_EQ(errno, ENOENT);
    NwWarnPerror("a");
    EXPECT_EQ(errno, ENOENT);
    NwWarnNetPerror("b");
    EXPECT_EQ(errno, ENOENT);
    NwFatalPerror("c");
    EXPECT_EQ(errno, ENOENT);
    NwFatalError("d");
    EXPECT_EQ(errno, ENOENT);
}

// --- the end ---

void printUnflushed() {
    std::setvbuf(stdout, nullptr, _IOFBF, 4096);
    std::fputs("unflushed", stdout);
    std::atexit([] { std::fputs("atexit ran\n", stderr); });
}

TEST(Fatal, errorPrintsItsTextFlushesAndExitsWithOne) {
    const ChildResult result = runInChild([] {
        printUnflushed();
        NwFatalError("ClientSock %s ok\n", "not");
    });
    EXPECT_EQ(result.errors, "ClientSock not ok\n");
    EXPECT_EQ(result.output, "unflushed");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, perrorAddsTheDescription) {
    const ChildResult result = runInChild([] {
        printUnflushed();
        errno = EACCES;
        NwFatalPerror("socketpair %d", 3);
    });
    EXPECT_EQ(result.errors, "socketpair 3: Permission denied\n");
    EXPECT_EQ(result.output, "unflushed");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, abortPrintsNothingFlushesAndAborts) {
    const ChildResult result = runInChild([] {
        printUnflushed();
        NwAbort();
    });
    EXPECT_EQ(result.errors, "");
    EXPECT_EQ(result.output, "unflushed");
    EXPECT_TRUE(result.diedOf(SIGABRT)) << result.status;
}

TEST(Fatal, textIsPrintedAtEveryLevel) {
    const ChildResult result = runInChild([] {
        NwSetOutputLevel(-100);
        NwFatalError("still said\n");
    });
    EXPECT_EQ(result.errors, "still said\n");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

// Keeps everything until it is flushed.
class Hoarder : public std::stringbuf {
public:
    explicit Hoarder(FILE* file) : myFile(file) {}

protected:
    int sync() override {
        std::fputs(str().c_str(), myFile);
        str("");
        return 0;
    }

private:
    FILE* myFile;
};

TEST(Fatal, targetsOfAllStreamsAreFlushedThenStdio) {
    for (bool byAbort : {false, true}) {
        const ChildResult result = runInChild([&] {
            std::setvbuf(stdout, nullptr, _IOFBF, 4096);
            Hoarder hoarders[4] = {Hoarder(stdout), Hoarder(stdout), Hoarder(stdout), Hoarder(stdout)};
            NwOutputStream* streams[4] = {&NwWarn, &NwInfo, &NwVerbose, &NwDebug};
            NwSetOutputLevel(NwOutputDebug);
            for (int i = 0; i < 4; ++i) {
                streams[i]->rdbuf(&hoarders[i]);
                (*streams[i])("%d ", i);
            }
            if (byAbort) NwAbort();
            NwFatalError("fatal ");
        });
        EXPECT_EQ(result.output, byAbort ? "0 1 2 3 " : "0 fatal 1 2 3 ");
        EXPECT_TRUE(byAbort ? result.diedOf(SIGABRT) : result.exitedWith(1)) << result.status;
    }
}

TEST(Fatal, filesOfTheApplicationAreFlushed) {
    for (bool byAbort : {false, true}) {
        const ChildResult result = runInChild([&] {
            FILE* log = ::fdopen(::dup(STDOUT_FILENO), "w");
            std::fputs("logged", log);
            if (byAbort) NwAbort();
            NwFatalError("end\n");
        });
        EXPECT_EQ(result.output, "logged");
    }
}

TEST(Fatal, worksFromAWorkerThread) {
    const ChildResult result = runInChild([] { std::thread([] { NwFatalError("worker\n"); }).join(); });
    EXPECT_EQ(result.errors, "worker\n");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, worksFromADestructorDuringUnwinding) {
    struct EndsInDestructor {
        ~EndsInDestructor() { NwFatalError("destructor\n"); }
    };
    const ChildResult result = runInChild([] {
        try {
            EndsInDestructor object;
            throw 1;
        } catch (int) {
        }
    });
    EXPECT_EQ(result.errors, "destructor\n");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, worksDuringExit) {
    const ChildResult result = runInChild([] {
        std::atexit([] { NwFatalError("while exiting\n"); });
        std::exit(0);  // NOLINT(concurrency-mt-unsafe): no other thread
    });
    EXPECT_EQ(result.errors, "while exiting\n");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, manyThreadsAtOnceEndTheProcessOnce) {
    const ChildResult result = runInChild([] {
        std::vector<std::thread> threads;
        threads.reserve(8);
        for (int i = 0; i < 8; ++i) threads.emplace_back([] { NwFatalError("end\n"); });
        for (std::thread& thread : threads) thread.join();
    });
    EXPECT_EQ(result.errors.substr(0, 4), "end\n");
    EXPECT_EQ(result.errors.size() % 4, 0u) << result.errors;
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(Fatal, targetThatFailsFatallyWhileItIsFlushedEndsToo) {
    for (bool byAbort : {false, true}) {
        const ChildResult result = runInChild([&] {
            struct FatalFlush : Recorder {
                int sync() override {
                    NwFatalError("again\n");
                    return 0;
                }
            } target;
            NwDebug.rdbuf(&target);
            if (byAbort) NwAbort();
            NwFatalError("first\n");
        });
        EXPECT_EQ(result.errors, byAbort ? "" : "first\n");
        EXPECT_TRUE(result.exitedWith(1)) << result.status;
    }
}

// stdio keeps the lock of a stream while a thread reads from it: flushing all streams would wait for ever.
TEST(Fatal, readerOnAStdioStreamDoesNotHoldUpTheEnd) {
    if (kUnderThreadSanitizer) GTEST_SKIP() << "the thread sanitizer keeps signals back until fflush returns";
    for (bool byAbort : {false, true}) {
        const ChildResult result = runInChild([&] {
            std::setvbuf(stdout, nullptr, _IOFBF, 4096);
            std::fputs("unflushed", stdout);
            int ends[2];
            if (::pipe(ends) != 0) return;
            FILE* reading = ::fdopen(ends[0], "r");
            std::thread reader([&] { std::fgetc(reading); });
            while (::ftrylockfile(reading) == 0) {
                ::funlockfile(reading);
                std::this_thread::yield();
            }
            if (byAbort) NwAbort();
            NwFatalError("end\n");
        });
        EXPECT_EQ(result.output, "unflushed");
        EXPECT_TRUE(byAbort ? result.diedOf(SIGABRT) : result.exitedWith(1)) << result.status;
    }
}

TEST(Fatal, standardErrorThatNobodyReadsDoesNotHoldUpTheEnd) {
    int ends[2];
    ASSERT_EQ(::pipe(ends), 0);
    const ChildResult result = runInChild([&] {
        ::dup2(ends[1], STDERR_FILENO);
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_BLOCK, &all, nullptr);
        NwFatalError("%s\n", std::string(200000, 'x').c_str());
    });
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
    ::close(ends[0]);
    ::close(ends[1]);
}

// --- the handler ---

std::string& heard() {
    static std::string text;
    return text;
}

void hear(const char* message) {
    heard() += message;
}

TEST_F(Output, fatalHandlerGetsTheFinishedMessageAndMayReturn) {
    heard().clear();
    NwSetFatalHandler(hear);
    NwFatalError("no %s here", "end");
    EXPECT_EQ(heard(), "no end here");
    heard().clear();
    errno = EBADF;
    NwFatalPerror("blocking");
    EXPECT_EQ(heard(), "blocking: Bad file descriptor\n");
    EXPECT_TRUE(myRecorder.writes.empty()) << "printed besides";
    EXPECT_EQ(myRecorder.flushes, 0);
}

TEST_F(Output, fatalHandlerGetsLongMessagesWhole) {
    heard().clear();
    NwSetFatalHandler(hear);
    const std::string text(5000, 'l');
    NwFatalError("%s\n", text.c_str());
    EXPECT_EQ(heard(), text + "\n");
}

TEST_F(Output, settingAFatalHandlerGivesBackTheFormer) {
    EXPECT_EQ(NwSetFatalHandler(hear), nullptr);
    NwFatalHandler other = [](const char*) {};
    EXPECT_EQ(NwSetFatalHandler(other), &hear);
    EXPECT_EQ(NwSetFatalHandler(nullptr), other);
}

TEST_F(Output, fatalHandlerRunsWithoutTheLockOfTheStreams) {
    NwSetFatalHandler([](const char* message) { std::thread([message] { NwWarn("%s", message); }).join(); });
    NwFatalError("said by another thread");
    EXPECT_EQ(take(), "said by another thread");
}

TEST(Fatal, handlerMayEndTheProcessItsOwnWay) {
    const ChildResult result = runInChild([] {
        NwSetFatalHandler([](const char*) { ::_exit(42); });
        NwFatalError("x\n");
    });
    EXPECT_EQ(result.errors, "");
    EXPECT_TRUE(result.exitedWith(42)) << result.status;
}

TEST(Fatal, handlerDoesNotConcernAbort) {
    const ChildResult result = runInChild([] {
        NwSetFatalHandler([](const char*) { ::_exit(42); });
        NwAbort();
    });
    EXPECT_TRUE(result.diedOf(SIGABRT)) << result.status;
}

TEST(Fatal, withoutHandlerTheProcessEndsAgain) {
    const ChildResult result = runInChild([] {
        NwSetFatalHandler(hear);
        NwSetFatalHandler(nullptr);
        NwFatalError("over\n");
    });
    EXPECT_EQ(result.errors, "over\n");
    EXPECT_TRUE(result.exitedWith(1)) << result.status;
}

TEST(NetDebug, isOffAtTheStart) {
    EXPECT_EQ(NwNetDebugOn, 0);
}

}  // namespace
