// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * No exception leaves the interface.
 */
#pragma once

#include <corvane/platform/Export.h>
#include <corvane/platform/Log.h>

namespace NSVista::NSCorvane {

/**
 * Ends the process for the exception being handled, with a fatal line that names the operation and
 * what was thrown. Call it in a handler only.
 */
[[noreturn, gnu::cold]] CORVANE_EXPORT void endOnException(const log::Site& site) noexcept;

}  // namespace NSVista::NSCorvane

/**
 * Follows the body of an operation of the interface, which `try` begins. Costs nothing while
 * nothing is thrown: the site is static, so that the compiler has nothing to prepare ahead of a
 * throw.
 * @code
 * int Scene::start() try {
 *     ...
 * }
 * CORVANE_NO_THROW
 * @endcode
 */
#define CORVANE_NO_THROW                                    \
    catch (...) {                                           \
        static const ::NSVista::NSCorvane::log::Site site = \
            CORVANE_LOG_SITE(CORVANE_LOG_FUNCTION);         \
        ::NSVista::NSCorvane::endOnException(site);         \
    }
