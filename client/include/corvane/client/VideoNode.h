// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a video node can do, before a scene opens it.
 */
#pragma once

#include <cstdint>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::client {

/** What a node says of itself. */
struct CORVANE_EXPORT VideoNode {
    uint32_t capabilities;  ///< device capabilities of VIDIOC_QUERYCAP
    uint32_t bufferType;    ///< v4l2_buf_type that a port would use; 0: no port can drive the node
    bool takesRequests;     ///< its buffers can be bound to media requests

    bool isOutput() const;
    bool isMeta() const;
    bool isMultiPlanar() const;
};

/**
 * Asks a node; opens and closes it.
 * @return 0 or the negated errno.
 */
CORVANE_EXPORT int queryVideoNode(const std::string& path, VideoNode& node);

/**
 * Asks how many of @p wanted DMA-buf buffers a node's driver would grant. The node must have no
 * owner of its buffers; it has none afterwards.
 * @return 0 or the negated errno.
 */
CORVANE_EXPORT int queryGrantedBuffers(const std::string& path, uint32_t wanted, uint32_t& granted);

/**
 * Sets the frame rate of a capture node (VIDIOC_S_PARM); a later change of its format may change it
 * again.
 * @param bufferType the node's.
 * @param perSecond frames; the driver takes the nearest rate that it has.
 * @return 0 or the negated errno: -ENOTTY for a node without a rate.
 */
CORVANE_EXPORT int setFrameRate(const std::string& path, uint32_t bufferType, uint32_t perSecond);

}  // namespace NSVista::NSCorvane::client
