// SPDX-License-Identifier: BSD-3-Clause
// Not installed. Process-wide settings are plain variables that an application assigns, while a worker
// thread may read them: the library reads and writes them through these two.
#ifndef CVNETWORKCOMPATIBILITY_CVSETTING_H
#define CVNETWORKCOMPATIBILITY_CVSETTING_H

template <class T>
inline T nwSetting(const T& setting) {
    T value;
    __atomic_load(&setting, &value, __ATOMIC_RELAXED);
    return value;
}

template <class T>
inline void nwChangeSetting(T& setting, T value) {
    __atomic_store(&setting, &value, __ATOMIC_RELAXED);
}

#endif
