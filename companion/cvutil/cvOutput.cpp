// SPDX-License-Identifier: BSD-3-Clause
// The message streams and the fatal endings.
//
// A text takes this way: NwOutputStream -> its gate (level, lock, exceptions) -> the target, standard error
// at first. The four streams, the standard error target and the lock stand in static storage that the first
// constructor of this module fills and nobody empties.
#include <cvutil/cvOutput.h>

#include <cxxabi.h>
#include <errno.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <new>

namespace {

// Long enough for every message of ours; a longer one goes through the heap.
const size_t kLocalTextBytes = 512;

// A standard error that takes nothing for so long loses the text: nobody reading is no reason to stop.
const long kStuckWriteMilliseconds = 1000;

// A process that was told to end is gone after this, whatever its last writes wait for.
const unsigned kEndingSeconds = 2;

class ErrnoKeeper {
public:
    ErrnoKeeper() : mySaved(errno) {}
    ~ErrnoKeeper() { errno = mySaved; }
    ErrnoKeeper(const ErrnoKeeper&) = delete;
    ErrnoKeeper& operator=(const ErrnoKeeper&) = delete;

    int value() const { return mySaved; }

private:
    const int mySaved;
};

// A message under construction. Without memory for a long one it keeps the beginning.
class MessageText {
public:
    MessageText() : myText(myLocal), myCapacity(sizeof myLocal), myLength(0) { myLocal[0] = '\0'; }
    ~MessageText() {
        if (myText != myLocal) free(myText);
    }
    MessageText(const MessageText&) = delete;
    MessageText& operator=(const MessageText&) = delete;

    void addFormatted(const char* format, va_list arguments) {
        va_list again;
        va_copy(again, arguments);
        const int needed = vsnprintf(myText + myLength, myCapacity - myLength, format, arguments);
        if (needed < 0) {
            add(format);  // a wide character without a byte form: the bare format still tells the place
        } else if (reserve(static_cast<size_t>(needed))) {
            vsnprintf(myText + myLength, myCapacity - myLength, format, again);
            myLength += static_cast<size_t>(needed);
        } else {
            myLength = myCapacity - 1;
        }
        va_end(again);
    }

    void add(const char* text) {
        size_t length = strlen(text);
        if (!reserve(length)) length = myCapacity - 1 - myLength;
        memcpy(myText + myLength, text, length);
        myLength += length;
        myText[myLength] = '\0';
    }

    const char* text() const { return myText; }
    size_t lengthBytes() const { return myLength; }

private:
    // Room for that much more and its NUL.
    bool reserve(size_t moreBytes) {
        if (moreBytes < myCapacity - myLength) return true;
        const size_t capacity = myLength + moreBytes + 1;
        char* grown = static_cast<char*>(malloc(capacity));
        if (!grown) return false;
        memcpy(grown, myText, myLength + 1);
        if (myText != myLocal) free(myText);
        myText = grown;
        myCapacity = capacity;
        return true;
    }

    char* myText;
    size_t myCapacity;
    size_t myLength;  // < myCapacity, and a NUL stands there
    char myLocal[kLocalTextBytes];
};

// --- the lock of all streams ---

// Recursive, so that a target may itself print. Initialised by the compiler, before any constructor.
pthread_mutex_t theStreamLock = PTHREAD_RECURSIVE_MUTEX_INITIALIZER_NP;

class StreamLock {
public:
    StreamLock() { pthread_mutex_lock(&theStreamLock); }
    ~StreamLock() { pthread_mutex_unlock(&theStreamLock); }
    StreamLock(const StreamLock&) = delete;
    StreamLock& operator=(const StreamLock&) = delete;
};

// A child has only the thread that forked: nobody else could give the lock back here.
void freeStreamLockInChild() {
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    pthread_mutex_init(&theStreamLock, &attributes);
    pthread_mutexattr_destroy(&attributes);
}

// --- standard error ---

// The kernel's buffer is full, the descriptor non-blocking: true once there is room, false if none comes.
bool waitForRoom(int fd) {
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (;;) {
        timespec now;
        clock_gettime(CLOCK_MONOTONIC, &now);
        const long waited = (now.tv_sec - start.tv_sec) * 1000 + (now.tv_nsec - start.tv_nsec) / 1000000;
        if (waited >= kStuckWriteMilliseconds) return false;
        pollfd descriptor = {fd, POLLOUT, 0};
        const int ready = poll(&descriptor, 1, static_cast<int>(kStuckWriteMilliseconds - waited));
        if (ready > 0) return true;
        if (ready < 0 && errno != EINTR) return false;
    }
}

// One write for the whole text, and more only if the system took less. What cannot be written is lost.
void writeWhole(int fd, const char* text, size_t length) {
    while (length > 0) {
        const ssize_t written = ::write(fd, text, length);
        if (written > 0) {
            text += written;
            length -= static_cast<size_t>(written);
        } else if (written < 0 && errno == EINTR) {
            continue;
        } else if (written < 0 && (errno == EAGAIN || errno == EWOULDBLOCK)) {
            if (!waitForRoom(fd)) return;
        } else {
            return;
        }
    }
}

class StandardErrorBuffer : public std::streambuf {
protected:
    int_type overflow(int_type c) override {
        if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
        const char text = traits_type::to_char_type(c);
        writeWhole(STDERR_FILENO, &text, 1);
        return c;
    }

