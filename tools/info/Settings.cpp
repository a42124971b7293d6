// SPDX-License-Identifier: Apache-2.0
#include "Settings.h"

#include <corvane/V4L2.h>
#include <corvane/client/NodeFd.h>
#include <fcntl.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

namespace NSVista::NSCorvane::tools {

namespace {

/** Writes what is wished into a format. @return false for a wish that says nothing. */
bool change(v4l2_format& format, uint32_t fourcc, uint32_t width, uint32_t height) {
    if (v4l2::isMeta(format.type)) {
        format.fmt.meta.dataformat = fourcc;
        return width == 0;
    }
    const auto apply = [&](auto& pixels) {
        if (fourcc != 0)
            pixels.pixelformat = fourcc;
        if (width != 0) {
            pixels.width = width;
            pixels.height = height;
        }
    };
    if (v4l2::isMultiPlanar(format.type)) {
        apply(format.fmt.pix_mp);
        memset(format.fmt.pix_mp.plane_fmt, 0, sizeof(format.fmt.pix_mp.plane_fmt));
    } else {
        apply(format.fmt.pix);
        format.fmt.pix.bytesperline = 0;
    }
    return true;
}

/** How a link may be named: the first way is that of the listing, but ">" is a shell's as well. */
bool isNamed(const Device& device, const media_link_desc& link, const std::string& name) {
    const std::string source = device.endText(link.source);
    const std::string sink = device.endText(link.sink);
    return name == source + "->" + sink || name == source + "," + sink;
}

}  // namespace

ExitCode setLink(const Device& device, const std::string& wish) {
    const size_t equals = wish.rfind('=');
    const std::string ends = wish.substr(0, equals);
    const std::string state = equals == std::string::npos ? std::string() : wish.substr(equals + 1);
    if (state != "on" && state != "off")
        return complain(kBadUse, "a link is SOURCE:PAD,SINK:PAD=on or =off, not \"%s\"",
                        wish.c_str());
    const auto found =
        std::find_if(device.links.begin(), device.links.end(),
                     [&](const media_link_desc& link) { return isNamed(device, link, ends); });
    if (found == device.links.end())
        return complain(kBadUse, "%s has no link \"%s\"", device.path.c_str(), ends.c_str());
    client::NodeFd node(device.path.c_str(), O_RDWR);
    media_link_desc link = *found;
    link.flags = state == "on" ? link.flags | MEDIA_LNK_FL_ENABLED
                               : link.flags & ~static_cast<uint32_t>(MEDIA_LNK_FL_ENABLED);
    const int result = node ? node.ioctl(MEDIA_IOC_SETUP_LINK, &link) : node.error();
    return result < 0 ? complain(kRunFailed, "%s: %s", ends.c_str(), strerror(-result)) : kSuccess;
}

ExitCode setFormat(const Device& device, const std::string& wish) {
    const size_t equals = wish.find('=');
    const Entity* const entity = device.find(wish.substr(0, equals));
    if (entity == nullptr || !entity->isVideoNode() || entity->devnode.empty())
        return complain(kBadUse, "%s has no video node \"%s\"", device.path.c_str(),
                        wish.substr(0, equals).c_str());
    const std::string value = equals == std::string::npos ? std::string() : wish.substr(equals + 1);
    const size_t comma = value.find(',');
    const std::string last = comma == std::string::npos ? value : value.substr(comma + 1);
    uint32_t width = 0;
    uint32_t height = 0;
    char rest = 0;
    const bool hasSize = sscanf(last.c_str(), "%5ux%5u%c", &width, &height, &rest) == 2;
    const bool hasFormat = comma != std::string::npos || !hasSize;
    const uint32_t fourcc = hasFormat ? v4l2::fourccOf(value.substr(0, comma)) : 0;
    if ((hasFormat && fourcc == 0) || (comma != std::string::npos && !hasSize))
        return complain(kBadUse,
                        "a format is FORMAT, WIDTHxHEIGHT or both with a comma, not \"%s\"",
                        value.c_str());

    client::NodeFd node(entity->devnode.c_str(), O_RDWR | O_NONBLOCK);
    if (!node)
        return complain(kRunFailed, "%s: %s", entity->devnode.c_str(), strerror(-node.error()));
    v4l2_capability caps = {};
    v4l2_format format = {};
    int result = node.ioctl(VIDIOC_QUERYCAP, &caps);
    format.type = v4l2::portBufferType(v4l2::deviceCaps(caps));
    if (result >= 0)
        result = node.ioctl(VIDIOC_G_FMT, &format);
    if (result >= 0 && !change(format, fourcc, width, height))
        return complain(kBadUse, "%s holds metadata, which has no size", entity->name.c_str());
    if (result >= 0)
        result = node.ioctl(VIDIOC_S_FMT, &format);
    if (result < 0)
        return complain(kRunFailed, "%s: %s", entity->name.c_str(), strerror(-result));
    PixelFormat made = {};
    v4l2::readFormat(format, v4l2::formatClassOfType(format.type), made);
    if (fourcc != 0 && made.format != fourcc)
        return complain(kBadUse, "%s has no format %s: the driver made %s of it",
                        entity->name.c_str(), v4l2::formatName(fourcc).c_str(),
                        v4l2::formatName(made.format).c_str());
    return kSuccess;
}

}  // namespace NSVista::NSCorvane::tools
