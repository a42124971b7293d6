// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Time stamps of a record: cheap ones where they are taken, CLOCK_MONOTONIC in the file.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/Clock.h>

namespace NSVista::NSCorvane::record {

/** @private Whether stamps are the processor's ticks. Set once, before the first one is taken. */
extern constinit bool gStampsAreTicks;

/** Decides what stamps are: ticks where the kernel itself takes them for its clock. */
void chooseStamps() noexcept;

/** What the kernel calls a clock that is made of ticks(); empty where the processor has none. */
#if defined(__x86_64__)
inline constexpr char kTicksClock[] = "tsc\n";
inline int64_t ticks() noexcept {
    return static_cast<int64_t>(__builtin_ia32_rdtsc());
}
#elif defined(__aarch64__)
inline constexpr char kTicksClock[] = "arch_sys_counter\n";
inline int64_t ticks() noexcept {
    int64_t count;
    asm volatile("mrs %0, cntvct_el0" : "=r"(count));
    return count;
}
#else
inline constexpr char kTicksClock[] = "";
inline int64_t ticks() noexcept {
    return 0;
}
#endif

/** Any thread. */
inline int64_t stamp() noexcept {
    return gStampsAreTicks ? ticks() : monotonicInNs();
}

/** Turns stamps into CLOCK_MONOTONIC: a straight line from one tick() to the next. One thread's. */
class StampReader {
public:
    /** Begins anew. */
    void start() noexcept;
    /** Notes how late it is, every now and then. */
    void tick() noexcept;
    /** @param stamp taken about between the last two ticks. @return nanoseconds. */
    int64_t toNs(int64_t stamp) const noexcept;

private:
    int64_t mStamp = 0, mNs = 0;  ///< of the tick before the last
    int64_t mLastStamp = 0, mLastNs = 0;
    double mRate = 1;  ///< nanoseconds a stamp's unit, between the two
};

}  // namespace NSVista::NSCorvane::record