    std::streamsize xsputn(const char* text, std::streamsize length) override {
        if (length > 0) writeWhole(STDERR_FILENO, text, static_cast<size_t>(length));
        return length;
    }
};

// --- static storage ---

// Room for an object whose construction we time ourselves and whose destructor never runs.
template <class T>
union Undying {
    constexpr Undying() : nothing(0) {}
    ~Undying() {}
    char nothing;
    T object;
};

Undying<StandardErrorBuffer> theStandardError;
Undying<NwOutputStream> theWarn;
Undying<NwOutputStream> theInfo;
Undying<NwOutputStream> theVerbose;
Undying<NwOutputStream> theDebug;

// 101 is the first priority an application may have, so this comes before every static constructor without
// one; in the shared library it runs before anything that is linked against it.
__attribute__((constructor(101))) void buildStreams() {
    new (&theStandardError.object) StandardErrorBuffer;
    new (&theWarn.object) NwOutputStream(NwOutputWarn);
    new (&theInfo.object) NwOutputStream(NwOutputInfo);
    new (&theVerbose.object) NwOutputStream(NwOutputVerbose);
    new (&theDebug.object) NwOutputStream(NwOutputDebug);
    pthread_atfork(nullptr, nullptr, freeStreamLockInChild);
}

}  // namespace

// Bound by the compiler too: these are valid addresses even before buildStreams.
NwOutputStream& NwWarn = theWarn.object;
NwOutputStream& NwInfo = theInfo.object;
NwOutputStream& NwVerbose = theVerbose.object;
NwOutputStream& NwDebug = theDebug.object;

int NwNetDebugOn = 0;

// --- level ---

std::atomic<int> NwOutputStream::ourLevel(NwOutputInfo);

void NwSetOutputLevel(int level) {
    NwOutputStream::ourLevel.store(level, std::memory_order_relaxed);
}

int NwGetOutputLevel() {
    return NwOutputStream::ourLevel.load(std::memory_order_relaxed);
}

// --- gate ---

namespace {

// Runs `action` on the target. A target that throws loses its text and nothing else. A thread that is
// cancelled inside it unwinds as if by an exception, one without a C++ type, and has to be let go on.
template <class Action>
void guarded(Action action) {
    try {
        action();
    } catch (...) {
        if (!abi::__cxa_current_exception_type()) throw;
    }
}

}  // namespace

NwOutputStream::Gate::Gate(const NwOutputStream& stream)
    : myStream(stream), myTarget(&theStandardError.object) {}

NwOutputStream::Gate::~Gate() {}

std::streambuf* NwOutputStream::Gate::target() const {
    StreamLock lock;
    return myTarget;
}

std::streambuf* NwOutputStream::Gate::setTarget(std::streambuf* target) {
    StreamLock lock;
    std::streambuf* former = myTarget;
    myTarget = target;
    return former;
}

void NwOutputStream::Gate::put(const char* text, std::streamsize length) {
    ErrnoKeeper keeper;
    StreamLock lock;
    if (myTarget) guarded([&] { myTarget->sputn(text, length); });
}

NwOutputStream::Gate::int_type NwOutputStream::Gate::overflow(int_type c) {
    if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
    const char text = traits_type::to_char_type(c);
    if (myStream.okToPrint()) put(&text, 1);
    return c;
}

std::streamsize NwOutputStream::Gate::xsputn(const char* text, std::streamsize length) {
    if (length > 0 && myStream.okToPrint()) put(text, length);
    return length;
}

int NwOutputStream::Gate::sync() {
    ErrnoKeeper keeper;
    StreamLock lock;
    if (myTarget) guarded([&] { myTarget->pubsync(); });
    return 0;
}

// --- stream ---

NwOutputStream::NwOutputStream(int level) : std::ostream(nullptr), myLevel(level), myGate(*this) {
    std::ostream::rdbuf(&myGate);
}

NwOutputStream::~NwOutputStream() {}

