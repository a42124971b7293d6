// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Priority, name and affinity of threads.
 */
#pragma once

#include <cstddef>

#include <corvane/platform/Export.h>

namespace NSVista {

/** Scheduling of threads. */
class CORVANE_EXPORT Thread {
public:
    /**
     * Under Scheduler::Normal: 0 to 10, where 6 is the default of the system and each step is two
     * nice levels. Under a real-time scheduler: its own priority.
     */
    enum class Priority : int { Lowest = 0, Normal = 6, Highest = 10 };
    /** Values are those of sched_setscheduler(2). */
    enum class Scheduler : int { Normal = 0, Fifo = 1, RoundRobin = 2 };

    /** Kernel thread id of the calling thread. */
    static int getThisThread();
    /**
     * setpriority(2) or sched_setscheduler(2).
     * @param tid a kernel thread id.
     * @return 0 or the negated errno (-EPERM without the privilege, -EINVAL for unknown values).
     */
    static int setThreadPriority(const int& tid, Priority priority, Scheduler scheduler);
};

}  // namespace NSVista

namespace NSVista::NSCorvane {

/** Names the calling thread, for debuggers and the trace. @param length at most 15 are kept. */
CORVANE_EXPORT void customizeThreadReadyToRun(const char* name, size_t length);

}  // namespace NSVista::NSCorvane

/**
 * Binds the calling thread to the processors that the property
 * "persist.vendor.kvx.camera.affinity" names (a mask; 0, the default, binds to none).
 * @return 0 or the negated errno.
 */
extern "C" CORVANE_EXPORT int kvxcam_perfctrl_set_affinity();
