// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A count that threads sleep on.
 */
#pragma once

#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <climits>
#include <cstdint>
#include <ctime>

namespace NSVista::NSCorvane::client {

/**
 * Raised by whoever changes something, slept on by who waits for the change. One wake-up is one
 * system call, and none where nobody sleeps; a std::condition_variable takes a second one to hand
 * over its mutex. Any thread.
 */
class Signal {
public:
    using Clock = std::chrono::steady_clock;

    /** To be read before the condition is looked at. */
    uint32_t value() const { return mValue.load(std::memory_order_acquire); }
    void raise() {
        mValue.fetch_add(1, std::memory_order_seq_cst);
        if (mSleepers.load(std::memory_order_seq_cst) != 0)
            futex(FUTEX_WAKE_PRIVATE, INT_MAX, nullptr);
    }
    /** Sleeps until it was raised since @p seen was read. @return false once @p deadline is over.
     */
    bool wait(uint32_t seen, Clock::time_point deadline) {
        mSleepers.fetch_add(1, std::memory_order_seq_cst);
        bool inTime = true;
        while (value() == seen && inTime) {
            const auto left = deadline - Clock::now();
            inTime = left.count() > 0;
            const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
            const timespec limit{static_cast<time_t>(seconds.count()),
                                 static_cast<long>((left - seconds).count())};
            if (inTime)
                futex(FUTEX_WAIT_PRIVATE, seen, &limit);
        }
        mSleepers.fetch_sub(1, std::memory_order_relaxed);
        return inTime;
    }

private:
    void futex(int operation, uint32_t value, const timespec* limit) {
        static_assert(sizeof(mValue) == sizeof(uint32_t));
        syscall(SYS_futex, &mValue, operation, value, limit, nullptr, 0);
    }

    std::atomic<uint32_t> mValue{0};
    std::atomic<uint32_t> mSleepers{0};
};

}  // namespace NSVista::NSCorvane::client
