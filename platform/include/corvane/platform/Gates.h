// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What every trace section and every log line tests before it does anything.
 */
#pragma once

#include <atomic>
#include <cstdint>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane {

/**
 * @private
 * The settings of trace and log, combined into one word for each, so that what is off costs a load,
 * a test and a branch.
 *
 * Every shared object has a copy of its own: a hidden one is read without the detour through the
 * global offset table. The platform knows all copies and writes them when a setting changes. A copy
 * that is not constructed yet is zero: all is off.
 */
class CORVANE_EXPORT Gates {
public:
    Gates() noexcept;
    ~Gates();
    Gates(const Gates&) = delete;
    Gates& operator=(const Gates&) = delete;

    /** Bit n: area n is traced now. */
    bool traced(unsigned area) const {
        return (mAreas.load(std::memory_order_relaxed) >> area & 1) != 0;
    }
    /** Bit n: lines of unified level n pass now. */
    bool logged(int level) const {
        return (mLevels.load(std::memory_order_relaxed) >> level & 1) != 0;
    }

    /** Writes all copies anew. Called after each change of a setting, by any thread. */
    static void update() noexcept;

private:
    void load() noexcept;

    std::atomic<uint64_t> mAreas;
    std::atomic<uint32_t> mLevels;
    Gates* mNext;
};

/** @private */
CORVANE_HIDDEN inline Gates gGates;

}  // namespace NSVista::NSCorvane
