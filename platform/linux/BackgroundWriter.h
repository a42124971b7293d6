// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The thread that writes what other threads only put down.
 */
#pragma once

#include <corvane/platform/Mutex.h>
#include <sys/types.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <thread>

namespace NSVista::NSCorvane {

/**
 * Works off what has come in every 10 ms, sooner when somebody wants it flushed, and a last time at
 * the end.
 *
 * A forked child has a copy that it cannot use: the thread is not there. Any of these operations
 * but start() does nothing in it; a child that wants a writer makes a new one.
 */
class BackgroundWriter {
public:
    enum class Turn { Regular, Flush, Last };

    /**
     * @param name of the thread, at most 15 characters.
     * @param work called on the thread. After Turn::Flush what came in before is to be in the file;
     *        after Turn::Last nothing more comes.
     * @return 0, or -EAGAIN when the system has no thread to give.
     */
    int start(const char* name, std::function<void(Turn)> work);
    /** Waits until all that came in so far is worked off, two seconds at most. Any thread. */
    void flush();
    /** Returns after the last turn. On the thread that started it, or under the same lock. */
    void stop();
    /** Whether the thread is there. Any thread. */
    bool isRunning() const;

private:
    void run(const std::function<void(Turn)>& work);

    std::thread mThread;
    std::atomic<pid_t> mOwner{0};  ///< the process that has the thread
    Mutex mLock;
    std::condition_variable mWished;
    std::condition_variable mDone;
    uint64_t mWishes CORVANE_GUARDED_BY(mLock) = 0;
    uint64_t mGranted CORVANE_GUARDED_BY(mLock) = 0;
    bool mEnding CORVANE_GUARDED_BY(mLock) = false;  ///< the next turn is the last
    bool mEnded CORVANE_GUARDED_BY(mLock) = false;
};

}  // namespace NSVista::NSCorvane
