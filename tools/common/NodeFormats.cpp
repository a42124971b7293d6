// SPDX-License-Identifier: Apache-2.0
#include "NodeFormats.h"

#include <corvane/client/NodeFd.h>
#include <fcntl.h>

#include <cstdio>

namespace NSVista::NSCorvane::tools {

namespace {

std::string readSizes(client::NodeFd& node, uint32_t fourcc) {
    std::string text;
    v4l2_frmsizeenum size = {};
    size.pixel_format = fourcc;
    for (; node.ioctl(VIDIOC_ENUM_FRAMESIZES, &size) >= 0; ++size.index) {
        if (size.type != V4L2_FRMSIZE_TYPE_DISCRETE) {
            const v4l2_frmsize_stepwise& range = size.stepwise;
            return pairText(range.min_width, range.min_height) + " to " +
                   pairText(range.max_width, range.max_height) + " by " +
                   pairText(range.step_width, range.step_height);
        }
        text += (text.empty() ? "" : " ") + pairText(size.discrete.width, size.discrete.height);
    }
    return text;
}

std::string rateText(const v4l2_fract& interval) {
    char text[32];
    snprintf(text, sizeof(text), "%g",
             interval.numerator == 0
                 ? 0.0
                 : static_cast<double>(interval.denominator) / interval.numerator);
    return text;
}

std::string readRates(client::NodeFd& node, const PixelFormat& format) {
    std::string text;
    v4l2_frmivalenum rate = {};
    rate.pixel_format = format.format;
    rate.width = format.width;
    rate.height = format.height;
    for (; node.ioctl(VIDIOC_ENUM_FRAMEINTERVALS, &rate) >= 0; ++rate.index) {
        if (rate.type != V4L2_FRMIVAL_TYPE_DISCRETE)
            return rateText(rate.stepwise.max) + " to " + rateText(rate.stepwise.min);
        text += (text.empty() ? "" : " ") + rateText(rate.discrete);
    }
    return text;
}

std::vector<OfferedFormat> readOffered(client::NodeFd& node, uint32_t bufferType) {
    std::vector<OfferedFormat> offered;
    v4l2_fmtdesc desc = {};
    desc.type = bufferType;
    for (; node.ioctl(VIDIOC_ENUM_FMT, &desc) >= 0; ++desc.index)
        offered.push_back({desc.pixelformat, readSizes(node, desc.pixelformat)});
    return offered;
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
            result.queues.emplace_back(QueueFormat{&type, {}, readOffered(node, type.type), {}});
        v4l2::readFormat(format, v4l2::formatClassOfType(type.type), queue.format);
        queue.rates = readRates(node, queue.format);
    }
    return result;
}

std::string pairText(uint32_t width, uint32_t height) {
    return std::to_string(width) + "x" + std::to_string(height);
}

std::string sizeText(const PixelFormat& format) {
    return format.width == 0 ? "-" : pairText(format.width, format.height);
}

}  // namespace NSVista::NSCorvane::tools
