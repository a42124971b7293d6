// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Events of a record on their way from the threads that call to the thread that writes.
 */
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

#include <corvane/platform/RecordFormat.h>

namespace NSVista::NSCorvane::record {

/**
 * The events of one thread: the thread puts, the writer takes, neither waits. A call for which
 * there is no room is counted and left out whole.
 */
class Lane {
public:
    static constexpr size_t kBytes = size_t{512} * 1024;
    /** What the second half of a call may take at least, kept free while it runs. */
    static constexpr size_t kExitRoom = 8192;

    /**
     * On its thread only.
     * @param size of the event to come, a multiple of #kAlignment. @param room kept free behind it.
     * @return where it goes, null when there is no room.
     */
    char* reserve(size_t size, size_t room) noexcept {
        uint64_t head = mHead.load(std::memory_order_relaxed);
        const size_t toEnd = kBytes - head % kBytes;
        const size_t padding = size > toEnd ? toEnd : 0;
        if (head + padding + size + room - mSeenTail > kBytes) {
            mSeenTail = mTail.load(std::memory_order_acquire);
            if (head + padding + size + room - mSeenTail > kBytes)
                return nullptr;
        }
        if (padding != 0)
            head = pad(head, padding);
        return mMemory + head % kBytes;
    }
    /** Hands over what was reserved. */
    void commit(size_t size) noexcept {
        mHead.store(mHead.load(std::memory_order_relaxed) + size, std::memory_order_release);
    }
    void lose() noexcept {
        mLost.store(mLost.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    /**
     * By the writer only.
     * @param take called with runs of whole events, at most @p most bytes each (one event more),
     *        which it may change.
     */
    template <class Take>
    void drain(size_t most, Take take) {
        uint64_t tail = mTail.load(std::memory_order_relaxed);
        const uint64_t head = mHead.load(std::memory_order_acquire);
        while (tail != head) {
            char* const at = mMemory + tail % kBytes;
            size_t run = 0;
            size_t skipped = 0;
            while (tail + run != head && run < most && skipped == 0) {
                const auto* const event = reinterpret_cast<const EventHead*>(at + run);
                if (event->kind == EventKind::Padding)
                    skipped = event->size;
                else
                    run += event->size;
                if (at + run == mMemory + kBytes)
                    break;
            }
            if (run != 0)
                take(at, run);
            tail += run + skipped;
            mTail.store(tail, std::memory_order_release);
        }
    }
    /** By the writer only: forgets what was put so far. */
    void clear() { mTail.store(mHead.load(std::memory_order_acquire), std::memory_order_release); }
    /** Calls left out since the process began. Any thread. */
    uint64_t lost() const { return mLost.load(std::memory_order_relaxed); }
    /** Of the thread that has the lane. By the writer only. */
    pid_t tid() const { return mTid; }

private:
    friend class Lanes;
    enum class Use : int { Free, Taken, Left };

    uint64_t pad(uint64_t head, size_t size) noexcept {
        // An event's head may be longer than what is left; a size and a kind are not.
        auto* const event = reinterpret_cast<EventHead*>(mMemory + head % kBytes);
        event->size = static_cast<uint32_t>(size);
        event->kind = EventKind::Padding;
        head += size;
        mHead.store(head, std::memory_order_release);
        return head;
    }

    char* mMemory = nullptr;
    uint64_t mSeenTail = 0;  ///< mTail, as the thread saw it last
    std::atomic<uint64_t> mHead{0};
    std::atomic<uint64_t> mLost{0};
    pid_t mTid = 0;
    /** Apart from what the thread writes. */
    alignas(64) std::atomic<uint64_t> mTail{0};
    std::atomic<Use> mUse{Use::Free};
};

/** All lanes. A thread takes one at its first call and leaves it when it ends. */
class Lanes {
public:
    static constexpr size_t kCount = 64;

    /** Makes the lanes' memory, once; it is touched only as far as events fill it. @return success.
     */
    bool prepare() noexcept;
    /** Begins a record: what is in the lanes is dropped. */
    void begin() noexcept;
    /** The calling thread's. @return null when all lanes are taken. */
    Lane* mine() noexcept {
        Lane* const lane = tLane;
        return lane != nullptr ? lane : take();
    }
    /** A call of a thread without a lane. */
    void lose() noexcept { mLost.fetch_add(1, std::memory_order_relaxed); }
    /** Calls left out since the process began. */
    uint64_t lost() const;

    /** By the writer only. @param visit called with index, lane, and whether its thread has left.
     */
    template <class Visit>
    void forEach(Visit visit) {
        for (size_t i = 0; i < kCount; ++i) {
            // Read before the lane is drained: what was put before the thread left is then seen.
            const auto use = mLanes[i].mUse.load(std::memory_order_acquire);
            if (use == Lane::Use::Free)
                continue;
            visit(i, mLanes[i], use == Lane::Use::Left);
            if (use == Lane::Use::Left)
                mLanes[i].mUse.store(Lane::Use::Free, std::memory_order_release);
        }
    }

private:
    Lane* take() noexcept;

    [[gnu::tls_model("initial-exec")]] static constinit thread_local Lane* tLane;
    Lane mLanes[kCount];
    std::atomic<uint64_t> mLost{0};  ///< of threads without a lane
};

/** @private Needs no initialiser and no destructor: threads call from the first to the very end. */
extern constinit Lanes gLanes;

}  // namespace NSVista::NSCorvane::record
