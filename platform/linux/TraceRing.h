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

#include "ThreadRing.h"
#include "TraceBackend.h"

namespace NSVista::NSCorvane::trace {

/** Three kinds that only a ring knows: the thread's name (value: its id), events that are missing,
 * and what is left at the ring's end. */
inline constexpr Kind kThreadName{'N'};
inline constexpr Kind kGap{'G'};
inline constexpr Kind kPadding{'P'};

/** An event in a ring, unformatted; its name follows without a terminating zero. */
struct Record {
    static constexpr size_t kAlignment = 16;

    int64_t ns;  ///< CLOCK_MONOTONIC
    int32_t value;
    uint16_t length;  ///< of the name
    Kind kind;

    static size_t sizeFor(size_t length) {
        return (sizeof(Record) + length + kAlignment - 1) & ~(kAlignment - 1);
    }
    static const Record& at(const char* at) { return *reinterpret_cast<const Record*>(at); }

    static size_t sizeAt(const char* at) { return sizeFor(Record::at(at).length); }
    static bool isPadding(const char* at) { return Record::at(at).kind == kPadding; }
    static void pad(char* at, size_t size) {
        const Record record{0, 0, static_cast<uint16_t>(size - sizeof(Record)), kPadding};
        memcpy(at, &record, sizeof(record));
    }
};
static_assert(sizeof(Record) == Record::kAlignment, "padding always has room for a whole one");

/**
 * The events of one thread.
 *
 * When the ring is full, events are counted and dropped until half of it is free again; a gap then
 * stands before the next one.
 */
class Ring : public ThreadRing<Record> {
public:
    static constexpr size_t kNameMax = 1023;

    /** On its thread only. */
    void put(Kind kind, const char* name, int32_t value) noexcept;
    /** By the writer only. @param take called with each record and its name. */
    template <class Take>
    void drain(Take take) {
        constexpr size_t kOneByOne = 1;
        ThreadRing::drain(
            kOneByOne, [&](const char* at, size_t) { take(Record::at(at), at + sizeof(Record)); });
    }

private:
    friend class Rings;
    friend class ThreadRings<Ring>;
    void onTaken() noexcept { mTrace = 0; }

    uint32_t mTrace = 0;  ///< the trace that the thread has said its name in
    bool mFull = false;   ///< events are dropped
};

/** All rings. */
class Rings : public ThreadRings<Ring> {
public:
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

private:
    Ring* named() noexcept;
    [[gnu::noinline]] void sayName(Ring& ring) noexcept;

    std::atomic<uint32_t> mTrace{0};
};

/** @private */
extern constinit Rings gRings;

}  // namespace NSVista::NSCorvane::trace
