// SPDX-License-Identifier: BSD-3-Clause
// All public headers at once must leave the system's network headers to those who want them. (check.sh writes
// all_headers.h.)
#include "all_headers.h"

#if defined(AF_INET) || defined(SOCK_DGRAM) || defined(INADDR_ANY) || defined(IFNAMSIZ) || \
    defined(SIOCGIFCONF) || defined(O_NONBLOCK)
#error "a public header includes a network or descriptor header of the system"
#endif

struct sockaddr_in;
struct ifreq;
struct ifconf;

// Whether a type is defined here, and not just declared.
template <class T, unsigned long = sizeof(T)>
constexpr bool isDefined(int) {
    return true;
}
template <class T>
constexpr bool isDefined(long) {
    return false;
}

struct Known {};
static_assert(isDefined<Known>(0), "the question works");
static_assert(!isDefined<sockaddr_in>(0), "a public header defines sockaddr_in");
static_assert(!isDefined<ifreq>(0), "a public header defines ifreq");
static_assert(!isDefined<ifconf>(0), "a public header defines ifconf");
