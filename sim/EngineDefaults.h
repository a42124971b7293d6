// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the engine's own nodes offer, where a description leaves it out.
 */
#pragma once

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/** A node's description with everything in it. */
VideoDesc completed(const VideoDesc& video);

}  // namespace NSVista::NSCorvane::sim
