// SPDX-License-Identifier: BSD-3-Clause
// Keeps the library's latest warnings for the tool's own error lines and drops its other messages.
#include "library.h"

#include <unistd.h>
#include <deque>
#include <streambuf>
#include <string_view>

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvOutput.h>

#include "failure.h"
#include "output.h"
#include "text.h"

namespace cvnet {
namespace {

constexpr std::size_t kMaxWarnings = 16;

// Holds the latest warnings; the empty lines behind some of them do not count. The streams call it under
// their lock; the tool has one thread.
class LatestWarnings : public std::streambuf {
public:
    std::vector<std::string> take() {
        std::vector<std::string> lines;
        lines.reserve(warnings_.size());
        for (const std::string& warning : warnings_) lines.push_back(oneLine(warning));
        warnings_.clear();
        return lines;
    }

protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        const std::string_view message(text, static_cast<std::size_t>(length));  // it comes as one piece
        if (message == "\n") return length;
        if (warnings_.size() == kMaxWarnings) warnings_.pop_front();
        warnings_.emplace_back(message);
        return length;
    }
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }

private:
    std::deque<std::string> warnings_;
};

LatestWarnings& latestWarnings() {
    static LatestWarnings& buffer =
        *new LatestWarnings;  // outlives every static: the streams may still use it
    return buffer;
}

// An open process with a broken library inside has nothing left to do.
void onFatal(const char* message) {
    errorLine(oneLine(message));
    ::_exit(kExitFailed);
}

}  // namespace

void prepareLibrary() {
    NwWarn.rdbuf(&latestWarnings());
    NwInfo.rdbuf(nullptr);
    NwVerbose.rdbuf(nullptr);
    NwDebug.rdbuf(nullptr);
    NwSetFatalHandler(onFatal);
    NwNetSocket::initErrorAction = 1;
    NwSetMaxPacketSize(kMaxPayload);
}

std::string takeLibraryWarning() {
    const std::vector<std::string> warnings = takeLibraryWarnings();
    return warnings.empty() ? "" : warnings.back();
}

std::vector<std::string> takeLibraryWarnings() {
    return latestWarnings().take();
}

std::string takeLibraryReason(const std::string& otherwise) {
    const std::string warning = takeLibraryWarning();
    return warning.empty() ? otherwise : reasonIn(warning);
}

std::string reasonIn(const std::string& warning) {
    const std::size_t separator = warning.rfind(": ");
    return separator == std::string::npos ? warning : warning.substr(separator + 2);
}

}  // namespace cvnet
