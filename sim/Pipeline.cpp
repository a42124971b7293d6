// SPDX-License-Identifier: Apache-2.0
#include "Pipeline.h"

#include <time.h>

#include <algorithm>

#include "BufferQueue.h"
#include "DeviceCore.h"
#include "Picture.h"

namespace NSVista::NSCorvane::sim {

namespace {

bool uses(const Job& job, const BufferQueue& queue) {
    return std::any_of(job.buffers.begin(), job.buffers.end(),
                       [&](const BufferRef& buffer) { return buffer.queue == &queue; });
}

}  // namespace

void Pipeline::start() {
    mWorker = std::thread([this] { work(); });
}

void Pipeline::stop() {
    {
        const DeviceLock lock(mDevice.mutex());
        mStop = true;
        mWake.notify_all();
    }
    if (mWorker.joinable())
        mWorker.join();
}

void Pipeline::submit(Job& job) {
    job.frame = mNextFrame++;
    job.stage = Job::Stage::WAITING;
    mJobs.push_back(&job);
    ++mQueued;
    markReady();
}

void Pipeline::queued(DeviceLock& lock) {
    if (mTiming.onQueueingThread)
        runDue(lock);
    mWake.notify_one();
}

void Pipeline::queuesChanged() {
    markReady();
    mWake.notify_one();
}

void Pipeline::markReady() {
    Clock::time_point now = Clock::now();
    for (Job* job : mJobs) {
        if (job->stage != Job::Stage::WAITING ||
            !std::all_of(job->buffers.begin(), job->buffers.end(),
                         [](const BufferRef& buffer)
                             CORVANE_REQUIRES(deviceState) { return buffer.queue->streaming(); }))
            continue;
        job->stage = Job::Stage::READY;
        job->due = now + mTiming.latency;
        if (mTiming.jitter.count() > 0)
            job->due += std::chrono::nanoseconds(
                std::uniform_int_distribution<int64_t>(0, mTiming.jitter.count())(mRandom));
    }
}

void Pipeline::waitWhileRunning(const BufferQueue& queue, DeviceLock& lock) {
    while (mRunning != nullptr && uses(*mRunning, queue))
        mFinished.wait(lock.native());
}

void Pipeline::withdrawn() {
    auto drop = [&](Job* job) CORVANE_REQUIRES(deviceState) {
        if (!job->buffers.empty())
            return false;
        job->stage = Job::Stage::IDLE;
        ++mCancelled;
        return true;
    };
    std::erase_if(mJobs, drop);
    std::erase_if(mGroup, drop);
    queuesChanged();
}

void Pipeline::setTiming(const Timing& timing) {
    mTiming = timing;
    mTiming.group = std::max(mTiming.group, 1u);
    mRandom.seed(timing.seed);
    mWake.notify_one();
}

void Pipeline::hold() {
    mHeld = true;
    mPermits = 0;
}

void Pipeline::completeNext(unsigned count) {
    mPermits += count;
    mWake.notify_one();
}

void Pipeline::resume() {
    mHeld = false;
    mWake.notify_one();
}

void Pipeline::count(DeviceCounts& counts) const {
    counts.queued = mQueued;
    counts.completed = mCompleted;
    counts.cancelled = mCancelled;
    counts.inFlight = mJobs.size() + mGroup.size() + (mRunning != nullptr ? 1 : 0);
}

void Pipeline::work() {
    DeviceLock lock(mDevice.mutex());
    while (!mStop) {
        Clock::time_point next = runDue(lock);
        if (mStop)
            break;
        if (next == Clock::time_point::max()) {
            mWake.wait(lock.native());
        } else {
            // The system clock, since thread checkers do not know the other kind of wait.
            mWake.wait_until(lock.native(),
                             std::chrono::system_clock::now() + (next - Clock::now()));
        }
    }
}

/** Processes what is due, unless another thread is at it. @return when to look again. */
Clock::time_point Pipeline::runDue(DeviceLock& lock) {
    Clock::time_point next = Clock::time_point::max();
    while (mRunning == nullptr && !mStop) {
        Job* job = takeDue(Clock::now(), next);
        if (job == nullptr)
            break;
        process(*job, lock);
        next = Clock::time_point::max();
    }
    return next;
}

Job* Pipeline::takeDue(Clock::time_point now, Clock::time_point& next) {
    if (mHeld && mPermits == 0)
        return nullptr;
    if (mGroup.empty() && !formGroup(now, next))
        return nullptr;
    Job* job = mGroup.back();
    if (job->due > now) {
        next = job->due;
        return nullptr;
    }
    mGroup.pop_back();
    if (mHeld)
        --mPermits;
    return job;
}

/** Moves the next jobs to mGroup. @return false while there are too few. */
bool Pipeline::formGroup(Clock::time_point now, Clock::time_point& next) {
    size_t wanted = mTiming.order == Order::IN_ORDER ? 1 : mTiming.group;
    for (Job* job : mJobs) {
        if (job->stage == Job::Stage::READY && mGroup.size() < wanted)
            mGroup.push_back(job);
    }
    if (mGroup.empty())
        return false;
    Clock::time_point deadline = mGroup.front()->due + mTiming.patience;
    if (mGroup.size() < wanted && now < deadline) {
        mGroup.clear();
        next = deadline;
        return false;
    }
    std::erase_if(mJobs, [&](Job* job) CORVANE_REQUIRES(deviceState) {
        return std::find(mGroup.begin(), mGroup.end(), job) != mGroup.end();
    });
    if (mTiming.order == Order::IN_ORDER)
        std::reverse(mGroup.begin(), mGroup.end());
    else if (mTiming.order == Order::RANDOM)
        std::shuffle(mGroup.begin(), mGroup.end(), mRandom);
    return true;
}

void Pipeline::process(Job& job, DeviceLock& lock) {
    job.stage = Job::Stage::RUNNING;
    job.brightness = mDevice.brightness();
    if (job.request != nullptr)
        job.request->applyControls();
    for (BufferRef& buffer : job.buffers)
        buffer.brightness = buffer.queue->brightness();
    mRunning = &job;
    lock.unlock();
    bool good = render(job);
    timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    lock.lock();
    job.stage = Job::Stage::IDLE;
    ++mCompleted;
    mDevice.frameDone(job.frame, time);
    // Every buffer joins its node's done list before the request completes.
    for (const BufferRef& buffer : job.buffers)
        buffer.queue->complete(buffer.index, good, time);
    if (job.request != nullptr)
        job.request->finish();
    mRunning = nullptr;
    mFinished.notify_all();
    mDevice.buffersChanged();
}

}  // namespace NSVista::NSCorvane::sim
