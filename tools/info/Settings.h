// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Changes to a device, for trying things.
 */
#pragma once

#include <string>

#include "Console.h"
#include "Device.h"

namespace NSVista::NSCorvane::tools {

/**
 * Enables or disables a link.
 * @param wish "SOURCE:PAD->SINK:PAD=on" or "=off".
 */
ExitCode setLink(const Device& device, const std::string& wish);

/** Sets a node's format. @param wish "ENTITY=FORMAT", "ENTITY=WxH" or "ENTITY=FORMAT,WxH". */
ExitCode setFormat(const Device& device, const std::string& wish);

}  // namespace NSVista::NSCorvane::tools
