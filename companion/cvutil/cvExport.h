// SPDX-License-Identifier: BSD-3-Clause
// What of the companion library is visible to its users: everything else stays inside the shared object.
#ifndef CVUTIL_CVEXPORT_H
#define CVUTIL_CVEXPORT_H

// Marks a class, function or variable as part of the library's binary interface. The library is compiled with
// hidden visibility, and its version script (cvutil.map) lets nothing through whose name does not begin with
// Nw. The second takes a member of such a class out again: a private helper is nobody's but the library's.
#if defined(__GNUC__)
#define NWUTIL_API __attribute__((visibility("default")))
#define NWUTIL_LOCAL __attribute__((visibility("hidden")))
#else
#define NWUTIL_API
#define NWUTIL_LOCAL
#endif

// Lets the compiler check printf-style arguments against their format. Positions count from 1, and `this` is
// the first.
#if defined(__GNUC__)
#define NWUTIL_PRINTF(formatPosition, firstArgument) \
    __attribute__((format(printf, formatPosition, firstArgument)))
#else
#define NWUTIL_PRINTF(formatPosition, firstArgument)
#endif

#endif
