#include "NodeFormats.h"

#include <fcntl.h>
#include <linux/videodev2.h>

#include <algorithm>

#include <corvane/client/NodeFd.h>

namespace NSVista::NSCorvane::tools {

namespace {

struct QueueType {
    uint32_t caps;
    uint32_t bufType;
    const char* text;
};

constexpr QueueType kQueueTypes[] = {
    {V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_M2M, V4L2_BUF_TYPE_VIDEO_CAPTURE, "video capture"},
    {V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_M2M_MPLANE, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE,
     "video capture, multi-planar"},
    {V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_M2M, V4L2_BUF_TYPE_VIDEO_OUTPUT, "video output"},
    {V4L2_CAP_VIDEO_OUTPUT_MPLANE | V4L2_CAP_VIDEO_M2M_MPLANE, V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE,
     "video output, multi-planar"},
    {V4L2_CAP_META_CAPTURE, V4L2_BUF_TYPE_META_CAPTURE, "metadata capture"},
    {V4L2_CAP_META_OUTPUT, V4L2_BUF_TYPE_META_OUTPUT, "metadata output"},
};

std::vector<uint32_t> readSupported(client::NodeFd& node, uint32_t bufType) {
    std::vector<uint32_t> supported;
    v4l2_fmtdesc desc = {};
    desc.type = bufType;
    while (node.ioctl(VIDIOC_ENUM_FMT, &desc) >= 0) {
        supported.push_back(desc.pixelformat);
        desc.index++;
    }
    return supported;
}

QueueFormat makeFormat(const v4l2_format& format, const QueueType& type) {
    if (V4L2_TYPE_IS_MULTIPLANAR(format.type)) {
        const auto& mp = format.fmt.pix_mp;
        QueueFormat result = {type.text, mp.pixelformat, mp.width, mp.height, {}, {}};
        for (unsigned i = 0; i < std::min<unsigned>(mp.num_planes, VIDEO_MAX_PLANES); i++)
            result.planes.push_back({mp.plane_fmt[i].bytesperline, mp.plane_fmt[i].sizeimage});
        return result;
    }
    if (format.type == V4L2_BUF_TYPE_META_CAPTURE || format.type == V4L2_BUF_TYPE_META_OUTPUT) {
        const auto& meta = format.fmt.meta;
        return {type.text, meta.dataformat, 0, 0, {{0, meta.buffersize}}, {}};
    }
    const auto& pix = format.fmt.pix;
    return {type.text, pix.pixelformat, pix.width, pix.height, {{pix.bytesperline, pix.sizeimage}},
            {}};
}

}  // namespace

NodeFormats readFormats(const std::string& devnode) {
    client::NodeFd node(devnode.c_str(), O_RDWR | O_NONBLOCK);
    if (!node)
        return {node.error(), {}};
    v4l2_capability capability = {};
    if (const int r = node.ioctl(VIDIOC_QUERYCAP, &capability); r < 0)
        return {r, {}};
    const bool ownCaps = (capability.capabilities & V4L2_CAP_DEVICE_CAPS) != 0;
    const uint32_t caps = ownCaps ? capability.device_caps : capability.capabilities;

    NodeFormats result = {};
    for (const QueueType& type : kQueueTypes) {
        if ((caps & type.caps) == 0)
            continue;
        v4l2_format format = {};
        format.type = type.bufType;
        if (const int r = node.ioctl(VIDIOC_G_FMT, &format); r < 0) {
            result.error = r;
            continue;
        }
        result.queues.push_back(makeFormat(format, type));
        result.queues.back().supported = readSupported(node, type.bufType);
    }
    return result;
}

std::string fourccText(uint32_t fourcc) {
    std::string text;
    for (int shift = 0; shift < 32; shift += 8) {
        const auto c = static_cast<char>(fourcc >> shift & 0x7f);
        text += c >= ' ' && c <= '~' ? c : '.';
    }
    text.erase(text.find_last_not_of(' ') + 1);
    return (fourcc >> 31 & 1) != 0 ? text + "-BE" : text;
}

}  // namespace NSVista::NSCorvane::tools
