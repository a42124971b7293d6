/**
 * @file
 * Exception reports, service termination and the log clock.
 */
#pragma once

#include <time.h>

#include <functional>
#include <string>

#include <corvane/platform/Export.h>

/**
 * Files an exception report: one error line and, where the property
 * "persist.vendor.kvx.camera.exception.dir" names a directory, a file in it.
 * @param module who is at fault.
 */
CORVANE_EXPORT void corvane_oxu_trigger_exception(const char* module, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

namespace NSVista::Utils {

/**
 * Ends the hosting service: raises SIGTERM in this process, after what was logged and traced has
 * been written out. It may return.
 */
CORVANE_EXPORT void terminateService();

/**
 * Replaces what an exception report does. An empty function restores the default. Any thread; a
 * report under way finishes with the handler it began with. A handler must not throw.
 */
CORVANE_EXPORT void setExceptionHandler(
    std::function<void(const char* module, const char* text)> handler);

/**
 * Replaces what terminateService() does. An empty function restores the default. Any thread. A
 * handler must not throw.
 */
CORVANE_EXPORT void setTerminateHandler(std::function<void()> handler);

}  // namespace NSVista::Utils

namespace NSVista::NSCorvane {

/** Reads the log clock (CLOCK_REALTIME, as the log lines carry it). */
CORVANE_EXPORT void getCurrentLogTime(struct timespec& now);

/** A log time as "MM-DD hh:mm:ss.uuuuuu" in local time; "-" for the zero time. */
CORVANE_EXPORT std::string convertToFormattedLogTime(const struct timespec& time);

}  // namespace NSVista::NSCorvane
