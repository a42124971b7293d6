// SPDX-License-Identifier: Apache-2.0
#include "Format.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>

namespace NSVista::NSCorvane::sim {

namespace {

template <class Pixels>
void fillPicture(const FormatDesc& desc, const LayoutDesc& layout, Pixels& pixels) {
    pixels.width = layout.width;
    pixels.height = layout.height;
    pixels.pixelformat = desc.fourcc;
    pixels.field = desc.colour.field;
    pixels.colorspace = desc.colour.colorspace;
    pixels.flags = static_cast<decltype(pixels.flags)>(desc.colour.flags);
    pixels.ycbcr_enc = static_cast<decltype(pixels.ycbcr_enc)>(desc.colour.encoding);
    pixels.quantization = static_cast<decltype(pixels.quantization)>(desc.colour.quantization);
    pixels.xfer_func = static_cast<decltype(pixels.xfer_func)>(desc.colour.transfer);
}

double seconds(const v4l2_fract& interval) {
    return interval.denominator == 0
               ? 0
               : static_cast<double>(interval.numerator) / interval.denominator;
}

/** Visible bytes in a line of a plane of memory: of its first components. */
uint32_t lineBytes(uint32_t fourcc, uint32_t memory, uint32_t width) {
    const auto& planes = corvane_format_of(fourcc)->planes;
    const auto* const first =
        std::find_if(std::begin(planes), std::end(planes),
                     [memory](const corvane_plane& each) { return each.memory == memory; });
    return corvane_line_bytes(first, width);
}

}  // namespace

Format::Format(const VideoDesc& video)
    : mBufType(video.bufType),
      mDefault(video.fallback != 0 ? video.fallback : video.format),
      mUnknown(video.unknownFormat),
      mEnumeratesSizes(video.enumeratesSizes),
      mInterval(video.interval) {
    for (const FormatDesc& format : video.formats)
        mOffered.push_back({format, Negotiation(format)});
    if (mOffered.empty())
        return;
    Choice start{find(video.format), *video.layout};
    take(std::move(start));
}

const Format::Offered* Format::find(uint32_t fourcc) const {
    const auto found =
        std::find_if(mOffered.begin(), mOffered.end(),
                     [fourcc](const Offered& offered) { return offered.desc.fourcc == fourcc; });
    return found != mOffered.end() ? &*found : nullptr;
}

void Format::fill(const Choice& choice, v4l2_format& format) const {
    const FormatDesc& desc = choice.offered->desc;
    const LayoutDesc& layout = choice.layout;
    memset(&format.fmt, 0, sizeof(format.fmt));
    if (v4l2::isMeta(mBufType)) {
        format.fmt.meta.dataformat = desc.fourcc;
        format.fmt.meta.buffersize = layout.planes[0].size;
    } else if (v4l2::isMultiPlanar(mBufType)) {
        v4l2_pix_format_mplane& pixels = format.fmt.pix_mp;
        fillPicture(desc, layout, pixels);
        pixels.num_planes = static_cast<uint8_t>(layout.planes.size());
        for (size_t i = 0; i < layout.planes.size(); ++i) {
            pixels.plane_fmt[i].bytesperline = layout.planes[i].stride;
            pixels.plane_fmt[i].sizeimage = layout.planes[i].size;
        }
    } else {
        v4l2_pix_format& pixels = format.fmt.pix;
        fillPicture(desc, layout, pixels);
        pixels.bytesperline = layout.planes[0].stride;
        pixels.sizeimage = layout.planes[0].size;
    }
}

int Format::choose(const v4l2_format& format, Choice& choice) const {
    if (format.type != mBufType || mOffered.empty())
        return -EINVAL;
    const bool isMeta = v4l2::isMeta(mBufType);
    // Width, height and pixel format begin both kinds of a picture's record.
    const v4l2_pix_format& pixels = format.fmt.pix;
    choice.offered = find(isMeta ? format.fmt.meta.dataformat : pixels.pixelformat);
    if (choice.offered == nullptr && mUnknown < 0)
        return mUnknown;
    if (choice.offered == nullptr)
        choice.offered = find(mDefault);
    if (choice.offered == nullptr)
        choice.offered = &mOffered.front();
    choice.layout = isMeta ? choice.offered->rules.answer(0, 0)
                           : choice.offered->rules.answer(pixels.width, pixels.height);
    return 0;
}

int Format::get(v4l2_format& format) const {
    if (format.type != mBufType || mOffered.empty())
        return -EINVAL;
    fill(mCurrent, format);
    return 0;
}

int Format::tryOut(v4l2_format& format) const {
    Choice choice;
    const int result = choose(format, choice);
    if (result == 0)
        fill(choice, format);
    return result;
}

int Format::set(v4l2_format& format) {
    Choice choice;
    const int result = choose(format, choice);
    if (result == 0) {
        take(std::move(choice));
        fill(mCurrent, format);
    }
    return result;
}

int Format::enumerate(v4l2_fmtdesc& format) const {
    if (format.type != mBufType || format.index >= mOffered.size())
        return -EINVAL;
    const FormatDesc& desc = mOffered[format.index].desc;
    format.flags = desc.flags;
    memset(format.description, 0, sizeof(format.description));
    desc.description.copy(reinterpret_cast<char*>(format.description),
                          sizeof(format.description) - 1);
    format.pixelformat = desc.fourcc;
    memset(format.reserved, 0, sizeof(format.reserved));
    return 0;
}

int Format::enumerateSizes(v4l2_frmsizeenum& size) const {
    if (v4l2::isMeta(mBufType) || mBufType == 0 || !mEnumeratesSizes)
        return -ENOTTY;
    const Offered* const offered = find(size.pixel_format);
    if (offered == nullptr || size.index >= offered->desc.sizes.size())
        return -EINVAL;
    const SizeDesc& desc = offered->desc.sizes[size.index];
    size.type = desc.kind;
    if (desc.isDiscrete())
        size.discrete = {desc.range.min_width, desc.range.min_height};
    else
        size.stepwise = desc.range;
    return 0;
}

const SizeDesc* Format::sizeOf(const Offered& offered, uint32_t width, uint32_t height) const {
    for (const SizeDesc& size : offered.desc.sizes) {
        const v4l2_frmsize_stepwise& range = size.range;
        const bool holds = size.isDiscrete()
                               ? width == range.min_width && height == range.min_height
                               : width >= range.min_width && width <= range.max_width &&
                                     height >= range.min_height && height <= range.max_height;
        if (holds)
            return &size;
    }
    return nullptr;
}

int Format::enumerateIntervals(v4l2_frmivalenum& interval) const {
    const bool hasIntervals =
        std::any_of(mOffered.begin(), mOffered.end(), [](const Offered& offered) {
            return std::any_of(offered.desc.sizes.begin(), offered.desc.sizes.end(),
                               [](const SizeDesc& size) { return !size.intervals.empty(); });
        });
    if (!hasIntervals)
        return -ENOTTY;
    const Offered* const offered = find(interval.pixel_format);
    const SizeDesc* const size =
        offered != nullptr ? sizeOf(*offered, interval.width, interval.height) : nullptr;
    if (size == nullptr || interval.index >= size->intervals.size())
        return -EINVAL;
    const IntervalDesc& desc = size->intervals[interval.index];
    interval.type = desc.kind;
    if (desc.isDiscrete())
        interval.discrete = desc.range.min;
    else
        interval.stepwise = desc.range;
    return 0;
}

int Format::getParameters(v4l2_streamparm& parameters) const {
    if (!mInterval)
        return -ENOTTY;
    if (parameters.type != mBufType)
        return -EINVAL;
    // Both members of the record begin with these two words.
    memset(&parameters.parm, 0, sizeof(parameters.parm));
    parameters.parm.capture.capability = V4L2_CAP_TIMEPERFRAME;
    parameters.parm.capture.timeperframe = *mInterval;
    return 0;
}

int Format::setParameters(v4l2_streamparm& parameters) {
    if (!mInterval)
        return -ENOTTY;
    if (parameters.type != mBufType)
        return -EINVAL;
    const double wanted = seconds(parameters.parm.capture.timeperframe);
    const SizeDesc* const size =
        mCurrent.offered != nullptr
            ? sizeOf(*mCurrent.offered, mCurrent.layout.width, mCurrent.layout.height)
            : nullptr;
    if (size == nullptr || size->intervals.empty())
        return getParameters(parameters);
    std::optional<double> best;
    for (const IntervalDesc& interval : size->intervals) {
        const double lowest = seconds(interval.range.min);
        const double highest = interval.isDiscrete() ? lowest : seconds(interval.range.max);
        const double nearest = std::clamp(wanted, lowest, std::max(lowest, highest));
        if (best && std::abs(nearest - wanted) >= std::abs(*best - wanted))
            continue;
        best = nearest;
        mInterval = nearest == lowest    ? interval.range.min
                    : nearest == highest ? interval.range.max
                                         : parameters.parm.capture.timeperframe;
    }
    return getParameters(parameters);
}

void Format::take(Choice&& choice) {
    mCurrent = std::move(choice);
    mDrawable = findDrawable();
}

vengine_layout Format::findDrawable() const {
    constexpr uint32_t kMost = 32768;  // Pictures above it have more bytes than 32 bits count.
    const LayoutDesc& layout = mCurrent.layout;
    vengine_layout known = {};
    if (std::max(layout.width, layout.height) <= kMost)
        known = vengine_layout_of(fourcc(), layout.width, layout.height);
    bool fits = layout.width >= VENGINE_MIN_WIDTH && layout.height >= VENGINE_MIN_HEIGHT &&
                layout.width % 2 == 0 && layout.height % 2 == 0 &&
                known.num_planes == layout.planes.size();
    for (uint32_t i = 0; fits && i < known.num_planes; ++i) {
        const LayoutDesc::Plane& plane = layout.planes[i];
        // Bytes of a line without padding: what is known is padded to an alignment.
        const uint64_t lines = known.sizeimage[i] / known.bytesperline[i];
        const uint32_t bytes = lineBytes(fourcc(), i, layout.width);
        fits = plane.stride >= bytes && plane.stride * lines <= plane.size;
        known.bytesperline[i] = plane.stride;
        known.sizeimage[i] = plane.size;
    }
    if (!fits)
        known.num_planes = 0;
    return known;
}

}  // namespace NSVista::NSCorvane::sim
