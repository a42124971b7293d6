// SPDX-License-Identifier: Apache-2.0
// Free buffer indexes of a video node, and the memory that each had last.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/platform/Clock.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/Trace.h>

#include <bit>
#include <cerrno>

#include "DriverCall.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

int V4L2VideoDevice::acquireBufferIndex() {
    return acquireIndexFor(LastMemory::kNone);
}

/** Takes a free index: the lowest, or that which suits @p memory where one is named. */
int V4L2VideoDevice::acquireIndexFor(uint64_t memory) {
    const TraceSection section(area::kQueue, "V4L2VideoDevice::acquireBufferIndex");
    uint64_t bits = mFreeBits.load(std::memory_order_acquire);
    int index = 0;
    do {
        while (bits == 0) {
            if (!waitForFreeIndex())
                return -EPIPE;
            bits = mFreeBits.load(std::memory_order_acquire);
        }
        index = std::countr_zero(bits);
        // Requests that come back in turn find their buffers' index to be the lowest.
        if (memory != LastMemory::kNone && !mLastMemory.isAt(index, memory))
            index = mLastMemory.choose(bits, memory);
    } while (!mFreeBits.compare_exchange_weak(bits, bits & ~(uint64_t{1} << index),
                                              std::memory_order_acq_rel,
                                              std::memory_order_acquire));
    if (static_cast<uint32_t>(index) >= mReqBufCount.load(std::memory_order_relaxed))
        CORVANE_FATAL_AS("acquireBufferIndex", "index:%d out of range", index);
    if (memory != LastMemory::kNone)
        mLastMemory.note(index, memory);
    return index;
}

namespace {

/** Shows a wait to other threads; the time is that of the first of several. */
class IndexWait {
public:
    IndexWait(std::atomic<uint32_t>& waiters, std::atomic<int64_t>& since) : mWaiters(waiters) {
        if (mWaiters.fetch_add(1, std::memory_order_relaxed) == 0)
            since.store(monotonicInNs(), std::memory_order_relaxed);
    }
    ~IndexWait() { mWaiters.fetch_sub(1, std::memory_order_relaxed); }
    IndexWait(const IndexWait&) = delete;
    IndexWait& operator=(const IndexWait&) = delete;

private:
    std::atomic<uint32_t>& mWaiters;
};

}  // namespace

/** Sleeps until an index may be free. @return false when the node has streamed off. */
bool V4L2VideoDevice::waitForFreeIndex() {
    const auto guard = timeguard::TimeBomb::make(
        mName.c_str(), kDriverLimitNs, kDriverPeriodNs,
        "port %#x(%s) of scene %s waits for a free buffer index: have no more requests in flight "
        "than buffers, and look for failed dequeues, whose indexes are lost",
        mPortIndex, mName.c_str(), mSceneName.c_str());
    const IndexWait waiting(mIndexWaiters, mIndexWaitSince);
    MutexLock lock(mFreeMutex);
    if (mFreeBits.load() != 0)
        return true;
    const uint32_t ends = mStreamEnds;
    if (ends % 2 != 0)
        return false;
    // The fixed name of the line: this was a function within a function once.
    CORVANE_LOGW_AS("operator()", "wait for buffer index");
    mFreeCond.wait(lock.native());
    return ends == mStreamEnds;
}

/** A stream-off ends all waits for a free index; a new beginning lets them wait again. */
void V4L2VideoDevice::setStreamEnded(bool ended) {
    const MutexLock lock(mFreeMutex);
    if (ended != (mStreamEnds % 2 != 0))
        ++mStreamEnds;
    mFreeCond.notify_all();
}

void V4L2VideoDevice::releaseBufferIndex(unsigned int index) {
    const TraceSection section(area::kDriverCall, "V4L2VideoDevice::releaseBufferIndex");
    const uint32_t count = mReqBufCount.load(std::memory_order_relaxed);
    if (index >= count)
        CORVANE_FATAL("Bad index:%d %d", index, count);
    const uint64_t bit = uint64_t{1} << index % kMaxBuffers;
    if (mFreeBits.fetch_or(bit) != 0)
        return;
    CORVANE_LOGW("free buf bitset: 0 -> 0x%lx", static_cast<unsigned long>(bit));
    const MutexLock lock(mFreeMutex);
    mFreeCond.notify_all();
}

V4L2VideoDevice::Standing V4L2VideoDevice::standing() const {
    Standing standing;
    standing.fd = fd();
    standing.imported = mReqBufCount.load(std::memory_order_relaxed);
    standing.lost = mLostBuffers.load(std::memory_order_relaxed);
    standing.dequeue = static_cast<Standing::Dequeue>(mDequeue.load(std::memory_order_relaxed));
    standing.indexWaiters = mIndexWaiters.load(std::memory_order_relaxed);
    standing.indexWaitSince = mIndexWaitSince.load(std::memory_order_relaxed);
    standing.isQueueing = mQueueing.load(std::memory_order_relaxed);
    const uint64_t free = mFreeBits.load(std::memory_order_relaxed);
    for (unsigned index = 0; index < standing.imported; ++index) {
        if ((free >> index & 1) != 0)
            continue;
        const int32_t holder = mHolders[index].load(std::memory_order_relaxed);
        standing.taken.push_back({index, holder < 0 ? ~holder : holder, holder < 0});
    }
    return standing;
}

void V4L2VideoDevice::setKeepIndexes(bool keep) {
    mLastMemory.forget();
    mKeepIndexes.store(keep, std::memory_order_relaxed);
}

uint64_t V4L2VideoDevice::LastMemory::of(const FrameBuffer& buffer) {
    const FrameBuffer::Plane& first = buffer.planes[0];
    return uint64_t{static_cast<uint32_t>(first.fd)} << 32 | first.offset;
}

void V4L2VideoDevice::LastMemory::forget() {
    for (auto& memory : mMemory)
        memory.store(kNone, std::memory_order_relaxed);
}

int V4L2VideoDevice::LastMemory::choose(uint64_t freeBits, uint64_t memory) const {
    int unused = -1;
    for (uint64_t left = freeBits; left != 0; left &= left - 1) {
        const int index = std::countr_zero(left);
        if (isAt(index, memory))
            return index;
        if (unused < 0 && isAt(index, kNone))
            unused = index;
    }
    return unused >= 0 ? unused : std::countr_zero(freeBits);
}

void V4L2VideoDevice::LastMemory::note(int index, uint64_t memory) {
    if (isAt(index, memory))
        return;
    if (!isAt(index, kNone))
        mRemapped.fetch_add(1, std::memory_order_relaxed);
    mMemory[index].store(memory, std::memory_order_relaxed);
}

}  // namespace NSVista::NSCorvane
