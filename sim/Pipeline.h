/**
 * @file
 * The engine proper: takes jobs in, processes them, and decides when and in which order they end.
 */
#pragma once

#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <corvane/sim/Engine.h>

#include "Request.h"

namespace NSVista::NSCorvane::sim {

/**
 * The processing of one device, with a worker thread of its own. All operations are called with
 * the device's mutex held; those that take the lock may let go of it in between. Once its lists
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
    void submit(Job& job);
    /** Sees to it that jobs taken in get processed. */
    void queued(std::unique_lock<std::mutex>& lock);
    /** Nodes began to stream or left jobs: others may have become ready. */
    void queuesChanged();
    /** Waits until no job that is being processed has a buffer of @p queue. */
    void waitWhileRunning(const BufferQueue& queue, std::unique_lock<std::mutex>& lock);
    /** A queue took its buffers out of jobs, which go on with what is left. */
    void withdrawn();

    void setTiming(const Timing& timing);
    void hold();
    void completeNext(unsigned count);
    void resume();

    uint32_t nextFrame() const { return mNextFrame; }
    /** Fills in what the pipeline counts. */
    void count(DeviceCounts& counts) const;

private:
    void work();
    Clock::time_point runDue(std::unique_lock<std::mutex>& lock);
    Job* takeDue(Clock::time_point now, Clock::time_point& next);
    bool formGroup(Clock::time_point now, Clock::time_point& next);
    void markReady();
    void process(Job& job, std::unique_lock<std::mutex>& lock);

    DeviceCore& mDevice;
    std::thread mWorker;
    std::condition_variable mWake;      ///< something to do for the worker
    std::condition_variable mFinished;  ///< the running job is done
    bool mStop = false;
    Timing mTiming;
    std::mt19937 mRandom{mTiming.seed};
    bool mHeld = false;
    unsigned mPermits = 0;     ///< completions allowed while held
    std::vector<Job*> mJobs;   ///< waiting or ready, in the order of queueing
    std::vector<Job*> mGroup;  ///< ready, in the order of completion, last one first
    Job* mRunning = nullptr;
    uint32_t mNextFrame = 0;
    uint64_t mQueued = 0, mCompleted = 0, mCancelled = 0;
};

}  // namespace NSVista::NSCorvane::sim
