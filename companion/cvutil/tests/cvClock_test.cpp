// SPDX-License-Identifier: BSD-3-Clause
// Clock, select and sleep. Times are judged from below only (nothing ends early): a busy machine may always
// be late.
#include <cvutil/cvClock.h>

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <limits>
#include <thread>

namespace {

const double kInfinity = std::numeric_limits<double>::infinity();
const double kNotANumber = std::numeric_limits<double>::quiet_NaN();

// Sends SIGALRM every few milliseconds, to a handler that does nothing and lets calls be interrupted.
class Interruptions {
public:
    Interruptions() {
        struct sigaction action = {};
        action.sa_handler = [](int) { ++theCount; };
        sigaction(SIGALRM, &action, &myFormer);
        theCount = 0;
        setTimerMicroseconds(5000);
    }
    ~Interruptions() {
        setTimerMicroseconds(0);
        sigaction(SIGALRM, &myFormer, nullptr);
    }
    int count() const { return theCount; }

private:
    static void setTimerMicroseconds(int microseconds) {
        itimerval timer = {};
        timer.it_interval.tv_usec = timer.it_value.tv_usec = microseconds;
        setitimer(ITIMER_REAL, &timer, nullptr);
    }

    static volatile sig_atomic_t theCount;
    struct sigaction myFormer;
};

volatile sig_atomic_t Interruptions::theCount = 0;

class Pipe {
public:
    Pipe() { EXPECT_EQ(::pipe(myEnds), 0); }
    ~Pipe() {
        ::close(myEnds[0]);
        ::close(myEnds[1]);
    }
    int readEnd() const { return myEnds[0]; }
    int writeEnd() const { return myEnds[1]; }
    void feed() { EXPECT_EQ(::write(myEnds[1], "x", 1), 1); }

