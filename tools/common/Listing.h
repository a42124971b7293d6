// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a media device looks like, in the terminal.
 */
#pragma once

#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** Uses box-drawing characters where the locale's encoding has them; before the first listing. */
void setUpTerminal();

/** Prints a device: facts, topology as a tree, formats of its nodes with the ports they are. */
void printDevice(const Device& device);

/** Prints devices, or a line that there are none. */
void printDevices(const std::vector<Device>& devices);

}  // namespace NSVista::NSCorvane::tools
