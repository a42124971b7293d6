/**
 * @file
 * Exception reports and service termination; the log clock comes with it.
 */
#pragma once

#include <functional>

#include <corvane/platform/Clock.h>
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
