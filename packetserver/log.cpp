// SPDX-License-Identifier: BSD-3-Clause
#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <fmt/format.h>
#include <nlohmann/json.hpp>

namespace packetserver {

Log::Log(bool isJson, std::string file) : isJson_(isJson), file_(std::move(file)) {}

Log::~Log() {
    if (fileFd_ >= 0) ::close(fileFd_);
}

bool Log::open() {
    if (file_.empty()) return true;
    const int opened =
        ::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0644);
    if (opened < 0) return false;
    if (fileFd_ >= 0) ::close(fileFd_);
    fileFd_ = opened;
    return true;
}

void Log::event(const nlohmann::json& fields, const std::string& words) {
    if (lost_ > 0) {
        const std::uint64_t lost = std::exchange(lost_, 0);
        put({{"event", "lines lost"}, {"lines", lost}}, fmt::format("{} lines lost here", lost));
        if (lost_ > 0) lost_ = lost;  // the same ones still
    }
    put(fields, words);
}

void Log::put(const nlohmann::json& fields, const std::string& words) {
    const std::string line = isJson_ ? fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                                     : "cvpacketserver: " + words;
    if (!write((line + '\n').data(), line.size() + 1)) ++lost_;
}

void Log::outOfMemory() {
    static const char asJson[] = "{\"event\":\"out of memory\"}\n";
    static const char asText[] = "cvpacketserver: out of memory: something was left undone\n";
    if (isJson_)
        write(asJson, sizeof asJson - 1);
    else
        write(asText, sizeof asText - 1);
}

// The server has better to do than to wait or to end for a line. (A pipe that takes anything takes a line: it
// is shorter than PIPE_BUF.)
bool Log::write(const char* line, std::size_t length) const {
    const int fd = fileFd_ >= 0 ? fileFd_ : isJson_ ? STDOUT_FILENO : STDERR_FILENO;
    std::size_t done = 0;
    while (done < length) {
        pollfd room{fd, POLLOUT, 0};
        if (::poll(&room, 1, 0) == 0) break;
        const ssize_t written = ::write(fd, line + done, length - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) break;
        done += static_cast<std::size_t>(written);
    }
    if (done < length) takeBack(done);
    return done == length;
}

// The log's own file holds whole lines, also when its disk is full.
void Log::takeBack(std::size_t bytes) const {
    struct stat status {};
    if (bytes == 0 || fileFd_ < 0 || ::fstat(fileFd_, &status) != 0 || !S_ISREG(status.st_mode)) return;
    [[maybe_unused]] const int result = ::ftruncate(fileFd_, status.st_size - static_cast<off_t>(bytes));
}

}  // namespace packetserver
