/**
 * @file
 * The progress line on stderr.
 */
#pragma once

#include <chrono>
#include <cstdint>

namespace NSVista::NSCorvane::tools {

/** Rewrites one line on a terminal, several times a second; elsewhere prints one each second. */
class Progress {
public:
    /** @param total 0: unknown. */
    Progress(bool quiet, uint64_t total);
    /** Takes the line away. */
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void update(uint64_t done, uint64_t failed);

private:
    using Clock = std::chrono::steady_clock;

    void print(uint64_t done, uint64_t failed, double perSecond) const;

    const bool mQuiet;
    const bool mTerminal;
    const uint64_t mTotal;
    Clock::time_point mShownAt = Clock::now();
    uint64_t mShown = 0;
    bool mLineShown = false;
};

}  // namespace NSVista::NSCorvane::tools
