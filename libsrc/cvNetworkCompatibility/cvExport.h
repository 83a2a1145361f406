// SPDX-License-Identifier: BSD-3-Clause
// What the shared library shows to its users; everything unmarked stays hidden.
#ifndef CVNETWORKCOMPATIBILITY_CVEXPORT_H
#define CVNETWORKCOMPATIBILITY_CVEXPORT_H

#define CVNC_API __attribute__((visibility("default")))

#endif