void NwOutputStream::operator()(const char* format, ...) {
    if (!okToPrint()) return;
    ErrnoKeeper keeper;
    MessageText message;
    va_list arguments;
    va_start(arguments, format);
    message.addFormatted(format, arguments);
    va_end(arguments);
    if (message.lengthBytes() > 0)
        myGate.put(message.text(), static_cast<std::streamsize>(message.lengthBytes()));
}

std::streambuf* NwOutputStream::rdbuf() const {
    return myGate.target();
}

std::streambuf* NwOutputStream::rdbuf(std::streambuf* target) {
    return myGate.setTarget(target);
}

struct NwOutputAccess {
    static void printAtAnyLevel(NwOutputStream& stream, const MessageText& message) {
        stream.myGate.put(message.text(), static_cast<std::streamsize>(message.lengthBytes()));
    }
};

// --- errors of the system ---

namespace {

// strerror_r comes in two shapes, told apart by their result: a text, or a status and the buffer.
[[maybe_unused]] const char* descriptionFrom(const char* text, const char*) {
    return text;
}
[[maybe_unused]] const char* descriptionFrom(int status, const char* buffer) {
    return status == 0 ? buffer : "Unknown error";
}

void addPerror(MessageText& message, const char* format, va_list arguments, int errorNumber) {
    message.addFormatted(format, arguments);
    char buffer[256];
    message.add(": ");
    message.add(descriptionFrom(strerror_r(errorNumber, buffer, sizeof buffer), buffer));
    message.add("\n");
}

void warnPerror(const char* format, va_list arguments, int errorNumber) {
    if (!NwWarn.okToPrint()) return;
    MessageText message;
    addPerror(message, format, arguments, errorNumber);
    NwOutputAccess::printAtAnyLevel(NwWarn, message);
}

}  // namespace

void NwWarnPerror(const char* format, ...) {
    ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    warnPerror(format, arguments, keeper.value());
    va_end(arguments);
}

void NwWarnNetPerror(const char* format, ...) {
    ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    warnPerror(format, arguments, keeper.value());
    va_end(arguments);
}

// --- the end ---

namespace {

typedef void (*Ending)();

void endWithStatus() {
    ::_exit(1);
}
void endByAbort() {
    ::abort();
}

std::atomic<NwFatalHandler> theFatalHandler(nullptr);

// Set while this thread ends the process: a target that fails fatally while flushed must not start over.
thread_local bool theEndIsNear = false;

std::atomic<Ending> theEnding(endWithStatus);

void onEndingAlarm(int) {
    theEnding.load(std::memory_order_relaxed)();
}

// From here on the process ends, even if this thread never comes back from its next write.
void boundTheEnd(Ending ending) {
    if (theEndIsNear) ending();
    theEndIsNear = true;
    theEnding.store(ending, std::memory_order_relaxed);

    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_handler = onEndingAlarm;
    sigemptyset(&action.sa_mask);
    sigaction(SIGALRM, &action, nullptr);
    sigset_t alarmOnly;
    sigemptyset(&alarmOnly);
    sigaddset(&alarmOnly, SIGALRM);
    pthread_sigmask(SIG_UNBLOCK, &alarmOnly, nullptr);
    alarm(kEndingSeconds);
}

// Standard output first, unless someone is inside it: fflush(nullptr) waits for every stream's lock, and
// another thread may hold one for as long as it reads.
void flushStdio() {
    if (ftrylockfile(stdout) == 0) {
        fflush_unlocked(stdout);
        funlockfile(stdout);
    }
    fflush(nullptr);
}

void flushEverything() {
    NwWarn.flush();
    NwInfo.flush();
    NwVerbose.flush();
    NwDebug.flush();
    flushStdio();
}

void endWith(const MessageText& message) {
    const NwFatalHandler handler = theFatalHandler.load(std::memory_order_acquire);
    if (handler) {
        handler(message.text());
        return;
    }
    boundTheEnd(endWithStatus);
    NwOutputAccess::printAtAnyLevel(NwWarn, message);
    flushEverything();
    endWithStatus();
}

}  // namespace

void NwFatalPerror(const char* format, ...) {
    ErrnoKeeper keeper;
    MessageText message;
    va_list arguments;
    va_start(arguments, format);
    addPerror(message, format, arguments, keeper.value());
    va_end(arguments);
    endWith(message);
}

void NwFatalError(const char* format, ...) {
    ErrnoKeeper keeper;
    MessageText message;
    va_list arguments;
    va_start(arguments, format);
    message.addFormatted(format, arguments);
    va_end(arguments);
    endWith(message);
}

void NwAbort() {
    boundTheEnd(endByAbort);
    flushEverything();
    endByAbort();
}

NwFatalHandler NwSetFatalHandler(NwFatalHandler handler) {
    return theFatalHandler.exchange(handler, std::memory_order_acq_rel);
}
