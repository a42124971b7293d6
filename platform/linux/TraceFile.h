// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The file that a trace is written to.
 */
#pragma once

#include <corvane/platform/UniqueFd.h>
#include <sys/types.h>

#include <string>

namespace NSVista::NSCorvane::trace {

/**
 * A file of the Chrome trace event format, written in pieces.
 *
 * Each piece is written over the closing brackets of the one before and brings brackets of its own,
 * so that the file is complete after every piece; a piece that the file system does not take is
 * taken back. Used by one thread at a time.
 */
class TraceFile {
public:
    /**
     * Makes the file, or empties it. A file that another process still traces into is left alone.
     * @return 0 or the negated errno; -EBUSY for a file in use.
     */
    int open(const std::string& path);
    /** @return 0 or the negated errno; the file then ends with the piece before. */
    int append(const std::string& piece);
    void close() { mFd.reset(); }
    /** The size of the file, brackets included. */
    uint64_t size() const;

private:
    UniqueFd mFd;
    off_t mOffset = 0;  ///< of the closing brackets
};

}  // namespace NSVista::NSCorvane::trace
