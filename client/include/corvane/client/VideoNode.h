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

}  // namespace NSVista::NSCorvane::client
