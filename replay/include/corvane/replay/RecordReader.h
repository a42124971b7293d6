// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Reads what corvane/platform/Record.h writes, from any machine.
 */
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>
#include <corvane/platform/RecordFormat.h>

namespace NSVista::NSCorvane::replay {

/** How the recording machine laid numbers out. */
struct CORVANE_EXPORT Machine {
    bool swapped = false;              ///< its byte order is not this machine's
    uint8_t longSize = sizeof(long);   ///< 4 or 8, of pointers too
    uint8_t alignOf64 = sizeof(long);  ///< of a 64-bit number within a struct: 4 or 8

    /** Whether its structs are this program's. */
    bool isNative() const;
    /** @return an unsigned number; 0 where @p bytes ends before it. @param size 1, 2, 4 or 8 */
    uint64_t read(std::span<const uint8_t> bytes, size_t at, size_t size) const;
};

/** Memory of the recorded program that a call carried. */
struct Piece {
    uint32_t what;  ///< record::kArgument and the like
    std::span<const uint8_t> bytes;
};

/** One call. */
struct CORVANE_EXPORT Call {
    size_t thread = 0;  ///< index into Record::threads
    record::Operation operation{};
    uint32_t code = 0;  ///< request code of an ioctl, flags of an open, type of a directory's entry
    int64_t handle = -1;  ///< descriptor or directory that was called on; what an open gave
    int64_t begin = 0;    ///< CLOCK_MONOTONIC of the recording machine, ns
    int64_t end = 0;      ///< not before #begin; where it never returned the end of the record
    int32_t result = 0;
    bool returned = false;
    std::vector<Piece> before, after;

    bool failed() const { return returned && result < 0; }
    bool isIoctl(unsigned long request) const;
    /** @return the piece's bytes, empty when there is none. */
    std::span<const uint8_t> piece(uint32_t what, bool isAfter) const;
    /** A piece as text: a path, a name. */
    std::string text(bool isAfter) const;
    int64_t duration() const { return end - begin; }
};

struct RecordedThread {
    int tid;
    std::string name;
    uint64_t lost;  ///< calls of it that are missing
};

/** A record in memory. Moved, not copied: calls point into it. */
struct CORVANE_EXPORT Record {
    Record() = default;
    Record(Record&&) = default;
    Record& operator=(Record&&) = default;

    Machine machine;
    uint16_t major = 0, minor = 0;
    int pid = 0;
    int64_t monotonicNs = 0, realtimeNs = 0;  ///< the start, on two clocks
    std::string program, architecture, release, note;
    std::vector<RecordedThread> threads;
    std::vector<Call> calls;            ///< as they began
    std::vector<std::string> problems;  ///< what could not be read, a sentence each
    bool isRecord = false;              ///< false: nothing could be read
    bool isWhole = true;  ///< false: calls are missing before the last one that could be read

    int64_t endNs() const;

    std::vector<uint8_t> bytes;
};

/**
 * Reads a record. Never fails: Record::problems tells what is wrong with it, and what can be read
 * is there.
 */
CORVANE_EXPORT Record readRecord(std::vector<uint8_t> bytes);
/** Reads a file. @return a record with one problem when it cannot be read. */
CORVANE_EXPORT Record loadRecord(const std::string& path);

}  // namespace NSVista::NSCorvane::replay
