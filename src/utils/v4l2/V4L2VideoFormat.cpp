// SPDX-License-Identifier: Apache-2.0
// Formats of a video node.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/platform/Log.h>
#include <corvane/platform/Trace.h>

#include <algorithm>

#include "DriverCall.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

int V4L2VideoDevice::getFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::getFormat");
    v4l2_format current = {};
    current.type = bufType();
    CORVANE_LOGD("%s(%d) format: %d", mName.c_str(), fd(), bufType());
    if (const int ret = driverCall(fd(), VIDIOC_G_FMT, &current); ret < 0) {
        CORVANE_LOGE("Failed to get device format: %d", ret);
        return driverRefused("VIDIOC_G_FMT fail", ret);
    }
    v4l2::readFormat(current, v4l2::formatClassOfCaps(caps()), format);
    return 0;
}

int V4L2VideoDevice::setFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::setFormat");
    v4l2_format wanted = {};
    wanted.type = bufType();
    const v4l2::FormatClass formatClass = v4l2::formatClassOfCaps(caps());
    switch (formatClass) {
        case v4l2::FormatClass::Meta:
            CORVANE_LOGD("%s(%d) meta", mName.c_str(), fd());
            wanted.fmt.meta.dataformat = format.format;
            wanted.fmt.meta.buffersize = format.planes[0].size;
            break;
        case v4l2::FormatClass::MultiPlane: {
            CORVANE_LOGD("%s(%d) multi plane", mName.c_str(), fd());
            v4l2_pix_format_mplane& pixels = wanted.fmt.pix_mp;
            pixels.width = format.width;
            pixels.height = format.height;
            pixels.pixelformat = format.format;
            pixels.field = V4L2_FIELD_NONE;
            pixels.num_planes = static_cast<uint8_t>(format.planeCount);
            for (uint32_t i = 0; i < std::min(format.planeCount, PixelFormat::kMaxPlanes); ++i) {
                pixels.plane_fmt[i].sizeimage = format.planes[i].size;
                pixels.plane_fmt[i].bytesperline = format.planes[i].stride;
            }
            break;
        }
        case v4l2::FormatClass::Single:
            CORVANE_LOGD("%s(%d) single", mName.c_str(), fd());
            wanted.fmt.pix.width = format.width;
            wanted.fmt.pix.height = format.height;
            wanted.fmt.pix.pixelformat = format.format;
            wanted.fmt.pix.field = V4L2_FIELD_NONE;
            wanted.fmt.pix.bytesperline = format.planes[0].stride;
            break;
    }
    if (const int ret = driverCall(fd(), VIDIOC_S_FMT, &wanted); ret < 0) {
        CORVANE_LOGE("Failed to set device format: %d", ret);
        return driverRefused("VIDIOC_S_FMT fail", ret);
    }
    v4l2::readFormat(wanted, formatClass, format);
    return 0;
}

}  // namespace NSVista::NSCorvane
