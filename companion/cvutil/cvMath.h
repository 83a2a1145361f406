// SPDX-License-Identifier: BSD-3-Clause
// The smaller and the larger of two values.
//
//     int count = NwMin(available, 32);
//
// Both arguments have one type, so that a signed and an unsigned value never meet by accident; name the type
// where they differ: NwMax<unsigned long>(a, b). The result is a copy: it never refers to a temporary. When
// the two are equal it is the first. Only operator< is asked for.
#ifndef CVUTIL_CVMATH_H
#define CVUTIL_CVMATH_H

template <class T>
constexpr T NwMin(const T& a, const T& b) {
    return b < a ? b : a;
}

template <class T>
constexpr T NwMax(const T& a, const T& b) {
    return a < b ? b : a;
}

#endif
