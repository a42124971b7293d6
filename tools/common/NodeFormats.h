// SPDX-License-Identifier: Apache-2.0
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

/** A format that a queue offers. */
struct OfferedFormat {
    uint32_t fourcc;
    std::string sizes;  ///< "64x16 to 4096x4096 by 2x2" or a list; empty when it tells none
};

/** One queue of a video node with its current format. */
struct QueueFormat {
    const v4l2::BufferType* type;
    PixelFormat format;
    std::vector<OfferedFormat> offered;  ///< empty when it tells none
    std::string rates;                   ///< frames per second of the current format; or empty
};

/** What a video node told. */
struct NodeFormats {
    int error;  ///< 0 or the negated errno of the last refused call
    std::vector<QueueFormat> queues;
};

/** Reads the formats of all queues of a node. Changes nothing. */
NodeFormats readFormats(const std::string& devnode);

/** "640x480". */
std::string pairText(uint32_t width, uint32_t height);

/** "640x480", or "-" for metadata. */
std::string sizeText(const PixelFormat& format);

}  // namespace NSVista::NSCorvane::tools