    // Waits until the read end is readable.
    int select(double seconds) {
        FD_ZERO(&mySet);
        FD_SET(myEnds[0], &mySet);
        return NwSelect(myEnds[0] + 1, &mySet, nullptr, nullptr, seconds);
    }
    bool marked() const { return FD_ISSET(myEnds[0], &mySet); }

private:
    int myEnds[2];
    fd_set mySet;
};

TEST(Clock, startsAtItsConstruction) {
    const double before = NwClock().absRealTime();
    NwClock clock;
    const double elapsed = clock.elapsedRealTime();
    EXPECT_GE(elapsed, 0);
    EXPECT_LE(elapsed, clock.absRealTime() - before);
}

TEST(Clock, neverStepsBack) {
    NwClock clock;
    double last = 0;
    for (int i = 0; i < 10000; ++i) {
        const double now = clock.elapsedRealTime();
        ASSERT_GE(now, last);
        last = now;
    }
    EXPECT_GT(last, 0);
}

TEST(Clock, elapsedIsInSeconds) {
    NwClock clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_GE(clock.elapsedRealTime(), 0.02 - 1e-6);
    EXPECT_LT(clock.elapsedRealTime(), 20);
}

TEST(Clock, initStartsAgain) {
    NwClock clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    NwClock since;
    clock.init();
    const double elapsed = clock.elapsedRealTime();
    EXPECT_LE(elapsed, since.elapsedRealTime());
}

TEST(Clock, copyMeasuresFromTheSameInstant) {
    NwClock clock;
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
    const NwClock copy = clock;
    EXPECT_GE(copy.elapsedRealTime(), 0.005 - 1e-6);
}

TEST(Clock, absoluteTimeIsTheMonotonicClockOfTheHost) {
    const std::chrono::duration<double> before = std::chrono::steady_clock::now().time_since_epoch();
    const double now = NwClock().absRealTime();
    const std::chrono::duration<double> after = std::chrono::steady_clock::now().time_since_epoch();
    EXPECT_GE(now, before.count() - 1e-6);
    EXPECT_LE(now, after.count() + 1e-6);
}

TEST(Select, tellsReadableDescriptors) {
    Pipe pipe;
    pipe.feed();
    EXPECT_EQ(pipe.select(10), 1);
    EXPECT_TRUE(pipe.marked());
}

TEST(Select, tellsWritableDescriptors) {
    Pipe pipe;
    fd_set set;
    FD_ZERO(&set);
    FD_SET(pipe.writeEnd(), &set);
    EXPECT_EQ(NwSelect(pipe.writeEnd() + 1, nullptr, &set, nullptr, 10), 1);
    EXPECT_TRUE(FD_ISSET(pipe.writeEnd(), &set));
}

TEST(Select, givesZeroWhenTheTimeIsOverAndNotBefore) {
    for (double seconds : {1e-9, 1e-6, 0.001, 0.05, 0.0999999}) {
        Pipe pipe;
        NwClock clock;
        EXPECT_EQ(pipe.select(seconds), 0) << seconds;
        EXPECT_FALSE(pipe.marked());
        EXPECT_GE(clock.elapsedRealTime(), seconds) << seconds;
    }
}

TEST(Select, secondsThatRoundUpToAWholeOneAreAValidLimit) {
    Pipe pipe;
    NwClock clock;
    EXPECT_EQ(pipe.select(0.9999999), 0);
    EXPECT_GE(clock.elapsedRealTime(), 0.9999999);
}

// A look alone never gives up the processor; a wait does, nearly every time.
TEST(Select, shortestLimitWaitsAndDoesNotSpin) {
    rusage before;
    rusage after;
    ::getrusage(RUSAGE_THREAD, &before);
    for (int i = 0; i < 100; ++i) EXPECT_EQ(NwSelect(0, nullptr, nullptr, nullptr, 1e-12), 0);
    ::getrusage(RUSAGE_THREAD, &after);
    EXPECT_GT(after.ru_nvcsw, before.ru_nvcsw);
}

TEST(Select, limitsThatAreNoTimeLookOnce) {
    for (double seconds : {0.0, -0.0, -1e-9, -1.0, -1e300, -kInfinity, kNotANumber}) {
        Pipe pipe;
        EXPECT_EQ(pipe.select(seconds), 0) << seconds;
        pipe.feed();
        EXPECT_EQ(pipe.select(seconds), 1) << seconds;
    }
}

TEST(Select, limitsBeyondAllBoundsWaitUntilSomethingComes) {
    for (double seconds : {2147483647.0, 1e18, 1e300, kInfinity}) {
        Pipe pipe;
        std::thread writer([&] {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
            pipe.feed();
        });
        EXPECT_EQ(pipe.select(seconds), 1) << seconds;
        writer.join();
    }
}

TEST(Select, signalEndsTheWaitWithItsError) {
    Pipe pipe;
    Interruptions interruptions;
    errno = 0;
    EXPECT_EQ(pipe.select(30), -1);
    EXPECT_EQ(errno, EINTR);
}

TEST(Select, badDescriptorIsReported) {
    fd_set set;
    FD_ZERO(&set);
    const int closed = ::dup(0) >= 0 ? ::dup(1) : -1;
    ASSERT_GE(closed, 0);
    ::close(closed);
    FD_SET(closed, &set);
    EXPECT_EQ(NwSelect(closed + 1, &set, nullptr, nullptr, 0), -1);
    EXPECT_EQ(errno, EBADF);
}

TEST(Select, countsOutsideASetAreRefused) {
    for (int nfds : {-1, std::numeric_limits<int>::min(), FD_SETSIZE + 1, std::numeric_limits<int>::max()}) {
        errno = 0;
        EXPECT_EQ(NwSelect(nfds, nullptr, nullptr, nullptr, 0), -1) << nfds;
        EXPECT_EQ(errno, EINVAL) << nfds;
    }
    for (int nfds : {0, FD_SETSIZE}) EXPECT_EQ(NwSelect(nfds, nullptr, nullptr, nullptr, 0), 0) << nfds;
}

TEST(Sleep, sleepsTheWholeTime) {
    for (double seconds : {1e-9, 0.001, 0.03, 0.9999999999}) {
        NwClock clock;
        NwSleep(seconds);
        EXPECT_GE(clock.elapsedRealTime(), seconds - 1e-6);
    }
}

TEST(Sleep, signalsDoNotShortenIt) {
    Interruptions interruptions;
    NwClock clock;
    NwSleep(0.2);
    EXPECT_GE(clock.elapsedRealTime(), 0.2 - 1e-6);
    EXPECT_GE(interruptions.count(), 1);
}

// That these come back at all is what is shown: infinity, taken at its word, would not.
TEST(Sleep, timesThatAreNoTimeReturnAtOnce) {
    for (double seconds : {0.0, -0.0, -1.0, -1e300, kNotANumber, kInfinity, -kInfinity}) {
        NwClock clock;
        NwSleep(seconds);
        EXPECT_LT(clock.elapsedRealTime(), 20) << seconds;
    }
}

TEST(Sleep, lengthsBeyondAllBoundsSleep) {
    const pid_t pid = ::fork();
    if (pid == 0) {
        NwSleep(1e300);
        ::_exit(0);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    EXPECT_EQ(::waitpid(pid, nullptr, WNOHANG), 0) << "woke up";
    ::kill(pid, SIGKILL);
    ::waitpid(pid, nullptr, 0);
}

}  // namespace
