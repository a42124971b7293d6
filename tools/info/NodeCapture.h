// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * One video node written down.
 */
#pragma once

#include <string>
#include <vector>

#include <corvane/client/NodeFd.h>
#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::tools {

/** All controls of a node, the headings of their classes as well, with the values of the numbers.
 */
std::vector<sim::ControlDesc> captureControls(client::NodeFd& node);

/** @param[out] remarks a line for each thing that could not be learned, without the node's name. */
sim::VideoDesc captureVideoNode(client::NodeFd& node, std::vector<std::string>& remarks);

}  // namespace NSVista::NSCorvane::tools
