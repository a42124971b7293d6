// SPDX-License-Identifier: Apache-2.0
// What a refused buffer of a video node leaves in the log.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/platform/Log.h>
#include <corvane/platform/System.h>

#include <algorithm>

#include "DriverCall.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

namespace {

constexpr const char* kOperation = "queueBuffer";

/** What a descriptor of this process stands for, in words. */
std::string kindOf(int fd) {
    char link[128];
    const int length =
        System::ReadLink(("/proc/self/fd/" + std::to_string(fd)).c_str(), link, sizeof(link));
    if (length < 0)
        return "not open";
    const std::string target(link, static_cast<size_t>(length));
    return target.starts_with("/dmabuf:") || target.starts_with("anon_inode:dmabuf")
               ? "a dma-buf"
               : "not a dma-buf: " + target;
}

}  // namespace

PixelFormat V4L2VideoDevice::askFormat() const {
    v4l2_format current = {};
    current.type = bufType();
    PixelFormat format = {};
    if (driverCall(fd(), VIDIOC_G_FMT, &current) >= 0)
        v4l2::readFormat(current, v4l2::formatClassOfCaps(caps()), format);
    return format;
}

std::string V4L2VideoDevice::describeQueued(FrameBuffer buffer) const {
    buffer.planeCount = askFormat().planeCount;
    return describe(buffer);
}

std::string V4L2VideoDevice::describe(const FrameBuffer& buffer) const {
    const PixelFormat format = askFormat();
    const size_t count = std::min(buffer.planeCount, FrameBuffer::kMaxPlanes);
    char port[32];
    snprintf(port, sizeof(port), "port %#x(", mPortIndex);
    std::string text = port + mName + ")";
    for (size_t i = 0; i < count; ++i) {
        const FrameBuffer::Plane& plane = buffer.planes[i];
        text += (i == 0 ? ": plane " : "; plane ") + std::to_string(i) + " fd " +
                std::to_string(plane.fd) + " (" + kindOf(plane.fd) + ") offset " +
                std::to_string(plane.offset) + " size " + std::to_string(plane.bufsize);
        if (i < format.planeCount)
            text += ", the format asks for " + std::to_string(format.planes[i].size);
    }
    if (count == 0)
        text += ": no planes: addBuffer() fills the buffer anew before each queueing";
    else if (format.planeCount != 0 && format.planeCount != count)
        text += "; the format has " + std::to_string(format.planeCount) + " planes, not " +
                std::to_string(count);
    return text;
}

void V4L2VideoDevice::reportRefusedBuffer(const v4l2_buffer& refused, const FrameBuffer& buffer,
                                          int ret) const {
    const bool multiPlanar = v4l2::isMultiPlanar(refused.type);
    const bool dmabuf = refused.memory == V4L2_MEMORY_DMABUF;
    CORVANE_LOGE_AS(kOperation, "%s", describe(buffer).c_str());
    CORVANE_LOGE_AS(kOperation, "Failed to queue buffer %s: %d", mName.c_str(), ret);
    CORVANE_LOGE_AS(kOperation, "buffer index(%d), type(%d), memory(%d), flags(0x%x), request(%d)",
                    refused.index, refused.type, refused.memory, refused.flags, refused.request_fd);
    if (dmabuf && multiPlanar)
        for (size_t i = 0; i < buffer.planeCount; ++i)
            CORVANE_LOGE_AS(kOperation, "multi buffer plane(%d), fd(%d), offset(%d)",
                            static_cast<int>(i), buffer.planes[i].fd, buffer.planes[i].offset);
    else if (dmabuf)
        CORVANE_LOGE_AS(kOperation, "single buffer plane(0), fd(%d), offset(%d)",
                        buffer.planes[0].fd, buffer.planes[0].offset);
    if (multiPlanar)
        CORVANE_LOGE_AS(kOperation, "buffer length(%d), multi planes(%p)", refused.length,
                        static_cast<void*>(refused.m.planes));
    else
        CORVANE_LOGE_AS(kOperation, "buffer length(%d), single plane", refused.length);
    if (!v4l2::isOutput(refused.type))
        return;
    if (multiPlanar)
        for (size_t i = 0; i < buffer.planeCount; ++i)
            CORVANE_LOGE_AS(kOperation, "multi buffer plane(%d), used(%d), length(%d)",
                            static_cast<int>(i), refused.m.planes[i].bytesused,
                            refused.m.planes[i].length);
    else
        CORVANE_LOGE_AS(kOperation, "single buffer plane(0), used(%d)", refused.bytesused);
}

}  // namespace NSVista::NSCorvane
