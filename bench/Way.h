// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A way to stream the device, and what is noted of its requests.
 */
#pragma once

#include <corvane/IEventMonitor.h>
#include <corvane/platform/Clock.h>

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::bench {

/** Times of requests, from their queueing on, where they are wanted: the clock takes time itself.
 */
class Stopwatch {
public:
    explicit Stopwatch(size_t slots) : mQueued(slots) {}

    bool runs = false;
    void queued(size_t slot) {
        if (runs)
            mQueued[slot] = monotonicInNs();
    }
    void called(size_t slot) {
        if (runs)
            toCallback += monotonicInNs() - mQueued[slot];
    }
    void dequeued(size_t slot) {
        if (runs)
            toLastDequeue += monotonicInNs() - mQueued[slot];
    }
    int64_t toCallback = 0;     ///< nanoseconds, all requests together
    int64_t toLastDequeue = 0;  ///< nanoseconds, all requests together

private:
    std::vector<int64_t> mQueued;
};

/** Streams from its construction to its end; requests carry a buffer of every port. */
class Way {
public:
    explicit Way(Device& device) : watch(device.slots()), mDevice(device) {}
    virtual ~Way() = default;
    Way(const Way&) = delete;
    Way& operator=(const Way&) = delete;

    /** Runs @p requests cycles, as many at once as there are slots, and waits for the last. */
    virtual void run(uint64_t requests) = 0;

    Stopwatch watch;

protected:
    Device& mDevice;
};

/** Counts down the requests of a run; slots queue themselves again until none is left. */
class Countdown {
public:
    void start(uint64_t requests, size_t slots) {
        mToQueue = static_cast<int64_t>(requests) - static_cast<int64_t>(slots);
        mToCome = requests;
    }
    /** One came back; any thread. @return whether its slot is to be queued again. */
    bool next() {
        const bool again = mToQueue.fetch_sub(1, std::memory_order_relaxed) > 0;
        if (mToCome.fetch_sub(1, std::memory_order_acq_rel) == 1) {
            const std::lock_guard lock(mLock);
            mDone = true;
            mChanged.notify_one();
        }
        return again;
    }
    void wait() {
        std::unique_lock lock(mLock);
        mChanged.wait(lock, [this] { return mDone; });
        mDone = false;
    }

private:
    std::atomic<int64_t> mToQueue{0};
    std::atomic<uint64_t> mToCome{0};
    std::mutex mLock;
    std::condition_variable mChanged;
    bool mDone = false;
};

/**
 * One thread that makes the system calls and nothing else.
 * @param company whether the process has another thread, which sleeps: with two the kernel counts
 *        references at each call, so that no client with a thread of its own gets by with less.
 */
std::unique_ptr<Way> makeBare(Device& device, bool company);
/** The same on two threads: one sees completions, a worker dequeues and queues again. */
std::unique_ptr<Way> makeHandOver(Device& device);
/** A scene; requests are queued again by who saw the last of them. */
std::unique_ptr<Way> makeLibrary(Device& device, std::shared_ptr<IEventMonitor> monitor,
                                 bool direct);
/** A SceneSession, driven by a thread that waits, or by its callback. */
std::unique_ptr<Way> makeSession(Device& device, bool callback);

/** Told of each VIDIOC_QBUF while somebody counts; null otherwise. */
extern void (*noteQueuedBuffer)(int node, const v4l2_buffer& buffer);

}  // namespace NSVista::NSCorvane::bench
