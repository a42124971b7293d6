// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Time stamps that one thread writes while another may print them.
 */
#pragma once

#include <corvane/platform/Clock.h>

namespace NSVista::NSCorvane {

/** Stores the log clock's time, word by word: a reader sees no torn word. */
inline void stampLogTime(struct timespec& stamp) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);  // as getCurrentLogTime(), three times a request
    __atomic_store_n(&stamp.tv_sec, now.tv_sec, __ATOMIC_RELAXED);
    __atomic_store_n(&stamp.tv_nsec, now.tv_nsec, __ATOMIC_RELAXED);
}

/** Reads a stamp that stampLogTime() may be writing. */
inline struct timespec loadStamp(const struct timespec& stamp) {
    struct timespec copy = {};
    copy.tv_sec = __atomic_load_n(&stamp.tv_sec, __ATOMIC_RELAXED);
    copy.tv_nsec = __atomic_load_n(&stamp.tv_nsec, __ATOMIC_RELAXED);
    return copy;
}

}  // namespace NSVista::NSCorvane
