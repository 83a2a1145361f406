// SPDX-License-Identifier: BSD-3-Clause
// What the shared library shows to its users; everything unmarked stays hidden.
#ifndef CVNETWORKCOMPATIBILITY_CVEXPORT_H
#define CVNETWORKCOMPATIBILITY_CVEXPORT_H

#define CVNC_API __attribute__((visibility("default")))

// On a private operation of such a class: nobody outside can call it, so it is no part of the binary
// interface and may come, go and change.
#define CVNC_LOCAL __attribute__((visibility("hidden")))

#endif
