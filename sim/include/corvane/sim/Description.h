// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What a virtual media device consists of and how it answers.
 */
#pragma once

#include <linux/media.h>
#include <linux/v4l2-mediabus.h>
#include <linux/videodev2.h>

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <corvane/platform/Export.h>

namespace NSVista::NSCorvane::sim {

/** How a video node's queue takes media requests. */
enum class RequestUse {
    REFUSED,   ///< a buffer with a request gets EBADR
    OPTIONAL,  ///< with or without, EBUSY when both are mixed
    REQUIRED,  ///< a buffer without a request gets EBADR
};

/** Frame intervals that a size is offered with (VIDIOC_ENUM_FRAMEINTERVALS). */
struct IntervalDesc {
    uint32_t kind = V4L2_FRMIVAL_TYPE_DISCRETE;  ///< v4l2_frmivaltypes
    v4l2_frmival_stepwise range = {};            ///< discrete: `min` alone

    bool isDiscrete() const { return kind == V4L2_FRMIVAL_TYPE_DISCRETE; }
};

/** Sizes that a format is offered with (VIDIOC_ENUM_FRAMESIZES). */
struct SizeDesc {
    uint32_t kind = V4L2_FRMSIZE_TYPE_DISCRETE;  ///< v4l2_frmsizetypes
    v4l2_frmsize_stepwise range = {};            ///< discrete: the minimum alone
    std::vector<IntervalDesc> intervals = {};

    bool isDiscrete() const { return kind == V4L2_FRMSIZE_TYPE_DISCRETE; }
};

/** How a picture lies in memory. */
struct LayoutDesc {
    struct Plane {
        uint32_t stride;  ///< bytes per line, 0 of metadata
        uint32_t size;    ///< bytes

        bool operator==(const Plane&) const = default;
    };
    uint32_t width = 0, height = 0;
    std::vector<Plane> planes = {};

    bool operator==(const LayoutDesc&) const = default;
};

/** What came of a size that was asked for (VIDIOC_TRY_FMT). */
struct AnswerDesc {
    uint32_t askedWidth, askedHeight;
    LayoutDesc layout;

    bool operator==(const AnswerDesc&) const = default;
};

/** The rest of v4l2_pix_format, by its names. */
struct ColourDesc {
    uint32_t field = V4L2_FIELD_NONE;
    uint32_t colorspace = V4L2_COLORSPACE_SMPTE170M;
    uint32_t flags = 0, encoding = 0, quantization = 0, transfer = 0;

    bool operator==(const ColourDesc&) const = default;
};

/** A format that a queue offers (VIDIOC_ENUM_FMT). */
struct FormatDesc {
    uint32_t fourcc = 0;
    std::string description = {};
    uint32_t flags = 0;  ///< V4L2_FMT_FLAG_*
    ColourDesc colour = {};
    std::vector<SizeDesc> sizes = {};
    /** From these is learned how sizes are rounded and laid out; at least one. */
    std::vector<AnswerDesc> answers = {};
};

/** A control (VIDIOC_QUERY_EXT_CTRL, VIDIOC_QUERYMENU). */
struct ControlDesc {
    uint32_t id = 0;
    std::string name = {};
    uint32_t type = V4L2_CTRL_TYPE_INTEGER;
    int64_t minimum = 0, maximum = 0, step = 0, defaultValue = 0;
    uint32_t flags = 0;
    uint32_t elementSize = 4, elements = 1;
    std::vector<uint32_t> dimensions = {};
    std::vector<std::pair<int64_t, std::string>> menu = {};  ///< an integer menu's as digits
    std::optional<int64_t> value = {};                       ///< at first; nothing: the default

    /** Its value is one number of 32 bits. */
    CORVANE_EXPORT bool hasValue() const;
};

/** An input or output of a video node (VIDIOC_ENUMINPUT, VIDIOC_ENUMOUTPUT). */
struct ConnectorDesc {
    std::string name = {};
    uint32_t type = 0;                 ///< V4L2_INPUT_TYPE_*, V4L2_OUTPUT_TYPE_*
    uint32_t audioset = 0, tuner = 0;  ///< an output's modulator
    uint32_t status = 0;               ///< V4L2_IN_ST_*, of inputs alone
    uint32_t capabilities = 0;         ///< V4L2_IN_CAP_*, V4L2_OUT_CAP_*
    uint64_t standards = 0;            ///< V4L2_STD_*

    bool operator==(const ConnectorDesc&) const = default;
};

/** A video node's inputs, or its outputs. */
struct ConnectorsDesc {
    std::vector<ConnectorDesc> list = {};  ///< at least one
    uint32_t current = 0;                  ///< VIDIOC_G_INPUT, VIDIOC_G_OUTPUT

    bool operator==(const ConnectorsDesc&) const = default;
};

/** What a video node is fed with or feeds. Standard and timings are those of the current one. */
struct SignalDesc {
    std::optional<ConnectorsDesc> inputs = {}, outputs = {};
    std::optional<uint64_t> standard = {};             ///< VIDIOC_G_STD
    std::optional<v4l2_bt_timings> timings = {};       ///< VIDIOC_G_DV_TIMINGS
    std::vector<v4l2_bt_timings> timingsOffered = {};  ///< VIDIOC_ENUM_DV_TIMINGS
};

/** A format that a sub-device's pad offers (VIDIOC_SUBDEV_ENUM_MBUS_CODE). */
struct PadCodeDesc {
    /** VIDIOC_SUBDEV_ENUM_FRAME_SIZE; of a single size both ends are the same. */
    struct Range {
        uint32_t minWidth, maxWidth, minHeight, maxHeight;

