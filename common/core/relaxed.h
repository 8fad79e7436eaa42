// Plain fields of public records that several threads touch without a lock: flags, counters, the stop marks.  Their
// declared types stay plain for C callers; the library reads and writes them through these, so that an access is never
// torn and never a race, and nothing is ordered by it.
#pragma once

namespace cm {

template <class T>
inline T load_relaxed(const T &field) {
    return __atomic_load_n(&field, __ATOMIC_RELAXED);
}

template <class T>
inline void store_relaxed(T &field, T value) {
    __atomic_store_n(&field, value, __ATOMIC_RELAXED);
}

template <class T>
inline T add_relaxed(T &field, T amount) {  // gives the new value
    return __atomic_add_fetch(&field, amount, __ATOMIC_RELAXED);
}

template <class T>
inline void set_bits_relaxed(T &field, T bits) {
    __atomic_fetch_or(&field, bits, __ATOMIC_RELAXED);
}

template <class T>
inline void clear_bits_relaxed(T &field, T bits) {
    __atomic_fetch_and(&field, static_cast<T>(~bits), __ATOMIC_RELAXED);
}

}  // namespace cm
