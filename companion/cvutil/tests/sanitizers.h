// SPDX-License-Identifier: BSD-3-Clause
// Whether this build runs under a sanitizer. The thread sanitizer delays signals and watches mutexes by
// itself; it and the address sanitizer bring an operator new of their own.
#ifndef CVUTIL_TESTS_SANITIZERS_H
#define CVUTIL_TESTS_SANITIZERS_H

#if defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define CVUTIL_UNDER_TSAN 1
#endif
#if __has_feature(address_sanitizer)
#define CVUTIL_UNDER_ASAN 1
#endif
#endif
#if defined(__SANITIZE_THREAD__)
#define CVUTIL_UNDER_TSAN 1
#endif
#if defined(__SANITIZE_ADDRESS__)
#define CVUTIL_UNDER_ASAN 1
#endif

#if defined(CVUTIL_UNDER_TSAN) || defined(CVUTIL_UNDER_ASAN)
#define CVUTIL_OWN_OPERATOR_NEW 0
#else
#define CVUTIL_OWN_OPERATOR_NEW 1
#endif

#ifdef CVUTIL_UNDER_TSAN
const bool kUnderThreadSanitizer = true;
#else
const bool kUnderThreadSanitizer = false;
#endif

#endif
