#include "NodeFormats.h"

#include <corvane/client/NodeFd.h>
#include <fcntl.h>

namespace NSVista::NSCorvane::tools {

namespace {

std::vector<uint32_t> readSupported(client::NodeFd& node, uint32_t bufferType) {
    std::vector<uint32_t> supported;
    v4l2_fmtdesc desc = {};
    desc.type = bufferType;
    while (node.ioctl(VIDIOC_ENUM_FMT, &desc) >= 0) {
        supported.push_back(desc.pixelformat);
        desc.index++;
    }
    return supported;
}

}  // namespace

NodeFormats readFormats(const std::string& devnode) {
    client::NodeFd node(devnode.c_str(), O_RDWR | O_NONBLOCK);
    if (!node)
        return {node.error(), {}};
    v4l2_capability capability = {};
    if (const int r = node.ioctl(VIDIOC_QUERYCAP, &capability); r < 0)
        return {r, {}};
    const uint32_t caps = v4l2::deviceCaps(capability);

    NodeFormats result = {};
    for (const v4l2::BufferType& type : v4l2::kBufferTypes) {
        if ((caps & (type.caps | type.m2mCaps)) == 0)
            continue;
        v4l2_format format = {};
        format.type = type.type;
        if (const int r = node.ioctl(VIDIOC_G_FMT, &format); r < 0) {
            result.error = r;
            continue;
        }
        QueueFormat& queue =
            result.queues.emplace_back(QueueFormat{&type, {}, readSupported(node, type.type)});
        v4l2::readFormat(format, v4l2::formatClassOfType(type.type), queue.format);
    }
    return result;
}

std::string sizeText(const PixelFormat& format) {
    if (format.width == 0)
        return "-";
    return std::to_string(format.width) + "x" + std::to_string(format.height);
}

}  // namespace NSVista::NSCorvane::tools
