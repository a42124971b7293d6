// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Records of every call that the process makes of its kernel.
 */
#pragma once

#include <cstdint>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::record {

/** How a record stands. */
struct Status {
    bool running;    ///< calls are written
    int error;       ///< negated errno of the write that ended it, 0 for none
    uint64_t bytes;  ///< written so far, overwritten ones included
    uint64_t lost;   ///< calls that found no room in their thread's buffer
};

/**
 * Begins to record the calls of System's operations, whatever kernel is installed, ending the
 * record before. Started at load by the property "persist.vendor.camera.corvane.record" (a path;
 * default "none").
 *
 * A call costs its thread two time stamps and two copies of its argument, into a buffer of its own
 * that was made beforehand: no lock, no allocation and, but for the thread's first call, no system
 * call. A thread of the platform writes the file, a moment later. A call that hangs is in the file
 * as one that has not returned. What a process left when it crashed is readable up to the last 10
 * ms, and whole when it ended by a fatal line.
 *
 * The file is made with mode 0600, and no link is followed to it. At the property
 * "persist.vendor.camera.corvane.recordlimit" (bytes; default 256 MiB) the newest calls take the
 * place of older ones; the first quarter, where devices are opened and set up, is kept. It holds
 * what the calls carried, names, serial numbers and paths of devices included, but no pictures.
 * Its format is that of RecordFormat.h; corvane-trace and the replay library read it.
 *
 * @param path "none" or the file; "%p" in it stands for the process id.
 * @param note kept in the file for its reader, such as what the program was asked for; may be null.
 * @return 0 or the negated errno; -EBUSY for a file that a living process records into.
 *
 * Any thread. The argument of an ioctl must be as readable as the kernel expects it.
 */
CORVANE_EXPORT int start(const char* path, const char* note = nullptr);
/** Ends the record; the file is complete when it returns. Without one nothing happens. */
CORVANE_EXPORT void stop();
/** Waits until what was called so far is in the file, two seconds at most. */
CORVANE_EXPORT void flush();
/** Any thread. */
CORVANE_EXPORT Status status();

}  // namespace NSVista::NSCorvane::record
