// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The file format of records, version 1.
 *
 * A file is a FileHead, its note, and chunks. All numbers are in the byte order of the machine that
 * wrote them, which FileHead::byteOrder shows. A chunk holds events of one thread, whole and in
 * their order; chunks begin at multiples of kAlignment and carry a checksum, so that a reader
 * finds the next good one behind a damaged one. Once the limit is reached new chunks take the place
 * of old ones: a reader orders them by their sequence.
 *
 * A call is two events: one before it and one after. A call that never returned has the first
 * alone. The first has what the kernel reads, the second what it may have written; of a queued
 * buffer the planes are in the first alone, of a dequeued one everything is in the second.
 * Arguments are raw, as the calling program laid them out; FileHead tells its word size and
 * alignment.
 */
#pragma once

#include <cstddef>
#include <cstdint>

namespace NSVista::NSCorvane::record {

inline constexpr char kMagic[8] = {'c', 'o', 'r', 'v', 'r', 'e', 'c', '\n'};
inline constexpr uint32_t kByteOrder = 0x01020304;
/** A reader refuses a newer major version; a newer minor one has only additions. */
inline constexpr uint16_t kMajor = 1;
inline constexpr uint16_t kMinor = 0;
inline constexpr uint32_t kChunkMagic = 0x4b4e4843;
inline constexpr size_t kAlignment = 16;
/** Bytes of events in one chunk at most. */
inline constexpr size_t kChunkMost = size_t{1} << 20;

struct FileHead {
    char magic[8];
    uint32_t byteOrder;
    uint16_t major, minor;
    uint8_t longSize;   ///< of a long and of a pointer
    uint8_t alignOf64;  ///< of a 64-bit number within a struct
    uint8_t reserved[2];
    int32_t pid;
    int64_t monotonicNs;  ///< CLOCK_MONOTONIC at the start, the clock of all events
    int64_t realtimeNs;   ///< CLOCK_REALTIME at the start
    uint32_t size;        ///< of head and note; the first chunk begins there
    uint32_t noteSize;    ///< bytes of the note, which follows the head
    char program[32];
    char machine[16];
    char release[32];  ///< of the kernel
};
static_assert(sizeof(FileHead) == 128);

struct ChunkHead {
    uint32_t magic;
    uint32_t size;      ///< of the events that follow
    uint64_t sequence;  ///< from 0 on, across all threads
    uint64_t check;     ///< checksum() of head, with 0 here, and events
    uint64_t lost;      ///< calls of the thread that are missing, up to here
    uint32_t thread;    ///< a number that no other thread of the record has
    int32_t tid;
    char name[16];
    uint64_t reserved;
};
static_assert(sizeof(ChunkHead) == 64);

enum class EventKind : uint8_t { Padding, Enter, Exit };

enum class Operation : uint8_t {
    Open = 1,
    Close,
    Ioctl,
    OpenDir,
    ReadDir,
    CloseDir,
    Stat,
    ReadLink,
};

/** One half of a call; @c blocks blocks follow. */
struct EventHead {
    int64_t ns;     ///< CLOCK_MONOTONIC
    uint32_t size;  ///< of the whole event, a multiple of #kAlignment
    EventKind kind;
    Operation operation;
    uint16_t blocks;
    int64_t
        handle;  ///< descriptor, or what stands for a directory; in the second half what was opened
    uint32_t code;   ///< request code of an ioctl, flags of an open, type of a directory's entry
    int32_t result;  ///< of the second half: the answer, or the negated errno
};
static_assert(sizeof(EventHead) == 32);

/** Bytes that a call carried, padded to a multiple of 8. */
struct BlockHead {
    uint32_t size;  ///< without this head and the padding
    uint32_t what;  ///< #kArgument and the like
};
static_assert(sizeof(BlockHead) == 8);

/** An ioctl's argument; the path of a call by path; what a link or a directory's entry holds. */
inline constexpr uint32_t kArgument = 0;
/** Arrays that the argument points to: #kArray for its first pointer that does, and so on. */
inline constexpr uint32_t kArray = 1;
/** The size of an exported buffer, a uint64_t. */
inline constexpr uint32_t kExportSize = 32;
/** A StatRecord. */
inline constexpr uint32_t kStat = 33;

/** What stat(2) told. */
struct StatRecord {
    uint32_t mode;
    uint32_t major, minor;  ///< of the device that the file stands for
    uint32_t reserved;
    uint64_t inode;
    uint64_t size;
};

/** Runs over the 64-bit words of what is written, in the writer's byte order. */
class Checksum {
public:
    void add(uint64_t word) {
        mState = (mState ^ word) * 0x9e3779b97f4a7c15U;
        mState ^= mState >> 29;
    }
    uint64_t value() const { return mState; }

private:
    uint64_t mState = 0x636f727672656331U;
};

}  // namespace NSVista::NSCorvane::record
