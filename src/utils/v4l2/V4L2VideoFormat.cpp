// Formats of a video node.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/platform/Log.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <cstring>

#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

namespace {

/** Which member of v4l2_format a node uses. */
enum class FormatClass { Meta, MultiPlane, Single };

FormatClass formatClassOf(uint32_t caps) {
    if ((caps & (V4L2_CAP_META_CAPTURE | V4L2_CAP_META_OUTPUT)) != 0)
        return FormatClass::Meta;
    if ((caps & (V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0)
        return FormatClass::MultiPlane;
    return FormatClass::Single;
}

}  // namespace

int V4L2VideoDevice::getFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::getFormat");
    v4l2_format current = {};
    current.type = mBufType;
    CORVANE_LOGD("%s(%d) format: %d", mName.c_str(), mFd, mBufType);
    if (const int ret = System::Ioctl(mFd, static_cast<int>(VIDIOC_G_FMT), &current, 3); ret < 0) {
        CORVANE_LOGE("Failed to get device format: %d", ret);
        CORVANE_DRIVER_EXCEPTION("VIDIOC_G_FMT fail err=%d(%s)", ret, strerror(-ret));
        return ret;
    }
    readFormat(current, format);
    return 0;
}

int V4L2VideoDevice::setFormat(PixelFormat& format) {
    const TraceSection section(area::kFormat, "V4L2VideoDevice::setFormat");
    v4l2_format wanted = {};
    wanted.type = mBufType;
    switch (formatClassOf(mCaps)) {
        case FormatClass::Meta:
            CORVANE_LOGD("%s(%d) meta", mName.c_str(), mFd);
            wanted.fmt.meta.dataformat = format.format;
            wanted.fmt.meta.buffersize = format.planes[0].size;
            break;
        case FormatClass::MultiPlane: {
            CORVANE_LOGD("%s(%d) multi plane", mName.c_str(), mFd);
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
        case FormatClass::Single:
            CORVANE_LOGD("%s(%d) single", mName.c_str(), mFd);
            wanted.fmt.pix.width = format.width;
            wanted.fmt.pix.height = format.height;
            wanted.fmt.pix.pixelformat = format.format;
            wanted.fmt.pix.field = V4L2_FIELD_NONE;
            wanted.fmt.pix.bytesperline = format.planes[0].stride;
            break;
    }
    if (const int ret = System::Ioctl(mFd, static_cast<int>(VIDIOC_S_FMT), &wanted, 3); ret < 0) {
        CORVANE_LOGE("Failed to set device format: %d", ret);
        CORVANE_DRIVER_EXCEPTION("VIDIOC_S_FMT fail err=%d(%s)", ret, strerror(-ret));
        return ret;
    }
    readFormat(wanted, format);
    return 0;
}

void V4L2VideoDevice::readFormat(const v4l2_format& from, PixelFormat& to) const {
    switch (formatClassOf(mCaps)) {
        case FormatClass::Meta:
            to.format = from.fmt.meta.dataformat;
            to.width = 0;
            to.height = 0;
            to.planeCount = 1;
            to.planes[0] = {from.fmt.meta.buffersize, from.fmt.meta.buffersize};
            break;
        case FormatClass::MultiPlane: {
            const v4l2_pix_format_mplane& pixels = from.fmt.pix_mp;
            to.format = pixels.pixelformat;
            to.width = pixels.width;
            to.height = pixels.height;
            to.planeCount = pixels.num_planes;
            for (uint32_t i = 0; i < std::min(to.planeCount, PixelFormat::kMaxPlanes); ++i)
                to.planes[i] = {pixels.plane_fmt[i].bytesperline, pixels.plane_fmt[i].sizeimage};
            break;
        }
        case FormatClass::Single:
            to.format = from.fmt.pix.pixelformat;
            to.width = from.fmt.pix.width;
            to.height = from.fmt.pix.height;
            to.planeCount = 1;
            to.planes[0] = {from.fmt.pix.bytesperline, from.fmt.pix.sizeimage};
            break;
    }
}

}  // namespace NSVista::NSCorvane
