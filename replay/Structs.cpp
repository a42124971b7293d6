// SPDX-License-Identifier: Apache-2.0
#include <corvane/kvxdip.h>
#include <linux/media.h>
#include <linux/v4l2-subdev.h>
#include <linux/videodev2.h>

#include "Layout.h"
#include "RecordArgument.h"

namespace NSVista::NSCorvane::replay {

namespace {

constexpr uint64_t bit(unsigned value) {
    return uint64_t{1} << value;
}
constexpr uint64_t kAlways = ~uint64_t{0};

#define LISTED(prefix, name) \
    { prefix##name, #name }

constexpr Name kBufTypes[] = {
    LISTED(V4L2_BUF_TYPE_, VIDEO_CAPTURE),       LISTED(V4L2_BUF_TYPE_, VIDEO_OUTPUT),
    LISTED(V4L2_BUF_TYPE_, VIDEO_OVERLAY),       LISTED(V4L2_BUF_TYPE_, VIDEO_CAPTURE_MPLANE),
    LISTED(V4L2_BUF_TYPE_, VIDEO_OUTPUT_MPLANE), LISTED(V4L2_BUF_TYPE_, META_CAPTURE),
    LISTED(V4L2_BUF_TYPE_, META_OUTPUT),         LISTED(V4L2_BUF_TYPE_, VBI_CAPTURE),
    LISTED(V4L2_BUF_TYPE_, SDR_CAPTURE),
};
constexpr Name kMemories[] = {LISTED(V4L2_MEMORY_, MMAP), LISTED(V4L2_MEMORY_, USERPTR),
                              LISTED(V4L2_MEMORY_, DMABUF)};
constexpr Name kFields[] = {LISTED(V4L2_FIELD_, ANY), LISTED(V4L2_FIELD_, NONE),
                            LISTED(V4L2_FIELD_, INTERLACED), LISTED(V4L2_FIELD_, ALTERNATE)};
constexpr Name kBufFlags[] = {
    LISTED(V4L2_BUF_FLAG_, MAPPED),
    LISTED(V4L2_BUF_FLAG_, QUEUED),
    LISTED(V4L2_BUF_FLAG_, DONE),
    LISTED(V4L2_BUF_FLAG_, ERROR),
    LISTED(V4L2_BUF_FLAG_, IN_REQUEST),
    LISTED(V4L2_BUF_FLAG_, PREPARED),
    LISTED(V4L2_BUF_FLAG_, LAST),
    LISTED(V4L2_BUF_FLAG_, REQUEST_FD),
    LISTED(V4L2_BUF_FLAG_, TIMESTAMP_MONOTONIC),
    LISTED(V4L2_BUF_FLAG_, TIMESTAMP_COPY),
};
constexpr Name kBufCaps[] = {
    LISTED(V4L2_BUF_CAP_, SUPPORTS_MMAP),          LISTED(V4L2_BUF_CAP_, SUPPORTS_USERPTR),
    LISTED(V4L2_BUF_CAP_, SUPPORTS_DMABUF),        LISTED(V4L2_BUF_CAP_, SUPPORTS_REQUESTS),
    LISTED(V4L2_BUF_CAP_, SUPPORTS_ORPHANED_BUFS),
};
constexpr Name kCaps[] = {
    LISTED(V4L2_CAP_, VIDEO_CAPTURE),
    LISTED(V4L2_CAP_, VIDEO_OUTPUT),
    LISTED(V4L2_CAP_, VIDEO_CAPTURE_MPLANE),
    LISTED(V4L2_CAP_, VIDEO_OUTPUT_MPLANE),
    LISTED(V4L2_CAP_, VIDEO_M2M),
    LISTED(V4L2_CAP_, VIDEO_M2M_MPLANE),
    LISTED(V4L2_CAP_, META_CAPTURE),
    LISTED(V4L2_CAP_, META_OUTPUT),
    LISTED(V4L2_CAP_, EXT_PIX_FORMAT),
    LISTED(V4L2_CAP_, READWRITE),
    LISTED(V4L2_CAP_, STREAMING),
    LISTED(V4L2_CAP_, IO_MC),
    LISTED(V4L2_CAP_, TOUCH),
    LISTED(V4L2_CAP_, DEVICE_CAPS),
};
constexpr Name kEvents[] = {LISTED(V4L2_EVENT_, ALL),        LISTED(V4L2_EVENT_, VSYNC),
                            LISTED(V4L2_EVENT_, EOS),        LISTED(V4L2_EVENT_, CTRL),
                            LISTED(V4L2_EVENT_, FRAME_SYNC), LISTED(V4L2_EVENT_, SOURCE_CHANGE)};
constexpr Name kControlTypes[] = {
    LISTED(V4L2_CTRL_TYPE_, INTEGER),      LISTED(V4L2_CTRL_TYPE_, BOOLEAN),
    LISTED(V4L2_CTRL_TYPE_, MENU),         LISTED(V4L2_CTRL_TYPE_, BUTTON),
    LISTED(V4L2_CTRL_TYPE_, INTEGER64),    LISTED(V4L2_CTRL_TYPE_, CTRL_CLASS),
    LISTED(V4L2_CTRL_TYPE_, STRING),       LISTED(V4L2_CTRL_TYPE_, BITMASK),
    LISTED(V4L2_CTRL_TYPE_, INTEGER_MENU),
};
constexpr Name kWhich[] = {LISTED(V4L2_CTRL_WHICH_, CUR_VAL), LISTED(V4L2_CTRL_WHICH_, DEF_VAL),
                           LISTED(V4L2_CTRL_WHICH_, REQUEST_VAL)};
constexpr Name kLinkFlags[] = {LISTED(MEDIA_LNK_FL_, ENABLED), LISTED(MEDIA_LNK_FL_, IMMUTABLE),
                               LISTED(MEDIA_LNK_FL_, DYNAMIC)};
constexpr Name kPadFlags[] = {LISTED(MEDIA_PAD_FL_, SINK), LISTED(MEDIA_PAD_FL_, SOURCE),
                              LISTED(MEDIA_PAD_FL_, MUST_CONNECT)};
#undef LISTED

#define GROUP(name, ...)                            \
    constexpr Field name##Fields[] = {__VA_ARGS__}; \
    constexpr StructInfo name = {name##Fields, false}
#define PACKED(name, ...)                           \
    constexpr Field name##Fields[] = {__VA_ARGS__}; \
    constexpr StructInfo name = {name##Fields, true}

constexpr Field number(const char* name, Type type = Type::U32, size_t count = 1) {
    return {.name = name, .type = type, .count = count};
}
constexpr Field text(const char* name, size_t size) {
    return {.name = name, .type = Type::Text, .count = size};
}
constexpr Field named(const char* name, std::span<const Name> names) {
    return {.name = name, .type = Type::Names, .names = names};
}
constexpr Field flags(const char* name, std::span<const Name> names) {
    return {.name = name, .type = Type::Flags, .names = names};
}
constexpr Field group(const char* name, const StructInfo& sub, size_t count = 1) {
    return {.name = name, .type = Type::Group, .count = count, .sub = &sub};
}
constexpr Field choice(const char* selector, std::span<const Alternative> alternatives,
                       size_t least = 0) {
    return {.name = "",
            .type = Type::Choice,
            .alternatives = alternatives,
            .other = selector,
            .least = least};
}
constexpr Field pointer(const char* name, const StructInfo& items, const char* count,
                        uint32_t array = record::kArray) {
    return {.name = name, .type = Type::Pointer, .sub = &items, .other = count, .array = array};
}
constexpr uint64_t kPlanarTypes =
    bit(V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE) | bit(V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE);
constexpr uint64_t kPlainTypes = bit(V4L2_BUF_TYPE_VIDEO_CAPTURE) | bit(V4L2_BUF_TYPE_VIDEO_OUTPUT);
constexpr uint64_t kMetaTypes = bit(V4L2_BUF_TYPE_META_CAPTURE) | bit(V4L2_BUF_TYPE_META_OUTPUT);

GROUP(kInt, number("value", Type::S32));
GROUP(kHandle, number("fd", Type::Handle));
GROUP(kBufType, named("type", kBufTypes));

// Queues.
constexpr Field kOffset = number("offset");
constexpr Field kUserPointer = number("userptr", Type::Long);
constexpr Field kDmaBuf = number("fd", Type::Handle);
constexpr Alternative kPlaneMemory[] = {{bit(V4L2_MEMORY_MMAP), &kOffset},
                                        {bit(V4L2_MEMORY_USERPTR), &kUserPointer},
                                        {bit(V4L2_MEMORY_DMABUF), &kDmaBuf}};
GROUP(kPlane, number("bytesused"), number("length"), choice("memory", kPlaneMemory),
      number("data_offset"), number("reserved", Type::U32, 11));
constexpr Field kPlanes = pointer("planes", kPlane, "length");
constexpr Alternative kBufferMemory[] = {
    {kPlanarTypes, &kPlanes, "type"},
    {bit(V4L2_MEMORY_MMAP), &kOffset},
    {bit(V4L2_MEMORY_USERPTR), &kUserPointer},
    {bit(V4L2_MEMORY_DMABUF), &kDmaBuf},
};
GROUP(kTimecode, number("type"), number("flags"), number("frames", Type::U8),
      number("seconds", Type::U8), number("minutes", Type::U8), number("hours", Type::U8),
      number("userbits", Type::U8, 4));
GROUP(kBuffer, number("index"), named("type", kBufTypes), number("bytesused"),
      flags("flags", kBufFlags), named("field", kFields), number("timestamp", Type::Time),
      group("timecode", kTimecode), number("sequence"), named("memory", kMemories),
      choice("memory", kBufferMemory), number("length"), number("reserved2"),
      number("request_fd", Type::Handle));
GROUP(kRequestBuffers, number("count"), named("type", kBufTypes), named("memory", kMemories),
      flags("capabilities", kBufCaps), number("flags", Type::U8), number("reserved", Type::U8, 3));
GROUP(kExport, named("type", kBufTypes), number("index"), number("plane"),
      number("flags", Type::Hex), number("fd", Type::Handle), number("reserved", Type::U32, 11));

// Formats.
GROUP(kPix, number("width"), number("height"), number("pixelformat", Type::Fourcc),
      named("field", kFields), number("bytesperline"), number("sizeimage"), number("colorspace"),
      number("priv", Type::Hex), number("flags"), number("ycbcr_enc"), number("quantization"),
      number("xfer_func"));
PACKED(kPlaneFormat, number("sizeimage"), number("bytesperline"), number("reserved", Type::U16, 6));
PACKED(kPixPlanar, number("width"), number("height"), number("pixelformat", Type::Fourcc),
       named("field", kFields), number("colorspace"),
       group("plane_fmt", kPlaneFormat, VIDEO_MAX_PLANES), number("num_planes", Type::U8),
       number("flags", Type::U8), number("ycbcr_enc", Type::U8), number("quantization", Type::U8),
       number("xfer_func", Type::U8), number("reserved", Type::U8, 7));
PACKED(kMeta, number("dataformat", Type::Fourcc), number("buffersize"));
constexpr Field kFmtPix = group("pix", kPix);
constexpr Field kFmtPlanar = group("pix_mp", kPixPlanar);
constexpr Field kFmtMeta = group("meta", kMeta);
constexpr Field kFmtAddress = number("raw", Type::Long);  // aligns the union
constexpr Alternative kFormats[] = {{kPlainTypes, &kFmtPix},
                                    {kPlanarTypes, &kFmtPlanar},
                                    {kMetaTypes, &kFmtMeta},
                                    {0, &kFmtAddress}};
GROUP(kFormat, named("type", kBufTypes), choice("type", kFormats, 200));
GROUP(kFormatDesc, number("index"), named("type", kBufTypes), number("flags", Type::Hex),
      text("description", 32), number("pixelformat", Type::Fourcc), number("mbus_code", Type::Hex),
      number("reserved", Type::U32, 3));
GROUP(kCreateBuffers, number("index"), number("count"), named("memory", kMemories),
      group("format", kFormat), flags("capabilities", kBufCaps), number("flags"),
      number("reserved", Type::U32, 6));
GROUP(kFraction, number("numerator"), number("denominator"));
GROUP(kParameters, number("capability", Type::Hex), number("mode"),
      group("timeperframe", kFraction), number("extendedmode"), number("buffers"),
      number("reserved", Type::U32, 4));
constexpr Field kStreamParameters = group("parm", kParameters);
constexpr Alternative kStreamParm[] = {{kAlways, &kStreamParameters}};
GROUP(kStreamParmOf, named("type", kBufTypes), choice("type", kStreamParm, 200));
GROUP(kSizeOfFrame, number("min_width"), number("max_width"), number("step_width"),
      number("min_height"), number("max_height"), number("step_height"));
GROUP(kFrameSize, number("index"), number("pixel_format", Type::Fourcc), number("type"),
      group("size", kSizeOfFrame), number("reserved", Type::U32, 2));
GROUP(kIntervals, group("min", kFraction), group("max", kFraction), group("step", kFraction));
GROUP(kFrameInterval, number("index"), number("pixel_format", Type::Fourcc), number("width"),
      number("height"), number("type"), group("interval", kIntervals),
      number("reserved", Type::U32, 2));
GROUP(kRect, number("left", Type::S32), number("top", Type::S32), number("width"),
      number("height"));
GROUP(kSelection, named("type", kBufTypes), number("target", Type::Hex), number("flags", Type::Hex),
      group("r", kRect), number("reserved", Type::U32, 9));

// Controls and events.
constexpr Field kValue = number("value", Type::S32);
constexpr Field kValue64 = number("value64", Type::S64);
// The kernel does not tell which member counts; the low half of a small number is the same.
constexpr Alternative kControlValue[] = {{kAlways, &kValue}, {0, &kValue64}};
PACKED(kExtControl, number("id", Type::Hex), number("size"), number("reserved2"),
       choice("id", kControlValue));
GROUP(kExtControls, named("which", kWhich), number("count"), number("error_idx"),
      number("request_fd", Type::Handle), number("reserved"),
      pointer("controls", kExtControl, "count"));
GROUP(kControl, number("id", Type::Hex), number("value", Type::S32));
GROUP(kQueryControl, number("id", Type::Hex), named("type", kControlTypes), text("name", 32),
      number("minimum", Type::S32), number("maximum", Type::S32), number("step", Type::S32),
      number("default_value", Type::S32), number("flags", Type::Hex),
      number("reserved", Type::U32, 2));
GROUP(kQueryExtControl, number("id", Type::Hex), named("type", kControlTypes), text("name", 32),
      number("minimum", Type::S64), number("maximum", Type::S64), number("step", Type::U64),
      number("default_value", Type::S64), number("flags", Type::Hex), number("elem_size"),
      number("elems"), number("nr_of_dims"), number("dims", Type::U32, 4),
      number("reserved", Type::U32, 32));
PACKED(kQueryMenu, number("id", Type::Hex), number("index"), text("name", 32), number("reserved"));
GROUP(kSubscription, named("type", kEvents), number("id", Type::Hex), number("flags", Type::Hex),
      number("reserved", Type::U32, 5));
constexpr Field kFrameSequence = number("frame_sequence");
constexpr Field kEventWord = number("data", Type::U64);
constexpr Alternative kEventData[] = {{bit(V4L2_EVENT_FRAME_SYNC), &kFrameSequence},
                                      {0, &kEventWord}};
GROUP(kEvent, named("type", kEvents), choice("type", kEventData, 64), number("pending"),
      number("sequence"), number("timestamp", Type::Time), number("id", Type::Hex),
      number("reserved", Type::U32, 8));

// Nodes.
GROUP(kCapability, text("driver", 16), text("card", 32), text("bus_info", 32),
      number("version", Type::Hex), flags("capabilities", kCaps), flags("device_caps", kCaps),
      number("reserved", Type::U32, 3));
GROUP(kSubdevCapability, number("version", Type::Hex), number("capabilities", Type::Hex),
      number("reserved", Type::U32, 14));
GROUP(kMbusFormat, number("width"), number("height"), number("code", Type::Hex),
      named("field", kFields), number("colorspace"), number("ycbcr_enc", Type::U16),
      number("quantization", Type::U16), number("xfer_func", Type::U16), number("flags", Type::U16),
      number("reserved", Type::U16, 10));
GROUP(kSubdevFormat, number("which"), number("pad"), group("format", kMbusFormat),
      number("reserved", Type::U32, 8));
GROUP(kMbusCode, number("pad"), number("index"), number("code", Type::Hex), number("which"),
      number("flags"), number("reserved", Type::U32, 7));
GROUP(kSubdevFrameSize, number("index"), number("pad"), number("code", Type::Hex),
      number("min_width"), number("max_width"), number("min_height"), number("max_height"),
      number("which"), number("reserved", Type::U32, 8));
GROUP(kSubdevInterval, number("pad"), group("interval", kFraction),
      number("reserved", Type::U32, 9));
GROUP(kSubdevSelection, number("which"), number("pad"), number("target", Type::Hex),
      number("flags", Type::Hex), group("r", kRect), number("reserved", Type::U32, 8));

// Media devices.
GROUP(kDeviceInfo, text("driver", 16), text("model", 32), text("serial", 40), text("bus_info", 32),
      number("media_version", Type::Hex), number("hw_revision", Type::Hex),
      number("driver_version", Type::Hex), number("reserved", Type::U32, 31));
GROUP(kDeviceNumber, number("major"), number("minor"));
constexpr Field kDevice = group("dev", kDeviceNumber);
constexpr Alternative kEntityDevice[] = {{kAlways, &kDevice}};
GROUP(kEntity, number("id", Type::Hex), text("name", 32), number("type", Type::Hex),
      number("revision"), number("flags", Type::Hex), number("group_id"), number("pads", Type::U16),
      number("links", Type::U16), number("reserved", Type::U32, 4),
      choice("type", kEntityDevice, 184));
GROUP(kPad, number("entity", Type::Hex), number("index", Type::U16), flags("flags", kPadFlags),
      number("reserved", Type::U32, 2));
GROUP(kLink, group("source", kPad), group("sink", kPad), flags("flags", kLinkFlags),
      number("reserved", Type::U32, 2));
GROUP(kLinks, number("entity", Type::Hex), pointer("pads", kPad, nullptr),
      pointer("links", kLink, nullptr, record::kArray + 1), number("reserved", Type::U32, 4));
PACKED(kEntityV2, number("id", Type::Hex), text("name", 64), number("function", Type::Hex),
       number("flags", Type::Hex), number("reserved", Type::U32, 5));
PACKED(kInterfaceV2, number("id", Type::Hex), number("intf_type", Type::Hex), number("flags"),
       number("reserved", Type::U32, 9), number("major"), number("minor"),
       number("raw", Type::U32, 14));
PACKED(kPadV2, number("id", Type::Hex), number("entity_id", Type::Hex), flags("flags", kPadFlags),
       number("index"), number("reserved", Type::U32, 4));
PACKED(kLinkV2, number("id", Type::Hex), number("source_id", Type::Hex),
       number("sink_id", Type::Hex), flags("flags", kLinkFlags), number("reserved", Type::U32, 6));
// Addresses of this struct are 64 bits wide on every machine.
constexpr Field wide(const char* name, const StructInfo& items, uint32_t array) {
    return {.name = name,
            .type = Type::Pointer,
            .sub = &items,
            .array = record::kArray + array,
            .least = 8};
}
PACKED(kTopology, number("topology_version", Type::U64), number("num_entities"),
       number("reserved1"), wide("entities", kEntityV2, 0), number("num_interfaces"),
       number("reserved2"), wide("interfaces", kInterfaceV2, 1), number("num_pads"),
       number("reserved3"), wide("pads", kPadV2, 2), number("num_links"), number("reserved4"),
       wide("links", kLinkV2, 3));

// The sub-device's private calls.
PACKED(kMemory, number("is_smvr", Type::U8), number("is_capture", Type::U8));
PACKED(kKva, number("count", Type::U8), number("fd", Type::Handle, KVXDIP_KVA_MAX),
       number("reserved", Type::U8, 256));
PACKED(kIova, number("fd", Type::Handle), number("coherence", Type::U8),
       number("reserved", Type::U8, 251), number("count"));
PACKED(kDescriptor, number("", Type::Handle));
PACKED(kFence, number("count", Type::U8), wide("fds", kDescriptor, 0));
static_assert(record::kAddFence == KVXDIP_IOC_ADD_FENCE &&
              record::kDelFence == KVXDIP_IOC_DEL_FENCE);
PACKED(kUserResource, number("user_id", Type::U64), number("instance", Type::U64));
PACKED(kDipControl, number("id", Type::S32), number("value", Type::S32));
PACKED(kInitInfo, number("data", Type::U8, 8));

#define CALL(name, argument) \
    { static_cast<uint32_t>(name), #name, argument }

constexpr IoctlInfo kTable[] = {
    CALL(VIDIOC_QUERYCAP, &kCapability),
    CALL(VIDIOC_SUBDEV_QUERYCAP, &kSubdevCapability),
    CALL(VIDIOC_ENUM_FMT, &kFormatDesc),
    CALL(VIDIOC_SUBDEV_ENUM_MBUS_CODE, &kMbusCode),
    CALL(VIDIOC_G_FMT, &kFormat),
    CALL(VIDIOC_SUBDEV_G_FMT, &kSubdevFormat),
    CALL(VIDIOC_S_FMT, &kFormat),
    CALL(VIDIOC_SUBDEV_S_FMT, &kSubdevFormat),
    CALL(VIDIOC_TRY_FMT, &kFormat),
    CALL(VIDIOC_ENUM_FRAMESIZES, &kFrameSize),
    CALL(VIDIOC_SUBDEV_ENUM_FRAME_SIZE, &kSubdevFrameSize),
    CALL(VIDIOC_ENUM_FRAMEINTERVALS, &kFrameInterval),
    CALL(VIDIOC_SUBDEV_G_FRAME_INTERVAL, &kSubdevInterval),
    CALL(VIDIOC_SUBDEV_S_FRAME_INTERVAL, &kSubdevInterval),
    CALL(VIDIOC_G_SELECTION, &kSelection),
    CALL(VIDIOC_S_SELECTION, &kSelection),
    CALL(VIDIOC_SUBDEV_G_SELECTION, &kSubdevSelection),
    CALL(VIDIOC_SUBDEV_S_SELECTION, &kSubdevSelection),
    CALL(VIDIOC_G_PARM, &kStreamParmOf),
    CALL(VIDIOC_S_PARM, &kStreamParmOf),
    CALL(VIDIOC_REQBUFS, &kRequestBuffers),
    CALL(VIDIOC_CREATE_BUFS, &kCreateBuffers),
    CALL(VIDIOC_QUERYBUF, &kBuffer),
    CALL(VIDIOC_PREPARE_BUF, &kBuffer),
    CALL(VIDIOC_QBUF, &kBuffer),
    CALL(VIDIOC_DQBUF, &kBuffer),
    CALL(VIDIOC_EXPBUF, &kExport),
    CALL(VIDIOC_STREAMON, &kBufType),
    CALL(VIDIOC_STREAMOFF, &kBufType),
    CALL(VIDIOC_G_PRIORITY, &kInt),
    CALL(VIDIOC_S_PRIORITY, &kInt),
    CALL(VIDIOC_G_INPUT, &kInt),
    CALL(VIDIOC_S_INPUT, &kInt),
    CALL(VIDIOC_G_OUTPUT, &kInt),
    CALL(VIDIOC_S_OUTPUT, &kInt),
    CALL(VIDIOC_QUERYCTRL, &kQueryControl),
    CALL(VIDIOC_QUERY_EXT_CTRL, &kQueryExtControl),
    CALL(VIDIOC_QUERYMENU, &kQueryMenu),
    CALL(VIDIOC_G_CTRL, &kControl),
    CALL(VIDIOC_S_CTRL, &kControl),
    CALL(VIDIOC_G_EXT_CTRLS, &kExtControls),
    CALL(VIDIOC_S_EXT_CTRLS, &kExtControls),
    CALL(VIDIOC_TRY_EXT_CTRLS, &kExtControls),
    CALL(VIDIOC_SUBSCRIBE_EVENT, &kSubscription),
    CALL(VIDIOC_UNSUBSCRIBE_EVENT, &kSubscription),
    CALL(VIDIOC_DQEVENT, &kEvent),
    CALL(VIDIOC_LOG_STATUS, nullptr),
    CALL(MEDIA_IOC_DEVICE_INFO, &kDeviceInfo),
    CALL(MEDIA_IOC_ENUM_ENTITIES, &kEntity),
    CALL(MEDIA_IOC_ENUM_LINKS, &kLinks),
    CALL(MEDIA_IOC_SETUP_LINK, &kLink),
    CALL(MEDIA_IOC_G_TOPOLOGY, &kTopology),
    CALL(MEDIA_IOC_REQUEST_ALLOC, &kHandle),
    CALL(MEDIA_REQUEST_IOC_QUEUE, nullptr),
    CALL(MEDIA_REQUEST_IOC_REINIT, nullptr),
    CALL(KVXDIP_IOC_ADD_KVA, &kKva),
    CALL(KVXDIP_IOC_DEL_KVA, &kKva),
    CALL(KVXDIP_IOC_S_INIT_INFO, &kInitInfo),
    CALL(KVXDIP_IOC_SET_CONTROL, &kDipControl),
    CALL(KVXDIP_IOC_GET_CONTROL, &kDipControl),
    CALL(KVXDIP_IOC_ADD_FENCE, &kFence),
    CALL(KVXDIP_IOC_DEL_FENCE, &kFence),
    CALL(KVXDIP_IOC_ALOC_BUF, &kMemory),
    CALL(KVXDIP_IOC_FREE_BUF, &kMemory),
    CALL(KVXDIP_IOC_CLEAR_USER_RESOURCE, &kUserResource),
    CALL(KVXDIP_IOC_ACQUIRE_IOVA, &kIova),
    CALL(KVXDIP_IOC_RELEASE_IOVA, &kIova),
};

#undef CALL
#undef GROUP
#undef PACKED

}  // namespace

std::span<const IoctlInfo> ioctlTable() {
    return kTable;
}

}  // namespace NSVista::NSCorvane::replay
