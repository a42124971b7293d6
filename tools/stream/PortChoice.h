// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The ports that a user names.
 */
#pragma once

#include <string>
#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/**
 * Chooses ports of a device.
 * @param wish "all", how many of the first, or a list of entity names and indexes.
 * @return empty, with a line on stderr, when the wish names what there is not.
 */
std::vector<NodePort> choosePorts(const Device& device, const std::string& wish);

}  // namespace NSVista::NSCorvane::tools
