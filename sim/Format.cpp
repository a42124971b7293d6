// SPDX-License-Identifier: Apache-2.0
#include "Format.h"

#include <cerrno>
#include <cstring>

#include <algorithm>
#include <iterator>

namespace NSVista::NSCorvane::sim {

namespace {

vengine_layout metaLayout(uint32_t fourcc) {
    return {fourcc, 0, 0, 1, {0, 0, 0}, {VENGINE_META_SIZE, 0, 0}};
}

}  // namespace

bool Format::known(uint32_t bufType, uint32_t fourcc) {
    auto holds = [&](const auto& formats) {
        return std::find(std::begin(formats), std::end(formats), fourcc) != std::end(formats);
    };
    return v4l2::isMultiPlanar(bufType) ? holds(vengine_mplane_formats)
                                        : holds(vengine_splane_formats);
}

Format::Format(const VideoDesc& video) : mBufType(video.bufType), mDefault(video.format) {
    if (v4l2::isMeta(mBufType)) {
        mLayout = metaLayout(mDefault);
        return;
    }
    if (!known(mBufType, mDefault))
        mDefault =
            v4l2::isMultiPlanar(mBufType) ? vengine_mplane_formats[0] : vengine_splane_formats[0];
    mLayout = vengine_layout_of(mDefault, VENGINE_DEFAULT_WIDTH, VENGINE_DEFAULT_HEIGHT);
}

int Format::get(v4l2_format& format) const {
    if (format.type != mBufType)
        return -EINVAL;
    memset(&format.fmt, 0, sizeof(format.fmt));
    if (v4l2::isMeta(mBufType)) {
        format.fmt.meta.dataformat = mLayout.fourcc;
        format.fmt.meta.buffersize = mLayout.sizeimage[0];
    } else if (v4l2::isMultiPlanar(mBufType)) {
        v4l2_pix_format_mplane& pix = format.fmt.pix_mp;
        pix.width = mLayout.width;
        pix.height = mLayout.height;
        pix.pixelformat = mLayout.fourcc;
        pix.field = V4L2_FIELD_NONE;
        pix.colorspace = V4L2_COLORSPACE_SMPTE170M;
        pix.num_planes = static_cast<uint8_t>(mLayout.num_planes);
        for (uint32_t i = 0; i < mLayout.num_planes; ++i) {
            pix.plane_fmt[i].bytesperline = mLayout.bytesperline[i];
            pix.plane_fmt[i].sizeimage = mLayout.sizeimage[i];
        }
    } else {
        v4l2_pix_format& pix = format.fmt.pix;
        pix.width = mLayout.width;
        pix.height = mLayout.height;
        pix.pixelformat = mLayout.fourcc;
        pix.field = V4L2_FIELD_NONE;
        pix.colorspace = V4L2_COLORSPACE_SMPTE170M;
        pix.bytesperline = mLayout.bytesperline[0];
        pix.sizeimage = mLayout.sizeimage[0];
    }
    return 0;
}

int Format::set(v4l2_format& format) {
    if (format.type != mBufType)
        return -EINVAL;
    if (!v4l2::isMeta(mBufType)) {
        // Width, height and pixel format begin both kinds of record.
        const v4l2_pix_format& pix = format.fmt.pix;
        uint32_t fourcc = pix.pixelformat;
        mLayout = vengine_layout_of(
            known(mBufType, fourcc) ? fourcc : mDefault,
            vengine_clamp_size(pix.width, VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH),
            vengine_clamp_size(pix.height, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT));
    }
    return get(format);
}

}  // namespace NSVista::NSCorvane::sim
