/**
 * @file
 * Writes lines where nobody may be reading.
 */
#pragma once

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>

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
    const int mFd;
    std::timed_mutex mLock;  ///< one line at a time
    std::atomic<uint64_t> mDropped{0};
};

}  // namespace NSVista::NSCorvane
