// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Items on their way from the threads that make them to the one that writes them.
 */
#pragma once

#include <corvane/platform/Thread.h>
#include <pthread.h>
#include <sys/mman.h>

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace NSVista::NSCorvane {

template <class Ring>
class ThreadRings;

/**
 * The items of one thread, one behind the other: the thread puts, the writer takes, neither waits.
 *
 * @tparam Item tells of items in the ring: @c sizeAt(), a multiple of their alignment;
 *         @c isPadding(); and @c pad(), which fills what is left at the ring's end with an item
 *         that nobody takes.
 */
template <class Item>
class ThreadRing {
public:
    static constexpr size_t kBytes = size_t{512} * 1024;

    /**
     * On its thread only.
     * @param size of the item to come. @param room kept free behind it.
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
        if (padding != 0) {
            Item::pad(mMemory + head % kBytes, padding);
            head += padding;
            mHead.store(head, std::memory_order_release);
        }
        return mMemory + head % kBytes;
    }
    /** Hands over what was reserved. */
    void commit(size_t size) noexcept {
        mHead.store(mHead.load(std::memory_order_relaxed) + size, std::memory_order_release);
    }
    /** On its thread only: counts what found no room. */
    void lose() noexcept {
        mLost.store(mLost.load(std::memory_order_relaxed) + 1, std::memory_order_relaxed);
    }

    /**
     * By the writer only.
     * @param take called with runs of whole items, at most @p most bytes each (one item more),
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
                const size_t size = Item::sizeAt(at + run);
                (Item::isPadding(at + run) ? skipped : run) += size;
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
    /** What found no room since the process began. Any thread. */
    uint64_t lost() const { return mLost.load(std::memory_order_relaxed); }

protected:
    /** On the thread that takes the ring. */
    void onTaken() noexcept {}

private:
    template <class Ring>
    friend class ThreadRings;
    enum class Use : int { Free, Taken, Left };

    char* mMemory = nullptr;
    uint64_t mSeenTail = 0;  ///< mTail, as the thread saw it last
    std::atomic<uint64_t> mHead{0};
    std::atomic<uint64_t> mLost{0};
    /** Apart from what the thread writes. */
    alignas(64) std::atomic<uint64_t> mTail{0};
    std::atomic<Use> mUse{Use::Free};
};

/**
 * The rings of all threads: a thread takes one at its first item and leaves it when it ends. Needs
 * no initialiser and no destructor: threads put items from the first to the very end.
 *
 * @tparam Ring a ThreadRing; one object of this class for each.
 */
template <class Ring>
class ThreadRings {
public:
    static constexpr size_t kCount = 64;

    /** Makes the rings' memory, once; it is touched only as far as items fill it. @return success.
     */
    bool prepare() noexcept {
        if (mRings[0].mMemory != nullptr)
            return true;
        void* const memory = mmap(nullptr, kCount * Ring::kBytes, PROT_READ | PROT_WRITE,
                                  MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
        if (memory == MAP_FAILED)
            return false;
        if (pthread_key_create(&mKey, leave) != 0) {
            munmap(memory, kCount * Ring::kBytes);
            return false;
        }
        for (size_t i = 0; i < kCount; ++i)
            mRings[i].mMemory = static_cast<char*>(memory) + i * Ring::kBytes;
        return true;
    }
    /** By the writer, before it runs: what is in the rings is dropped. */
    void clear() noexcept {
        forEach([](size_t, Ring& ring, bool) { ring.clear(); });
    }
    /** The calling thread's. @return null when all rings are taken. */
    Ring* mine() noexcept {
        Ring* const ring = tRing;
        return ring != nullptr ? ring : take();
    }
    /** Counts an item of a thread without a ring. */
    void lose() noexcept { mLost.fetch_add(1, std::memory_order_relaxed); }
    /** What found no room since the process began. */
    uint64_t lost() const {
        uint64_t sum = mLost.load(std::memory_order_relaxed);
        for (const Ring& ring : mRings)
            sum += ring.lost();
        return sum;
    }

    /** By the writer only. @param visit called with index, ring, and whether its thread has left.
     */
    template <class Visit>
    void forEach(Visit visit) {
        for (size_t i = 0; i < kCount; ++i) {
            // Read before the ring is drained: what was put before the thread left is then seen.
            const auto use = mRings[i].mUse.load(std::memory_order_acquire);
            if (use == Use::Free)
                continue;
            visit(i, mRings[i], use == Use::Left);
            if (use == Use::Left)
                mRings[i].mUse.store(Use::Free, std::memory_order_release);
        }
    }

private:
    using Use = typename Ring::Use;

    /** Not inlined: once a thread, and every item asks for the ring. */
    [[gnu::noinline]] Ring* take() noexcept {
        for (Ring& ring : mRings) {
            auto use = Use::Free;
            if (ring.mUse.load(std::memory_order_relaxed) != use ||
                !ring.mUse.compare_exchange_strong(use, Use::Taken, std::memory_order_acq_rel))
                continue;
            ring.onTaken();
            pthread_setspecific(mKey, &ring);
            return tRing = &ring;
        }
        return nullptr;
    }
    static void leave(void* ring) noexcept {
        tRing = nullptr;
        static_cast<Ring*>(ring)->mUse.store(Use::Left, std::memory_order_release);
    }

    /** The calling thread's ring, where it finds it at once. */
    [[gnu::tls_model("initial-exec")]] static constinit inline thread_local Ring* tRing = nullptr;
    Ring mRings[kCount];
    std::atomic<uint64_t> mLost{0};  ///< of threads without a ring
    pthread_key_t mKey = 0;          ///< tells of a thread's end, without an allocation
};

}  // namespace NSVista::NSCorvane
