// SPDX-License-Identifier: BSD-3-Clause
// What the system says about this process.
#ifndef CVNC_TESTS_PROCESS_H
#define CVNC_TESTS_PROCESS_H

#include <cstddef>

// The memory that it really holds now, in bytes.
std::size_t residentBytes();
// Its open descriptors.
int openDescriptors();

#endif
