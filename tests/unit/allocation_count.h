// SPDX-License-Identifier: BSD-3-Clause
// Counts every allocation of the process, on all threads, the libraries' included.
#ifndef CVNC_TESTS_ALLOCATION_COUNT_H
#define CVNC_TESTS_ALLOCATION_COUNT_H

#include <functional>

bool allocationsAreCounted();

long allocationsIn(const std::function<void()>& work);
// How many `work` makes once it has run before.
long allocationsOnceWarm(const std::function<void()>& work);

#endif
