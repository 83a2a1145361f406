// SPDX-License-Identifier: BSD-3-Clause
// Buffered lines on standard output, single lines on standard error.
#include "output.h"

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>
#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>

#include <fmt/format.h>

#include "failure.h"
#include "stop_signal.h"
#include "text.h"

namespace cvnet {
namespace {

// Large enough that a flood costs few system calls, small enough to be nothing.
constexpr std::size_t kWriteSize = 32768;

// A pipe that can be written takes this much without waiting.
constexpr std::size_t kWriteSizeWithoutWaiting = PIPE_BUF;
constexpr std::size_t kMaxPending = 1000000;

constexpr std::size_t kFallbackRows = 24;
constexpr std::size_t kFallbackColumns = 80;

std::string& errorPrefix() {
    static std::string prefix = "cvnet";
    return prefix;
}

bool coloursWanted() {
    const char* noColour = std::getenv("NO_COLOR");  // NOLINT(concurrency-mt-unsafe): one thread
    const char* term = std::getenv("TERM");          // NOLINT(concurrency-mt-unsafe): one thread
    return (noColour == nullptr || *noColour == '\0') && term != nullptr && std::string_view(term) != "dumb";
}

struct Window {
    std::size_t rows = kFallbackRows;
    std::size_t columns = kFallbackColumns;
};

Window window() {
    winsize size{};
    Window result;
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_row > 1 && size.ws_col > 1) {
        result.rows = size.ws_row;
        result.columns = size.ws_col;
    }
    return result;
}

bool takesMore() {
    pollfd output = {STDOUT_FILENO, POLLOUT, 0};
    return ::poll(&output, 1, 0) == 1;
}

}  // namespace

Output::Output() : terminal_(::isatty(STDOUT_FILENO) == 1), colours_(terminal_ && coloursWanted()) {}

void Output::lookForReader() {
    pollfd output = {STDOUT_FILENO, 0, 0};
    if (::poll(&output, 1, 0) == 1 && (output.revents & (POLLERR | POLLHUP)) != 0) closed_ = true;
}

void Output::line(std::string_view text) {
    if (!waits_ && pending_.size() + text.size() > kMaxPending) {
        ++droppedLines_;
        return;
    }
    pending_ += text;
    pending_ += '\n';
    if (pending_.size() >= kWriteSize) flush();
}

void Output::draw(std::string_view lines) {
    erase();
    const Window space = window();
    while (!lines.empty() && drawnLines_ + 1 < space.rows) {
        const std::size_t end = lines.find('\n');
        line(lines.substr(0, end).substr(0, space.columns - 1));
        ++drawnLines_;
        lines.remove_prefix(end == std::string_view::npos ? lines.size() : end + 1);
    }
    flush();
}

void Output::erase() {
    if (drawnLines_ != 0) pending_ += fmt::format("\r\x1b[{}A\x1b[J", drawnLines_);
    drawnLines_ = 0;
}

void Output::flush() {
    if (pending_.empty()) return;
    const std::size_t left = write(pending_).size();
    pending_.erase(0, pending_.size() - left);
}

// Returns what it did not write, which is nothing unless there was no room and waits_ is false.
std::string_view Output::write(std::string_view text) {
    while (!text.empty() && !closed_) {
        if (!waits_ && !takesMore()) return text;
        const std::size_t size = waits_ ? text.size() : std::min(text.size(), kWriteSizeWithoutWaiting);
        const ssize_t written = ::write(STDOUT_FILENO, text.data(), size);
        const int error = errno;
        if (written >= 0) {
            text.remove_prefix(static_cast<std::size_t>(written));
        } else if (error == EPIPE) {
            closed_ = true;
        } else if (error == EINTR) {
            // A reader that has stopped reading must not keep Ctrl-C from working.
            if (StopSignal::raised()) closed_ = true;
        } else {
            closed_ = true;
            throw Failure("cannot write to standard output: " + errorText(error));
        }
    }
    return {};
}

std::string Output::styled(int sgr, std::string_view text) const {
    return colours_ ? fmt::format("\x1b[{}m{}\x1b[0m", sgr, text) : std::string(text);
}

bool errorIsTerminal() {
    return ::isatty(STDERR_FILENO) == 1;
}

void errorLine(std::string_view text) {
    const std::string line = fmt::format("{}: {}\n", errorPrefix(), text);
    // One write keeps the line whole; when standard error itself is gone there is no one left to tell.
    if (::write(STDERR_FILENO, line.data(), line.size()) < 0) return;
}

void warningLine(std::string_view text) {
    errorLine(fmt::format("warning: {}", text));
}

void setErrorPrefix(std::string_view prefix) {
    errorPrefix() = prefix;
}

}  // namespace cvnet