        bool operator==(const Range&) const = default;
    };
    uint32_t code = 0;   ///< MEDIA_BUS_FMT_*
    uint32_t flags = 0;  ///< V4L2_SUBDEV_MBUS_CODE_*
    std::vector<Range> sizes = {};
};

/** What a sub-device's pad carries. */
struct PadDesc {
    uint32_t pad = 0;
    v4l2_mbus_framefmt format = {};  ///< VIDIOC_SUBDEV_G_FMT, the active one
    std::vector<PadCodeDesc> codes = {};
};

/** A device node's name and number; what is left out is the next that is free. */
struct NodeDesc {
    std::string name = {};  ///< under /dev
    std::optional<std::pair<uint32_t, uint32_t>> number = {};
};

/** A video node: what stands behind an entity of function MEDIA_ENT_F_IO_V4L. */
struct VideoDesc {
    uint32_t bufType =
        0;                ///< enum v4l2_buf_type: video or metadata; 0: a node that streams nothing
    uint32_t format = 0;  ///< fourcc after start
    uint32_t role = 0;    ///< enum vengine_role, or kPlainRole: what the engine does with buffers
    RequestUse requests = RequestUse::OPTIONAL;
    /** Answer of VIDIOC_QUERYCAP in place of the one that fits the buffer type. */
    std::optional<uint32_t> capabilities = {}, deviceCaps = {};
    std::string driver = {}, card = {}, bus = {};  ///< likewise, where they are not empty
    uint32_t version = 0;                          ///< likewise, where it is not 0

    std::vector<FormatDesc> formats = {};   ///< none: the engine's for the buffer type and `format`
    std::optional<LayoutDesc> layout = {};  ///< after start; without it what 320x240 comes to
    /** What a format not offered gets: a negated errno, or 0 and it becomes `fallback`. */
    int unknownFormat = 0;
    uint32_t fallback = 0;        ///< 0: `format`
    bool enumeratesSizes = true;  ///< else VIDIOC_ENUM_FRAMESIZES is no ioctl of the node

    /** Frame interval after start, of a node with VIDIOC_G_PARM. */
    std::optional<v4l2_fract> interval = {};
    uint32_t minBuffers = 1, maxBuffers = 32;        ///< that VIDIOC_REQBUFS grants
    std::optional<uint32_t> queueCapabilities = {};  ///< V4L2_BUF_CAP_*

    std::optional<std::vector<ControlDesc>> controls = {};  ///< nothing: the engine's own
    /** Without inputs and outputs those that the kernel gives nodes of V4L2_CAP_IO_MC. */
    SignalDesc signal = {};
    /**
     * The second queue of a memory-to-memory node, or nothing: of it the fields from `bufType` to
     * `queueCapabilities` count. It tells its formats, and streams nothing.
     */
    std::vector<VideoDesc> secondQueue = {};
};

/** A port of the engine without a part in its pictures: its captures show the test picture. */
inline constexpr uint32_t kPlainRole = UINT32_MAX;

/** A control of the driver's private ioctls. */
struct PrivateControlDesc {
    int32_t id = 0;
    int32_t minimum = 0, maximum = 0, value = 0;
};

/** A sub-device node. */
struct SubDeviceDesc {
    uint32_t version = 6 << 16 | 1 << 8;  ///< of VIDIOC_SUBDEV_QUERYCAP
    uint32_t capabilities = 0;
    bool sendsFrameSync = true;  ///< takes subscriptions to V4L2_EVENT_FRAME_SYNC
    /** It knows the driver's private ioctls, with these controls; without it they are ENOTTY. */
    std::optional<std::vector<PrivateControlDesc>> privateControls = {};
    std::vector<ControlDesc> controls = {};
    std::vector<PadDesc> pads = {};  ///< those that tell a format
};

/** An entity, with a video node, a sub-device node or no node behind it. */
struct EntityDesc {
    std::string name;
    uint32_t function = 0;           ///< MEDIA_ENT_F_*
    std::vector<uint32_t> padFlags;  ///< MEDIA_PAD_FL_* of each pad
    std::optional<VideoDesc> video = {};
    std::optional<SubDeviceDesc> subDevice = {};
    NodeDesc node = {};  ///< of the one or the other
    /** An earlier entity whose node this one has as well, as both ends of a memory-to-memory node.
     */
    std::string nodeOf = {};
    uint32_t id = 0;     ///< 0: the next number
    uint32_t flags = 0;  ///< MEDIA_ENT_FL_*
    /** What MEDIA_IOC_ENUM_ENTITIES gives for its type; 0: as the kernel derives it. */
    uint32_t type = 0;
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

/**
 * Sizes to ask a format for, so that its answers tell how it rounds and lays out every size: the
 * smallest, the largest, the usual ones, and some that few drivers take as they are.
 */
inline constexpr std::array<std::pair<uint32_t, uint32_t>, 14> kProbedSizes = {{
    {1, 1},
    {98, 50},
    {101, 67},
    {130, 34},
    {162, 66},
    {320, 240},
    {333, 251},
    {640, 480},
    {1000, 701},
    {1280, 720},
    {1366, 768},
    {1920, 1080},
    {2047, 1025},
    {16384, 16384},
}};

}  // namespace NSVista::NSCorvane::sim
