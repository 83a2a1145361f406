// SPDX-License-Identifier: BSD-3-Clause
// Finding the packet server of a port, and the Unix datagram sockets over which it is spoken to.
//
//     if (NwPacketServerIsAlive(3000) == 1) {
//         char path[NwPacketServerPathSize];
//         NwPacketServerRequestPath(3000, path, NwPacketServerVersion);
//         int requestFd = NwOpenUnixDgram(path, NwUnixDgramConnect, "myprogram");
//     }
//
// A server listens at
//
//     <directory>/<port>.v<version>.<ipc namespace>.<network namespace>
//
// where the namespaces are inode numbers (as `ls -L -i /proc/self/ns` shows them), so that containers that
// share a directory do not meet by mistake: a server is only of use to who shares both namespaces with it.
// The directory is
//
//   - what NwSetPacketServerDirectory() has set, and nothing else then; or
//   - /run/cvpacketserver, where a service of the whole host listens, if somebody listens there; or
//   - /tmp/cvpacketserver-<effective user id>, for servers that a user starts. It counts only while it is a
//     directory (no link) of that user which nobody else may enter: mode 0700.
//
// Threads. Any thread may call anything here. No message is printed but those of NwOpenUnixDgram().
#ifndef CVUTIL_CVPACKETSERVER_H
#define CVUTIL_CVPACKETSERVER_H

#include <cvutil/cvExport.h>

// The version of the messages that this library speaks, the one before it, whose servers are recognised but
// not spoken to by default, and what is enough for any path here, end included: what the system's address of
// a Unix socket holds.
enum { NwPacketServerVersion = 3, NwPacketServerOldVersion = 2, NwPacketServerPathSize = 108 };

// 1: a server of the present version listens for this port (a connect to it succeeds). -1: only one of the
// version before does. 0: none does; a path that a killed server left is none, and neither is a port outside
// 0 to 65535. errno is left as it was.
NWUTIL_API int NwPacketServerIsAlive(int port);

// Writes the path of the server for a port and message version to `path`, NwPacketServerPathSize bytes, and
// returns `path`. A system-wide server that does not let this user attach is the server, unless the user has
// one of the own: who asks learns of it (EACCES), though NwPacketServerIsAlive() says 0. It always fits.
// Nobody need be listening there.
NWUTIL_API char* NwPacketServerRequestPath(unsigned int port, char* path, int version);

// The same in a directory of the caller's choice: where a server is going to listen. Null, `path` untouched,
// if the directory is null, empty or too long.
NWUTIL_API char* NwPacketServerPathIn(const char* directory, unsigned int port, char* path, int version);

// Where this process, and it alone, looks for servers: for tests and tools. Null or "" brings the directories
// above back. False, and nothing is changed, for a name with which some path would not fit.
NWUTIL_API bool NwSetPacketServerDirectory(const char* directory);

// The directory for servers of the user who runs this process, /tmp/cvpacketserver-<user id>, to `directory`
// (NwPacketServerPathSize bytes). It is made, mode 0700, if it is not there. False with errno set if it
// cannot be made or is not this user's own: EPERM then.
NWUTIL_API bool NwPacketServerOwnDirectory(char* directory);

// What NwOpenUnixDgram() does. The numbers are part of the interface.
enum { NwUnixDgramBind = 0, NwUnixDgramConnect = 1 };

// Opens a Unix datagram socket that a program started later does not inherit. Returns its descriptor (any
// number from 0 on), which the caller closes, or -1 with errno set, and then "<name>: cannot ... <path>: <the
// system's words>" has been printed on NwWarn (nothing if `name` is null).
//
// NwUnixDgramBind: the socket can be reached at `path`. Whatever is there (the empty file of mkstemp, what a
// killed process left) is replaced in one step: the socket is born under a name of its own beside it and
// renamed, so that there is never a moment without a file of this user at `path` and nobody can get in
// between. Any user may send to it (a server may run as another one), so what arrives has to be looked at.
// The file stays until somebody removes it.
//
// NwUnixDgramConnect: what is sent goes to `path`. While the receiver has no room a send waits, for 5 s at
// most, and then fails with EAGAIN. Nobody listening is an error (ECONNREFUSED), as is no such path (ENOENT).
//
// A null or empty path, and an action that is neither, is EINVAL; a path of NwPacketServerPathSize bytes or
// more is ENAMETOOLONG (in binding, a last component of less than 9 bytes counts as 9).
NWUTIL_API int NwOpenUnixDgram(const char* path, int action, const char* name);

#endif
