// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The topology as a graph.
 */
#pragma once

#include <string>
#include <vector>

#include "Device.h"

namespace NSVista::NSCorvane::tools {

/** The devices' graphs in graphviz's language. */
std::string makeGraph(const std::vector<Device>& devices);

}  // namespace NSVista::NSCorvane::tools
