// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Trace events on their way from the threads that trace to the thread that writes.
 */
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "TraceBackend.h"

namespace NSVista::NSCorvane::trace {

/** Two kinds that only a ring knows: the thread's name (value: its id), and events that are
 * missing. */
inline constexpr Kind kThreadName{'N'};
inline constexpr Kind kGap{'G'};

/**
 * The events of one thread, unformatted: the thread puts, the writer takes, neither waits.
 *
 * When the ring is full, events are counted and dropped until half of it is free again; a gap then
 * stands before the next one.
 */
class Ring {
public:
    static constexpr size_t kBytes = size_t{512} * 1024;
    static constexpr size_t kNameMax = 1023;

    struct Record {
        int64_t ns;  ///< CLOCK_MONOTONIC
        int32_t value;
        uint16_t length;  ///< of the name, which follows without a terminating zero
        Kind kind;
    };

    /** On its thread only. */
    void put(Kind kind, const char* name, int32_t value) noexcept;

    /** By the writer only. @param take called with each record and its name. */
    template <class Take>
    void drain(Take take) {
        uint64_t tail = mTail.load(std::memory_order_relaxed);
        const uint64_t head = mHead.load(std::memory_order_acquire);
        while (tail != head) {
            Record record;
            const char* const at = mMemory + tail % kBytes;
            memcpy(&record, at, sizeof(record));
            if (record.kind != kPadding)
                take(record, at + sizeof(record));
            tail += sizeOf(record.length);
            mTail.store(tail, std::memory_order_release);
        }
    }
    /** By the writer only: forgets what was put so far. */
    void clear() {
        drain([](const Record&, const char*) {});
    }
    /** Events dropped since the process began. Any thread. */
    uint64_t lost() const { return mLost.load(std::memory_order_relaxed); }

private:
    friend class Rings;
    static constexpr size_t kAlignment = 16;
    static constexpr Kind kPadding{'P'};

    static size_t sizeOf(size_t length) {
        return (sizeof(Record) + length + kAlignment - 1) & ~(kAlignment - 1);
    }
    bool hasRoom(uint64_t head, size_t size) noexcept;
    void write(uint64_t head, const Record& record) noexcept;

    char* mMemory = nullptr;
    uint32_t mTrace = 0;     ///< the trace that the thread has said its name in
    bool mFull = false;      ///< events are dropped
    uint64_t mSeenTail = 0;  ///< mTail, as the thread saw it last
    std::atomic<uint64_t> mHead{0};
    std::atomic<uint64_t> mLost{0};
    /** Apart from what the thread writes. */
    alignas(64) std::atomic<uint64_t> mTail{0};
    enum class Use : int { Free, Taken, Left };
    std::atomic<Use> mUse{Use::Free};
};

/** All rings. A thread takes one at its first event and leaves it when it ends. */
class Rings {
public:
    static constexpr size_t kCount = 64;

    static Rings& instance();

    /** Makes the rings' memory, once; it is touched only as far as events fill it. @return success.
     */
    bool prepare() noexcept;
    /** Begins a trace: what is in the rings is dropped, and threads say their names again. */
    void begin() noexcept;
    /**
     * Puts one event of the calling thread: no lock, no allocation, and no system call but at the
     * thread's first event in a trace, when it asks for its id and name. An event for which there
     * is no ring is counted as lost.
     */
    void put(Kind kind, const char* name, int32_t value) noexcept;
    /** Names the calling thread from now on. */
    void nameThread(const char* name) noexcept;

    /** By the writer only. @param visit called with index and ring of each that was ever taken. */
    template <class Visit>
    void forEach(Visit visit) {
        for (size_t i = 0; i < kCount; ++i) {
            // Read before the ring is drained: what was put before the thread left is then seen.
            const auto use = mRings[i].mUse.load(std::memory_order_acquire);
            if (use == Ring::Use::Free)
                continue;
            visit(i, mRings[i], use == Ring::Use::Left);
            if (use == Ring::Use::Left)
                mRings[i].mUse.store(Ring::Use::Free, std::memory_order_release);
        }
    }
    /** Events dropped since the process began. */
    uint64_t lost() const;

private:
    Ring* mine() noexcept;
    Ring* take() noexcept;
    void sayName(Ring& ring) noexcept;

    Ring mRings[kCount];
    std::atomic<uint32_t> mTrace{0};
    std::atomic<uint64_t> mLost{0};  ///< of threads without a ring
};

/** @private Needs no initialiser and no destructor: threads trace from the first to the very end.
 */
extern constinit Rings gRings;

inline Rings& Rings::instance() {
    return gRings;
}

}  // namespace NSVista::NSCorvane::trace
