/**
 * @file
 * Measures how much processor time an operation took.
 */
#pragma once

#include <time.h>

#include <cstdint>
#include <string>

#include <corvane/SceneManager.h>

namespace NSVista::NSCorvane {

/** Processor time of the calling thread (CLOCK_THREAD_CPUTIME_ID) since construction. */
class CpuTimer {
public:
    CpuTimer() : mBegin(now()) {}
    int64_t elapsedNs() const { return determineDiffTimespecInNs(now(), mBegin); }
    /** elapsedNs() in decimal. */
    std::string text() const { return std::to_string(elapsedNs()); }

private:
    static struct timespec now() {
        struct timespec time = {};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &time);
        return time;
    }
    struct timespec mBegin;
};

}  // namespace NSVista::NSCorvane
