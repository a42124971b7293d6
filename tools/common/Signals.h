// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What video nodes are connected to, and what the pads of sub-devices carry.
 */
#pragma once

#include <corvane/client/NodeFd.h>

#include <cstdint>
#include <string>
#include <vector>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::tools {

/** Asks a video node for its inputs and outputs, and for the current one's signal. */
sim::SignalDesc readSignal(client::NodeFd& node);

/** Asks a sub-device's node for the formats of its first @p count pads; those without are left out.
 */
std::vector<sim::PadDesc> readPadFormats(client::NodeFd& node, size_t count);

/** The standard or the timings in words: "PAL", "1920x1080p 60"; empty where there is neither. */
std::string signalText(const sim::SignalDesc& signal);

/** "640x480", or "32x16 to 4096x2160". */
std::string rangeText(const sim::PadCodeDesc::Range& range);

}  // namespace NSVista::NSCorvane::tools
