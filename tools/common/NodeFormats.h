/**
 * @file
 * Formats of video nodes.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <corvane/V4L2.h>

namespace NSVista::NSCorvane::tools {

/** One queue of a video node with its current format. */
struct QueueFormat {
    const v4l2::BufferType* type;
    PixelFormat format;
    std::vector<uint32_t> supported;  ///< fourccs the node offers; empty when it tells none
};

/** What a video node told. */
struct NodeFormats {
    int error;  ///< 0 or the negated errno of the last refused call
    std::vector<QueueFormat> queues;
};

/** Reads the formats of all queues of a node. Changes nothing. */
NodeFormats readFormats(const std::string& devnode);

/** "640x480", or "-" for metadata. */
std::string sizeText(const PixelFormat& format);

}  // namespace NSVista::NSCorvane::tools
