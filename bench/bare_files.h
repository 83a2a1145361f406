// SPDX-License-Identifier: BSD-3-Clause
// Files over TCP by hand, in three ways. Each sender has its receiver; the first two use messages of the
// transporter's layout and size. Blocking sockets; what fails ends the program.
#ifndef BENCH_BARE_FILES_H
#define BENCH_BARE_FILES_H

#include <string>

// A connection to a port of 127.0.0.1 that waits, and sends without delay, as the library's sockets do.
int bareConnect(int port);

// The transporter's shape: the whole file is read, then sent in messages; it is collected in memory, each
// message through a buffer, and written when it is complete.
void bareSendWhole(const std::string& path, int fd);
void bareReceiveWhole(int fd, const std::string& path);

// The same messages, but each is read just before it is sent, and written as it comes.
void bareSendStreamed(const std::string& path, int fd);
void bareReceiveStreamed(int fd, const std::string& path);

// No messages, and no copy through the program: as fast as the kernel does it. (The other end splices through
// a pipe.)
void bareSendFile(const std::string& path, int fd);
void bareSplice(int fd, const std::string& path);

#endif
