// SPDX-License-Identifier: Apache-2.0
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
 * @name Handlers
 * An empty function restores the default. Any thread; a call under way finishes with the handler it
 * began with. A handler must not throw.
 *
 * A refused driver call is reported where it was made, under the locks that its operation holds (a
 * scene that starts or stops, the sub-device provider that opens or gives back the device): a
 * handler must not call operations of the scene, the port, the device or the provider that the
 * report comes from, nor wait for a thread that does. It may log, read properties, set a flag or
 * wake a thread that ends the service, and dump what is documented as safe beside anything. A debug
 * build ends the process when a handler locks again what its own thread holds.
 * @{
 */
/** Replaces what an exception report does. */
CORVANE_EXPORT void setExceptionHandler(
    std::function<void(const char* module, const char* text)> handler);

/** Replaces what terminateService() does. */
CORVANE_EXPORT void setTerminateHandler(std::function<void()> handler);
/** @} */

}  // namespace NSVista::Utils
