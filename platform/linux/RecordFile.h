// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The file that a record is written to.
 */
#pragma once

#include <corvane/platform/RecordFormat.h>
#include <corvane/platform/UniqueFd.h>
#include <sys/types.h>

#include <string>

namespace NSVista::NSCorvane::record {

/** Chunks in a file that grows to a limit and then goes round. Used by one thread at a time. */
class RecordFile {
public:
    /**
     * Makes the file, or empties it, and writes its head.
     * @return 0 or the negated errno; -EBUSY for a file that another process records into.
     */
    int open(const std::string& path, const std::string& note, uint64_t limit);
    /**
     * @param head sequence and checksum are filled here. @param events as many bytes as it says.
     * @return 0 or the negated errno; the file then has no trace of the chunk, or a broken one.
     */
    int append(ChunkHead head, const char* events);
    void close() { mFd.reset(); }
    /** Whether old chunks were overwritten. */
    bool wentRound() const { return mWentRound; }

private:
    UniqueFd mFd;
    uint64_t mLimit = 0;
    uint64_t mKept = 0;    ///< where the part that is never overwritten ends, 0 while it grows
    uint64_t mOffset = 0;  ///< of the next chunk
    uint64_t mSequence = 0;
    bool mWentRound = false;
};

}  // namespace NSVista::NSCorvane::record
