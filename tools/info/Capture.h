// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A media device written down.
 */
#pragma once

#include <string>
#include <vector>

#include <corvane/sim/Description.h>

#include "Controls.h"
#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** What goes into a capture beside what every device is asked. */
struct CaptureWish {
    bool withIdentity = false;          ///< the serial number
    const Entity* subDevice = nullptr;  ///< it knows the driver's private ioctls; null: none does
    std::vector<ControlId> controls = {};  ///< of that one
};

/**
 * Asks a device all that a description holds. Leaves it as it was: formats are tried and not set,
 * buffers are asked for on idle queues and given back. A driver without VIDIOC_TRY_FMT has its
 * formats set in turn and the old one again.
 * @param[out] remarks a line for each thing that could not be learned.
 */
sim::DeviceDesc captureDevice(const Device& device, const CaptureWish& wish,
                              std::vector<std::string>& remarks);

}  // namespace NSVista::NSCorvane::tools
