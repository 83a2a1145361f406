// SPDX-License-Identifier: BSD-3-Clause
// Keeps the library's last warning for the tool's own error lines and drops its other messages.
#include "library.h"

#include <unistd.h>
#include <streambuf>
#include <string_view>

#include <cvNetworkCompatibility/cvNetSocket.h>
#include <cvutil/cvOutput.h>

#include "failure.h"
#include "output.h"
#include "text.h"

namespace cvnet {
namespace {

// Holds the last warning; the empty lines behind some of them do not count. The streams call it under their
// lock; the tool has one thread.
class LastWarning : public std::streambuf {
public:
    std::string take() {
        std::string text;
        text.swap(text_);
        return oneLine(text);
    }

protected:
    std::streamsize xsputn(const char* text, std::streamsize length) override {
        const std::string_view message(text, static_cast<std::size_t>(length));  // it comes as one piece
        if (message != "\n") text_ = message;
        return length;
    }
    int_type overflow(int_type c) override { return traits_type::not_eof(c); }

private:
    std::string text_;
};

LastWarning& lastWarning() {
    static LastWarning& buffer = *new LastWarning;  // outlives every static: the streams may still use it
    return buffer;
}

// An open process with a broken library inside has nothing left to do.
void onFatal(const char* message) {
    errorLine(oneLine(message));
    ::_exit(kExitFailed);
}

}  // namespace

void prepareLibrary() {
    NwWarn.rdbuf(&lastWarning());
    NwInfo.rdbuf(nullptr);
    NwVerbose.rdbuf(nullptr);
    NwDebug.rdbuf(nullptr);
    NwSetFatalHandler(onFatal);
    NwNetSocket::initErrorAction = 1;
    NwSetMaxPacketSize(kMaxPayload);
}

std::string takeLibraryWarning() {
    return lastWarning().take();
}

std::string takeLibraryReason(const std::string& otherwise) {
    const std::string warning = takeLibraryWarning();
    if (warning.empty()) return otherwise;
    const std::size_t separator = warning.rfind(": ");
    return separator == std::string::npos ? warning : warning.substr(separator + 2);
}

}  // namespace cvnet
