// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The engine proper: takes jobs in, processes them, and decides when and in which order they end.
 */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <random>
#include <thread>
#include <vector>

#include <corvane/sim/Engine.h>

#include "Locks.h"
#include "Request.h"

namespace NSVista::NSCorvane::sim {

/**
 * The processing of one device, with a worker thread of its own. Operations that take the lock may
 * let go of it in between. Once its lists
 * have grown to the number of jobs in flight it allocates nothing.
 */
class Pipeline {
public:
    explicit Pipeline(DeviceCore& device) : mDevice(device) {}
    ~Pipeline() { stop(); }
    Pipeline(const Pipeline&) = delete;
    Pipeline& operator=(const Pipeline&) = delete;

    /** Starts the worker. */
    void start();
    /** Ends the worker; called without the mutex. */
    void stop();

    /** Takes a job in. The caller calls queued() when it has done all else. */
    void submit(Job& job) CORVANE_REQUIRES(deviceState);
    /** Sees to it that jobs taken in get processed. */
    void queued(DeviceLock& lock) CORVANE_REQUIRES(deviceState);
    /** Nodes began to stream or left jobs: others may have become ready. */
    void queuesChanged() CORVANE_REQUIRES(deviceState);
    /** Waits until no job that is being processed has a buffer of @p queue. */
    void waitWhileRunning(const BufferQueue& queue, DeviceLock& lock) CORVANE_REQUIRES(deviceState);
    /** A queue took its buffers out of jobs, which go on with what is left. */
    void withdrawn() CORVANE_REQUIRES(deviceState);

    void setTiming(const Timing& timing) CORVANE_REQUIRES(deviceState);
    void hold() CORVANE_REQUIRES(deviceState);
    void completeNext(unsigned count) CORVANE_REQUIRES(deviceState);
    void resume() CORVANE_REQUIRES(deviceState);

    uint32_t nextFrame() const CORVANE_REQUIRES(deviceState) { return mNextFrame; }
    /** Fills in what the pipeline counts. */
    void count(DeviceCounts& counts) const CORVANE_REQUIRES(deviceState);

private:
    void work();
    Clock::time_point runDue(DeviceLock& lock) CORVANE_REQUIRES(deviceState);
    Job* takeDue(Clock::time_point now, Clock::time_point& next) CORVANE_REQUIRES(deviceState);
    bool formGroup(Clock::time_point now, Clock::time_point& next) CORVANE_REQUIRES(deviceState);
    void markReady() CORVANE_REQUIRES(deviceState);
    void process(Job& job, DeviceLock& lock) CORVANE_REQUIRES(deviceState);

    DeviceCore& mDevice;
    std::thread mWorker;
    std::condition_variable mWake;      ///< something to do for the worker
    std::condition_variable mFinished;  ///< the running job is done
    bool mStop CORVANE_GUARDED_BY(deviceState) = false;
    Timing mTiming CORVANE_GUARDED_BY(deviceState);
    std::mt19937 mRandom CORVANE_GUARDED_BY(deviceState){1};
    bool mHeld CORVANE_GUARDED_BY(deviceState) = false;
    unsigned mPermits CORVANE_GUARDED_BY(deviceState) = 0;  ///< completions allowed while held
    std::vector<Job*> mJobs
        CORVANE_GUARDED_BY(deviceState);  ///< waiting or ready, in the order of queueing
    std::vector<Job*> mGroup
        CORVANE_GUARDED_BY(deviceState);  ///< ready, in the order of completion, last one first
    Job* mRunning CORVANE_GUARDED_BY(deviceState) = nullptr;
    uint32_t mNextFrame CORVANE_GUARDED_BY(deviceState) = 0;
    uint64_t mQueued CORVANE_GUARDED_BY(deviceState) = 0;
    uint64_t mCompleted CORVANE_GUARDED_BY(deviceState) = 0;
    uint64_t mCancelled CORVANE_GUARDED_BY(deviceState) = 0;
};

}  // namespace NSVista::NSCorvane::sim
