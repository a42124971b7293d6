// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Devices that come and go.
 */
#pragma once

#include "Console.h"

namespace NSVista::NSCorvane::tools {

/** Prints a line for each media device that is there, comes or goes; until SIGINT or SIGTERM. */
ExitCode watchDevices();

}  // namespace NSVista::NSCorvane::tools
