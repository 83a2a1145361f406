// SPDX-License-Identifier: BSD-3-Clause
// A file descriptor with one owner.
#ifndef CVNET_DESCRIPTOR_H
#define CVNET_DESCRIPTOR_H

#include <unistd.h>

namespace cvnet {

class Descriptor {
public:
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() {
        if (fd_ >= 0) ::close(fd_);
    }
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }

private:
    int fd_;
};

}  // namespace cvnet

#endif
