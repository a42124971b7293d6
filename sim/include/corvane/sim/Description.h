// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a virtual media device consists of.
 */
#pragma once

#include <linux/media.h>

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::sim {

/** How a video node's queue takes media requests. */
enum class RequestUse {
    REFUSED,   ///< a buffer with a request gets EBADR
    OPTIONAL,  ///< with or without, EBUSY when both are mixed
    REQUIRED,  ///< a buffer without a request gets EBADR
};

/** A video node: what stands behind an entity of function MEDIA_ENT_F_IO_V4L. */
struct VideoDesc {
    uint32_t bufType = 0;  ///< enum v4l2_buf_type: single- or multi-planar video, or metadata
    uint32_t format = 0;   ///< fourcc after start, and what an unknown one is adjusted to
    uint32_t role = 0;     ///< enum vengine_role: what the engine does with the buffers
    RequestUse requests = RequestUse::OPTIONAL;
    /** Answer of VIDIOC_QUERYCAP in place of the one that fits the buffer type. */
    std::optional<uint32_t> capabilities = {}, deviceCaps = {};
};

/** An entity, with a video node, a sub-device node or no node behind it. */
struct EntityDesc {
    std::string name;
    uint32_t function = 0;           ///< MEDIA_ENT_F_*
    std::vector<uint32_t> padFlags;  ///< MEDIA_PAD_FL_* of each pad
    std::optional<VideoDesc> video = {};
    bool subDevice = false;
};

/** A link between two pads, named by the entities' names (the first entity of a name counts). */
struct GraphLinkDesc {
    std::string source;
    uint32_t sourcePad = 0;
    std::string sink;
    uint32_t sinkPad = 0;
    uint32_t flags = 0;  ///< MEDIA_LNK_FL_*
};

/** A media device. */
struct CORVANE_EXPORT DeviceDesc {
    media_device_info info = {};
    std::string mediaNode = {};  ///< name under /dev; empty: the next free "mediaN"
    std::vector<EntityDesc> entities = {};
    std::vector<GraphLinkDesc> links = {};

    /** Sets the driver's and the model's name, cut to the record's fields. */
    void setNames(const std::string& driver, const std::string& model);
    /** Adds an entity with one pad and a video node; its pad is a source where it puts data in. */
    EntityDesc& addVideoNode(const std::string& name, const VideoDesc& video);
};

/**
 * The virtual engine as vengine-desc.h describes it: its core, nine ports and the sub-device.
 * @param model the media device's model name, null for the engine's own.
 */
CORVANE_EXPORT DeviceDesc describeVirtualEngine(const char* model = nullptr);

}  // namespace NSVista::NSCorvane::sim
