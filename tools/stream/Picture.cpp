// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <linux/videodev2.h>

#include <algorithm>

namespace NSVista::NSCorvane::tools {

namespace {

uint8_t clamped(int value) {
    return static_cast<uint8_t>(std::clamp(value, 0, 255));
}

/** BT.601, limited range. */
Rgb fromYuv(int y, int u, int v) {
    const int luma = 298 * (y - 16) + 128;
    return {clamped((luma + 409 * (v - 128)) / 256),
            clamped((luma - 100 * (u - 128) - 208 * (v - 128)) / 256),
            clamped((luma + 516 * (u - 128)) / 256)};
}

}  // namespace

bool Picture::isKnown() const {
    switch (format.format) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_NV12M:
        case V4L2_PIX_FMT_YUV420:
        case V4L2_PIX_FMT_YUV420M:
        case V4L2_PIX_FMT_YUYV:
        case V4L2_PIX_FMT_UYVY:
        case V4L2_PIX_FMT_GREY:
        case V4L2_PIX_FMT_RGB24:
        case V4L2_PIX_FMT_BGR24:
            return true;
        default:
            return false;
    }
}

Rgb Picture::colorAt(uint32_t x, uint32_t y) const {
    const size_t stride = format.planes[0].stride;
    const uint8_t* const first = planes[0].data();
    const uint8_t* const row = first + y * stride;
    const size_t lumaSize = stride * format.height;
    const size_t pair = x & ~1U;
    switch (format.format) {
        case V4L2_PIX_FMT_NV12:
        case V4L2_PIX_FMT_NV12M: {
            const bool apart = format.format == V4L2_PIX_FMT_NV12M;
            const uint8_t* const chroma =
                apart ? planes[1].data() + y / 2 * format.planes[1].stride + pair
                      : first + lumaSize + y / 2 * stride + pair;
            return fromYuv(row[x], chroma[0], chroma[1]);
        }
        case V4L2_PIX_FMT_YUV420: {
            const uint8_t* const u = first + lumaSize + y / 2 * (stride / 2) + x / 2;
            return fromYuv(row[x], u[0], u[lumaSize / 4]);
        }
        case V4L2_PIX_FMT_YUV420M:
            return fromYuv(row[x], planes[1][y / 2 * format.planes[1].stride + x / 2],
                           planes[2][y / 2 * format.planes[2].stride + x / 2]);
        case V4L2_PIX_FMT_YUYV:
            return fromYuv(row[x * 2], row[pair * 2 + 1], row[pair * 2 + 3]);
        case V4L2_PIX_FMT_UYVY:
            return fromYuv(row[x * 2 + 1], row[pair * 2], row[pair * 2 + 2]);
        case V4L2_PIX_FMT_RGB24:
            return {row[x * 3], row[x * 3 + 1], row[x * 3 + 2]};
        case V4L2_PIX_FMT_BGR24:
            return {row[x * 3 + 2], row[x * 3 + 1], row[x * 3]};
        default:
            return fromYuv(row[x], 128, 128);
    }
}

}  // namespace NSVista::NSCorvane::tools
