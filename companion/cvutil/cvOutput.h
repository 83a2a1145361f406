// SPDX-License-Identifier: BSD-3-Clause
// Messages to the people who run a program: four streams, errors with the system's words, fatal endings.
//
//     NwWarn("port %d is taken\n", port);             // printf style, handed over as one write
//     NwInfo << "listening on " << port << std::endl;  // or like any std::ostream
//     if (::bind(fd, addr, length) < 0)
//         NwWarnPerror("bind to port %d", port);      // "bind to port 3000: Address already in use\n"
//     NwSetOutputLevel(NwOutputDebug);                // show everything from now on
//
// All four streams write to standard error, without a buffer: a text is on its way when the call returns.
// They exist before the first static constructor of a program and are never destroyed, so that constructors,
// destructors and threads of any kind may print at any time.
//
// Threads. Any thread may print at any time; one lock, held during each write, keeps writes whole. A
// printf-style message is one write, so lines of several threads do not mix, nor those of several processes
// where the system keeps writes apart (a pipe up to 4096 bytes, a file opened for appending, a terminal).
// Insertion writes piece by piece, as with std::cerr: to keep a line whole, put it together in a local
// std::ostringstream and insert its text. No call changes errno.
#ifndef CVUTIL_CVOUTPUT_H
#define CVUTIL_CVOUTPUT_H

#include <atomic>
#include <ostream>
#include <streambuf>

#include <cvutil/cvExport.h>

// How much is printed: every stream whose own level is not above the process-wide one. The values may be
// compared and are part of the binary interface.
enum NwOutputLevel : int {
    NwOutputWarn = 0,     // NwWarn
    NwOutputInfo = 1,     // and NwInfo: the level at the start
    NwOutputVerbose = 2,  // and NwVerbose
    NwOutputDebug = 3     // and NwDebug
};

// Sets and tells the process-wide level. Any int will do: below NwOutputWarn nothing is printed but what ends
// the process. Any thread may call; another thread's message under way at that moment may still follow the
// old level.
NWUTIL_API void NwSetOutputLevel(int level);
NWUTIL_API int NwGetOutputLevel();

// A stream of messages that is silent while its level is above the process-wide one. A text that cannot be
// written is lost and nothing else happens: the stream never goes bad, and no exception comes out of it.
class NWUTIL_API NwOutputStream : public std::ostream {
public:
    // A further stream of an application's own, on standard error and with the level given.
    explicit NwOutputStream(int level);
    ~NwOutputStream();

    NwOutputStream(const NwOutputStream&) = delete;
    NwOutputStream& operator=(const NwOutputStream&) = delete;

    // Prints a message of any length, printf style, as one write. Nothing is formatted while the stream is
    // silent.
    void operator()(const char* format, ...) NWUTIL_PRINTF(2, 3);

    // True if what is printed now is shown. A message by insertion is put together even while the stream is
    // silent, and then dropped: on busy paths ask first. Costs two loads and a comparison.
    bool okToPrint() const { return myLevel <= ourLevel.load(std::memory_order_relaxed); }

    // Where the stream writes: standard error, or what an application hands in (null: nowhere). Returns the
    // former, so that it can be put back. The buffer stays the caller's and must live until another is in its
    // place; when this returns, no thread is inside the former. It is called under the lock of all streams,
    // so one buffer may serve several of them and needs no lock of its own; it gets a printf-style message as
    // one sputn(), and pubsync() at each std::flush or std::endl. To be called on the stream itself: through
    // a plain std::ostream& it would lose level and lock.
    std::streambuf* rdbuf() const;
    std::streambuf* rdbuf(std::streambuf* target);

private:
    friend NWUTIL_API void NwSetOutputLevel(int level);
    friend NWUTIL_API int NwGetOutputLevel();
    friend struct NwOutputAccess;

    // What std::ostream writes into: passes on to the target under the lock, if the level allows.
    class NWUTIL_API Gate : public std::streambuf {
    public:
        explicit Gate(const NwOutputStream& stream);
        ~Gate() override;

        std::streambuf* target() const;
        std::streambuf* setTarget(std::streambuf* target);
        void put(const char* text, std::streamsize length);  // whatever the level

    protected:
        int_type overflow(int_type c) override;
        std::streamsize xsputn(const char* text, std::streamsize length) override;
        int sync() override;

    private:
        const NwOutputStream& myStream;
        std::streambuf* myTarget;  // guarded by the lock of all streams
    };

    static std::atomic<int> ourLevel;

    const int myLevel;
    Gate myGate;
};

// Problems; what a user wants to know; details on request; a developer's trace.
extern NWUTIL_API NwOutputStream& NwWarn;
extern NWUTIL_API NwOutputStream& NwInfo;
extern NWUTIL_API NwOutputStream& NwVerbose;
extern NWUTIL_API NwOutputStream& NwDebug;

// Prints the text, ": ", the system's description of errno and an end of line on NwWarn, as one write. errno
// is read before anything else happens and is the same afterwards. The second is for network calls; the two
// print alike.
NWUTIL_API void NwWarnPerror(const char* format, ...) NWUTIL_PRINTF(1, 2);
NWUTIL_API void NwWarnNetPerror(const char* format, ...) NWUTIL_PRINTF(1, 2);

// The end. The first prints what NwWarnPerror prints, the second its text as given (an end of line is the
// caller's), both on NwWarn and at any level; then the four streams and stdio are flushed and the process
// ends with exit status 1. NwAbort prints nothing, flushes likewise and ends by abort(). Static destructors
// and atexit functions do not run: other threads may still be at work with what those would tear down. So
// these may be called from any thread and from destructors. If writing or flushing has not ended after 2 s (a
// thread reads from a stdio stream, a pipe that nobody empties), the process ends without the rest; SIGALRM
// serves for that and is lost to the process at this point.
//
// They may return: see NwSetFatalHandler. Code behind a call has to be safe then.
NWUTIL_API void NwFatalPerror(const char* format, ...) NWUTIL_PRINTF(1, 2);
NWUTIL_API void NwFatalError(const char* format, ...) NWUTIL_PRINTF(1, 2);
NWUTIL_API void NwAbort();

// Takes the place of printing and ending in NwFatalPerror and NwFatalError. It gets the finished message (end
// of line included where there is one; lent for the call), runs on the thread that failed, without any lock
// held, and may end the process in its own way. If it returns, the fatal function returns to its caller, with
// errno as it was. An exception must not leave it: it would pass through code that expects none.
typedef void (*NwFatalHandler)(const char* message);

// Sets the handler for the whole process; null brings the ending above back. Returns the former, null at
// first. Any thread may call.
NWUTIL_API NwFatalHandler NwSetFatalHandler(NwFatalHandler handler);

// A switch for an application's own network traces, 0 at the start. It is the application's to set before
// threads start.
extern NWUTIL_API int NwNetDebugOn;

#endif
