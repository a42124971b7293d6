// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The format of a video node.
 */
#pragma once

#include <linux/videodev2.h>

#include <corvane/V4L2.h>
#include <corvane/sim/Description.h>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::sim {

/** A node's format. Not thread-safe. */
class Format {
public:
    explicit Format(const VideoDesc& video);

    /** Whether nodes of a buffer type take a pixel format. */
    static bool known(uint32_t bufType, uint32_t fourcc);
    /** VIDIOC_G_FMT. @return 0, or -EINVAL for another buffer type. */
    int get(v4l2_format& format) const;
    /** VIDIOC_S_FMT: adjusts to what the engine can do. @return as get(). */
    int set(v4l2_format& format);

    uint32_t planeCount() const { return mLayout.num_planes; }
    uint32_t planeSize(uint32_t plane) const { return mLayout.sizeimage[plane]; }
    /** How pictures lie in memory; of a metadata node only plane count and size count. */
    const vengine_layout& layout() const { return mLayout; }

private:
    uint32_t mBufType;
    uint32_t mDefault;
    vengine_layout mLayout;
};

}  // namespace NSVista::NSCorvane::sim
