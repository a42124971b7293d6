// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Writes lines where nobody may be reading.
 */
#pragma once

#include <corvane/platform/Mutex.h>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>

namespace NSVista::NSCorvane {

/**
 * Writes whole lines to a descriptor that it does not own, in order, from any thread.
 *
 * A full pipe or a stopped terminal holds a caller up for kPatience once; from then on lines are
 * dropped without waiting until there is room, and the next line that is written tells how many. A
 * closed pipe costs the line, not the process. Regular files are written as they are.
 */
class LineWriter {
public:
    static constexpr std::chrono::milliseconds kPatience{100};

    explicit LineWriter(int fd) : mFd(fd) {}

    /** The writer of standard error. Never destroyed. */
    static LineWriter& standardError();

    /** @param line with its line feed. */
    void write(const char* line, size_t length) noexcept;

private:
    bool enter() CORVANE_EXCLUDES(mLock);
    void leave() CORVANE_EXCLUDES(mLock);
    void writeAlone(const char* line, size_t length);

    const int mFd;
    Mutex mLock;
    std::condition_variable mFree;
    bool mBusy CORVANE_GUARDED_BY(mLock) = false;  ///< one line at a time
    std::atomic<uint64_t> mDropped{0};
};

}  // namespace NSVista::NSCorvane
