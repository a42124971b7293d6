/**
 * @file
 * Formats of video nodes.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace NSVista::NSCorvane::tools {

/** One queue of a video node with its current format. */
struct QueueFormat {
    struct Plane {
        uint32_t stride;  ///< bytes per line; 0 for metadata
        uint32_t size;    ///< bytes
    };

    std::string type;        ///< in words
    uint32_t format;         ///< fourcc
    uint32_t width, height;  ///< pixels; 0 for metadata
    std::vector<Plane> planes;
    std::vector<uint32_t> supported;  ///< fourccs the node offers; empty when it tells none
};

/** What a video node told. */
struct NodeFormats {
    int error;  ///< 0 or the negated errno of the first refused call
    std::vector<QueueFormat> queues;
};

/** Reads the formats of all queues of a node. Changes nothing. */
NodeFormats readFormats(const std::string& devnode);

/** A fourcc as text. */
std::string fourccText(uint32_t fourcc);

}  // namespace NSVista::NSCorvane::tools
