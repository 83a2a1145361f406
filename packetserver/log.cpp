// SPDX-License-Identifier: BSD-3-Clause
#include "log.h"

#include <fcntl.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include <nlohmann/json.hpp>

namespace packetserver {

Log::Log(bool isJson, std::string file) : isJson_(isJson), file_(std::move(file)) {}

Log::~Log() {
    if (fileFd_ >= 0) ::close(fileFd_);
}

bool Log::open() {
    if (file_.empty()) return true;
    const int opened = ::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
    if (opened < 0) return false;
    if (fileFd_ >= 0) ::close(fileFd_);
    fileFd_ = opened;
    return true;
}

void Log::event(const nlohmann::json& fields, const std::string& words) {
    const int standard = isJson_ ? STDOUT_FILENO : STDERR_FILENO;
    const std::string line = isJson_ ? fields.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace)
                                     : "cvpacketserver: " + words;
    write(fileFd_ >= 0 ? fileFd_ : standard, line + '\n');
}

// A line that cannot be written now is lost: the server has better to do than to wait or to end for it. (A
// pipe that takes anything takes a line: it is shorter than PIPE_BUF.)
void Log::write(int fd, const std::string& line) {
    std::size_t done = 0;
    while (done < line.size()) {
        pollfd room{fd, POLLOUT, 0};
        if (::poll(&room, 1, 0) == 0) return;
        const ssize_t written = ::write(fd, line.data() + done, line.size() - done);
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;
        done += static_cast<std::size_t>(written);
    }
}

}  // namespace packetserver
