// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Devices for machines.
 */
#pragma once

#include <string>
#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** All that the listing shows, as a JSON array with an object a device. */
std::string makeJson(const std::vector<Device>& devices);

}  // namespace NSVista::NSCorvane::tools
