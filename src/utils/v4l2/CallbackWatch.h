// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Tells of done callbacks that do not return.
 */
#pragma once

#include <memory>

#include <corvane/platform/TimeBomb.h>

namespace NSVista::NSCorvane {

class RequestRoll;

/**
 * Watches the done callbacks of a scene's requests while the result lives: from three seconds on an
 * error line a second names the request. The callbacks pay for a mark set and cleared.
 */
std::shared_ptr<timeguard::TimeBomb> watchCallbacks(const std::shared_ptr<RequestRoll>& roll);

}  // namespace NSVista::NSCorvane
