/**
 * @file
 * A mutex that clang's thread-safety analysis understands, and the annotations that go with it.
 *
 * Under other compilers the annotations vanish and the classes are plain std::mutex and
 * std::unique_lock.
 */
#pragma once

#include <mutex>

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
/** A pointer whose target is touched only under @p lock. */
#define CORVANE_PT_GUARDED_BY(lock) CORVANE_THREAD_ANNOTATION(pt_guarded_by(lock))
/** A lock that is taken before, or after, the named ones when both are held. */
#define CORVANE_ACQUIRED_BEFORE(...) CORVANE_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define CORVANE_ACQUIRED_AFTER(...) CORVANE_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
/** A function that is called with the named locks held. */
#define CORVANE_REQUIRES(...) CORVANE_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
/** A function that is called with none of the named locks held. */
#define CORVANE_EXCLUDES(...) CORVANE_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
/** A function that takes, or gives back, the named locks (the object itself without a name). */
#define CORVANE_ACQUIRE(...) CORVANE_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define CORVANE_RELEASE(...) CORVANE_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
/** A function that takes the lock when it returns its first argument. */
#define CORVANE_TRY_ACQUIRE(...) CORVANE_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
/** A function that returns a reference to the named lock. */
#define CORVANE_RETURN_CAPABILITY(lock) CORVANE_THREAD_ANNOTATION(lock_returned(lock))
/** A function whose locking the analysis cannot follow; say why beside it. */
#define CORVANE_NO_THREAD_SAFETY_ANALYSIS CORVANE_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace NSVista::NSCorvane {

/** std::mutex with annotations. */
class CORVANE_CAPABILITY("mutex") Mutex {
public:
    void lock() CORVANE_ACQUIRE() { mMutex.lock(); }
    void unlock() CORVANE_RELEASE() { mMutex.unlock(); }
    bool try_lock() CORVANE_TRY_ACQUIRE(true) { return mMutex.try_lock(); }

private:
    friend class MutexLock;
    std::mutex mMutex;
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
    explicit MutexLock(Mutex& mutex) CORVANE_ACQUIRE(mutex) : mLock(mutex.mMutex) {}
    ~MutexLock() CORVANE_RELEASE() = default;
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void unlock() CORVANE_RELEASE() { mLock.unlock(); }
    void lock() CORVANE_ACQUIRE() { mLock.lock(); }
    /** For std::condition_variable only. */
    std::unique_lock<std::mutex>& native() { return mLock; }

private:
    std::unique_lock<std::mutex> mLock;
};

}  // namespace NSVista::NSCorvane
