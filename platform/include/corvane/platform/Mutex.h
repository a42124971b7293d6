// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A mutex that clang's thread-safety analysis understands, and the annotations that go with it.
 *
 * Under other compilers the annotations vanish and the classes are plain std::mutex and
 * std::unique_lock. In debug builds of the platform (CORVANE_CHECK_RELOCK, which its target hands
 * to those who link it, so that all agree on the layout) a thread that locks again what it holds
 * ends the process with a fatal line; elsewhere it would wait for itself without a word.
 */
#pragma once

#include <mutex>

#include <corvane/platform/Export.h>

#if defined(CORVANE_CHECK_RELOCK)
#include <pthread.h>

#include <atomic>
#endif

#if defined(__clang__)
#define CORVANE_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define CORVANE_THREAD_ANNOTATION(x)
#endif

/** A class whose objects are locks; @p kind names them in diagnostics. */
#define CORVANE_CAPABILITY(kind) CORVANE_THREAD_ANNOTATION(capability(kind))
/** A class that holds a lock while it lives. */
#define CORVANE_SCOPED_CAPABILITY CORVANE_THREAD_ANNOTATION(scoped_lockable)
/** A member that is touched only under @p lock. */
#define CORVANE_GUARDED_BY(lock) CORVANE_THREAD_ANNOTATION(guarded_by(lock))
/** A lock that is taken before the named ones when both are held. */
#define CORVANE_ACQUIRED_BEFORE(...) CORVANE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
/** A function that is called with the named locks held. */
#define CORVANE_REQUIRES(...) CORVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/** A function that is called with none of the named locks held. */
#define CORVANE_EXCLUDES(...) CORVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/** A function that takes, or gives back, the named locks (the object itself without a name). */
#define CORVANE_ACQUIRE(...) CORVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define CORVANE_RELEASE(...) CORVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/** A function that returns a reference to the named lock. */
#define CORVANE_RETURN_CAPABILITY(lock) CORVANE_THREAD_ANNOTATION(lock_returned(lock))
/** A function whose locking the analysis cannot follow; say why beside it. */
#define CORVANE_NO_THREAD_SAFETY_ANALYSIS CORVANE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace NSVista::NSCorvane {

#if defined(CORVANE_CHECK_RELOCK)

/** @private The thread that holds a mutex; a wait on a condition clears it until the next lock. */
class LockOwner {
public:
    /** Ends the process when the caller holds the mutex. */
    void check() const {
        if (mThread.load(std::memory_order_relaxed) == pthread_self())
            endOnRelock();
    }
    void set() { mThread.store(pthread_self(), std::memory_order_relaxed); }
    void clear() { mThread.store(0, std::memory_order_relaxed); }

private:
    [[noreturn]] CORVANE_EXPORT static void endOnRelock();

    std::atomic<pthread_t> mThread{0};  ///< 0: nobody
};

#else

/** @private */
class LockOwner {
public:
    constexpr void check() const {}
    constexpr void set() {}
    constexpr void clear() {}
};

#endif

/** std::mutex with annotations. */
class CORVANE_CAPABILITY("mutex") Mutex {
public:
    void lock() CORVANE_ACQUIRE() {
        mOwner.check();
        mMutex.lock();
        mOwner.set();
    }
    void unlock() CORVANE_RELEASE() {
        mOwner.clear();
        mMutex.unlock();
    }

private:
    friend class MutexLock;
    std::mutex mMutex;
    [[no_unique_address]] LockOwner mOwner;
};

/**
 * Holds a Mutex while it lives, but for the stretches between unlock() and lock().
 *
 * To wait, pass native() to a std::condition_variable and loop on the condition: the analysis does
 * not see into the lambda of a wait with a predicate.
 * @code
 * MutexLock lock(mLock);
 * while (!mReady)
 *     mCondition.wait(lock.native());
 * @endcode
 */
class CORVANE_SCOPED_CAPABILITY MutexLock {
public:
    explicit MutexLock(Mutex& mutex) CORVANE_ACQUIRE(mutex)
        : mMutex(mutex), mLock(mutex.mMutex, std::defer_lock) {
        take();
    }
    ~MutexLock() CORVANE_RELEASE() {
        if (mLock.owns_lock())
            mMutex.mOwner.clear();
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() CORVANE_RELEASE() {
        mMutex.mOwner.clear();
        mLock.unlock();
    }
    void lock() CORVANE_ACQUIRE() { take(); }
    /** For std::condition_variable only. */
    std::unique_lock<std::mutex>& native() {
        mMutex.mOwner.clear();
        return mLock;
    }

private:
    void take() {
        mMutex.mOwner.check();
        mLock.lock();
        mMutex.mOwner.set();
    }

    Mutex& mMutex;
    std::unique_lock<std::mutex> mLock;
};

}  // namespace NSVista::NSCorvane
