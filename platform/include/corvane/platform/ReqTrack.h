// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Request tracking: when a request passed each station of its way.
 */
#pragma once

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::reqtrack {

/** Stations of a request, in order; indexes into a track buffer. */
enum Station : unsigned {
    kToSubmodule = 0,       ///< the media request is being queued
    kToKernel = 1,          ///< just before the driver call
    kFromKernelQueued = 2,  ///< just after the driver call
    kFromKernelDone = 3,    ///< the completion was seen
    kDone = 4,              ///< the owner of the request was told
    kStationCount = 5,
};

/** Words in a track buffer: a CLOCK_MONOTONIC time in nanoseconds per station, 0 when not passed.
 */
inline constexpr unsigned kTrackBufferWords = kStationCount;

/**
 * @name Stamping
 * Each stamps one station of @p track (kTrackBufferWords words, may be null). @p subflow tells the
 * part of the camera stack that reports; it is for a tracker over the whole stack and does not
 * change the stamp. Any thread; words are written atomically.
 * @{
 */
CORVANE_EXPORT void enqueToSubmodule(unsigned long* track, int subflow);
CORVANE_EXPORT void enqueToKernel(unsigned long* track);
CORVANE_EXPORT void enqueFromKernelToSubmodule(unsigned long* track, int subflow);
CORVANE_EXPORT void doneFromKernelToSubmodule(unsigned long* track, int subflow);
CORVANE_EXPORT void doneToSubmodule(unsigned long* track, int subflow);
/** @} */

/** Reads one station's stamp. */
CORVANE_EXPORT unsigned long stamp(const unsigned long* track, Station station);

}  // namespace NSVista::NSCorvane::reqtrack
