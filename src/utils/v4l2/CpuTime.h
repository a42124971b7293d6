// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Measures how much processor time an operation took.
 */
#pragma once

#include <cstdint>
#include <string>

#include <corvane/platform/Clock.h>

namespace NSVista::NSCorvane {

/** Processor time of the calling thread (CLOCK_THREAD_CPUTIME_ID) since construction. */
class CpuTimer {
public:
    int64_t elapsedNs() const { return threadCpuInNs() - mBegin; }
    /** elapsedNs() in decimal. */
    std::string text() const { return std::to_string(elapsedNs()); }

private:
    const int64_t mBegin = threadCpuInNs();
};

}  // namespace NSVista::NSCorvane
