// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Controls of the driver's sub-device.
 */
#pragma once

#include <climits>
#include <string>
#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** A control to ask for. */
struct ControlId {
    int id;
    std::string name;   ///< empty when unknown
    std::string range;  ///< empty when unknown
    int minimum = INT_MIN, maximum = INT_MAX;
};

/** A control as the sub-device answered. */
struct ControlValue {
    ControlId control;
    int error;  ///< 0 or the negated errno
    int value;  ///< without an error
};

/** The controls and the sub-device entity of a model, known beforehand. */
struct KnownControls {
    std::string entity;  ///< empty for an unknown model
    std::vector<ControlId> controls;
};
KnownControls knownControls(const std::string& model);

/**
 * Reads controls through V4L2SubDevice.
 * @param[out] values one for each control.
 * @return 0 or the negated errno of the open.
 */
int readControls(const Entity& entity, const std::vector<ControlId>& controls,
                 std::vector<ControlValue>& values);

void printControls(const Entity& entity, const std::vector<ControlValue>& values);

}  // namespace NSVista::NSCorvane::tools
