// SPDX-License-Identifier: BSD-3-Clause
// Whether this build runs under the thread sanitizer, which delays signals and watches mutexes by itself.
#ifndef CVUTIL_TESTS_SANITIZERS_H
#define CVUTIL_TESTS_SANITIZERS_H

#if defined(__SANITIZE_THREAD__)
const bool kUnderThreadSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
const bool kUnderThreadSanitizer = true;
#else
const bool kUnderThreadSanitizer = false;
#endif
#else
const bool kUnderThreadSanitizer = false;
#endif

#endif
