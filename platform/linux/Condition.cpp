// SPDX-License-Identifier: Apache-2.0
#include <corvane/platform/Condition.h>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

namespace NSVista::NSCorvane {

namespace {

static_assert(sizeof(std::atomic<uint32_t>) == sizeof(uint32_t) &&
              std::atomic<uint32_t>::is_always_lock_free);

#ifdef SYS_futex
constexpr long kFutex = SYS_futex;
#else  // 32-bit architectures that never had the old time type; no time is given here
constexpr long kFutex = SYS_futex_time64;
#endif

}  // namespace

void Condition::wait(MutexLock& lock) {
    mWaiting.fetch_add(1, std::memory_order_relaxed);
    const uint32_t seen = mSignals.load(std::memory_order_relaxed);
    lock.native().unlock();
    // Returns at once when a signal came since; a signal handler's return is as good as a signal.
    syscall(kFutex, &mSignals, FUTEX_WAIT_PRIVATE, seen, nullptr);
    mWaiting.fetch_sub(1, std::memory_order_relaxed);
    lock.native().lock();
}

// Who waited before the caller's change was made under the mutex is seen here: its count went up
// under the same mutex. Who comes after it sees the change and does not wait.
void Condition::notifyOne() {
    mSignals.fetch_add(1, std::memory_order_relaxed);
    if (mWaiting.load(std::memory_order_relaxed) != 0)
        syscall(kFutex, &mSignals, FUTEX_WAKE_PRIVATE, 1);
}

}  // namespace NSVista::NSCorvane
