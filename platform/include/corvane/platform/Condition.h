// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A condition that costs one futex call to wait for and one to signal.
 */
#pragma once

#include <atomic>
#include <cstdint>

#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

/**
 * A condition variable over a single futex.
 *
 * A thread that a std::condition_variable woke takes the mutex as a contended one, so that its
 * unlock calls the kernel to wake nobody. Waiting here takes it like any other thread.
 *
 * The change that a waiter looks for is made under the mutex; the signal comes after the unlock.
 * @code
 * MutexLock lock(mLock);
 * while (!mReady)
 *     mCondition.wait(lock);
 * @endcode
 */
class CORVANE_EXPORT Condition {
public:
    Condition() = default;
    Condition(const Condition&) = delete;
    Condition& operator=(const Condition&) = delete;

    /** Gives up the lock, sleeps until a signal (or, at times, without one), and takes it again. */
    void wait(MutexLock& lock);
    /** Wakes one of the waiting threads. Calls the kernel only when there is one. */
    void notifyOne();

private:
    std::atomic<uint32_t> mSignals{0};  ///< the futex
    std::atomic<uint32_t> mWaiting{0};  ///< increased under the mutex
};

}  // namespace NSVista::NSCorvane
