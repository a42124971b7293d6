// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The clocks that the project reads. All functions: any thread.
 */
#pragma once

#include <time.h>

#include <cstddef>
#include <cstdint>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane {

/** @return a time in nanoseconds; a timespec of any size of time_t. */
inline int64_t timeInNs(const struct timespec& time) {
    return int64_t{time.tv_sec} * 1000000000 + time.tv_nsec;
}

/** @return a - b in nanoseconds. */
inline int64_t timeDiffInNs(const struct timespec& a, const struct timespec& b) {
    return (int64_t{a.tv_sec} - b.tv_sec) * 1000000000 + (a.tv_nsec - b.tv_nsec);
}

/** @return a clock of clock_gettime(2) in nanoseconds. */
inline int64_t clockInNs(clockid_t clock) {
    struct timespec now {};
    clock_gettime(clock, &now);
    return timeInNs(now);
}

/** @return CLOCK_MONOTONIC, as the kernel stamps buffers with it. */
inline int64_t monotonicInNs() {
    return clockInNs(CLOCK_MONOTONIC);
}

/** @return the processor time of the calling thread. */
inline int64_t threadCpuInNs() {
    return clockInNs(CLOCK_THREAD_CPUTIME_ID);
}

/** Reads the log clock (CLOCK_REALTIME, as the log lines carry it). */
CORVANE_EXPORT void getCurrentLogTime(struct timespec& now);

/** Characters of a log time, the zero at its end included. */
inline constexpr size_t kLogTimeSize = sizeof("MM-DD hh:mm:ss.uuuuuu");

/**
 * A log time as "MM-DD hh:mm:ss.uuuuuu" in local time; "-" for the zero time. Allocates nothing.
 * @return the text's length.
 */
CORVANE_EXPORT size_t formatLogTime(const struct timespec& time, char (&text)[kLogTimeSize]);

/** The same as a string. */
CORVANE_EXPORT std::string convertToFormattedLogTime(const struct timespec& time);

}  // namespace NSVista::NSCorvane
