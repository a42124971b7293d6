// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The format of a video node.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <optional>
#include <vector>

#include <corvane/V4L2.h>
#include <corvane/sim/Description.h>

#include "Negotiation.h"
#include "vengine-picture.h"

namespace NSVista::NSCorvane::sim {

/** A node's format and what it can be. Not thread-safe. */
class Format {
public:
    /** @param video completed(). */
    explicit Format(const VideoDesc& video);
    Format(const Format&) = delete;
    Format& operator=(const Format&) = delete;

    /** @name Ioctls. Results are 0 or a negated errno.
     * @{ */
    /** VIDIOC_G_FMT: -EINVAL for another buffer type. */
    int get(v4l2_format& format) const;
    /** VIDIOC_S_FMT: adjusts to what the device can do. */
    int set(v4l2_format& format);
    int tryOut(v4l2_format& format) const;
    int enumerate(v4l2_fmtdesc& format) const;
    int enumerateSizes(v4l2_frmsizeenum& size) const;
    int enumerateIntervals(v4l2_frmivalenum& interval) const;
    int getParameters(v4l2_streamparm& parameters) const;
    int setParameters(v4l2_streamparm& parameters);
    /** @} */

    bool offers(uint32_t fourcc) const { return find(fourcc) != nullptr; }
    uint32_t planeCount() const { return static_cast<uint32_t>(mCurrent.layout.planes.size()); }
    uint32_t planeSize(uint32_t plane) const { return mCurrent.layout.planes[plane].size; }
    uint32_t fourcc() const { return mCurrent.offered->desc.fourcc; }
    const LayoutDesc& layout() const { return mCurrent.layout; }
    /**
     * The layout as the test pictures' code knows it: one that it can draw within every plane.
     * @return no planes for any other.
     */
    const vengine_layout& drawable() const { return mDrawable; }

private:
    struct Offered {
        FormatDesc desc;
        Negotiation rules;
    };
    struct Choice {
        const Offered* offered = nullptr;
        LayoutDesc layout;
    };

    const Offered* find(uint32_t fourcc) const;
    int choose(const v4l2_format& format, Choice& choice) const;
    void take(Choice&& choice);
    vengine_layout findDrawable() const;
    void fill(const Choice& choice, v4l2_format& format) const;
    const SizeDesc* sizeOf(const Offered& offered, uint32_t width, uint32_t height) const;

    const uint32_t mBufType;
    const uint32_t mDefault;
    const int mUnknown;  ///< what an unknown format gets, 0 for mDefault
    const bool mEnumeratesSizes;
    std::optional<v4l2_fract> mInterval;
    std::vector<Offered> mOffered;
    Choice mCurrent;
    vengine_layout mDrawable = {};
};

}  // namespace NSVista::NSCorvane::sim
