// SPDX-License-Identifier: Apache-2.0
#include "PadFormats.h"

#include <algorithm>
#include <cerrno>

namespace NSVista::NSCorvane::sim {

namespace {

uint64_t farness(const PadCodeDesc::Range& range, uint32_t width, uint32_t height) {
    const auto outside = [](uint32_t value, uint32_t least, uint32_t most) -> uint64_t {
        return value < least ? least - value : value > most ? value - most : 0;
    };
    return outside(width, range.minWidth, range.maxWidth) +
           outside(height, range.minHeight, range.maxHeight);
}

}  // namespace

bool PadFormats::isTheirs(uint32_t code) {
    return code == VIDIOC_SUBDEV_G_FMT || code == VIDIOC_SUBDEV_S_FMT ||
           code == VIDIOC_SUBDEV_ENUM_MBUS_CODE || code == VIDIOC_SUBDEV_ENUM_FRAME_SIZE;
}

int PadFormats::ioctl(uint32_t code, void* arg) {
    if (mPads.empty())
        return -ENOTTY;
    switch (code) {
        case VIDIOC_SUBDEV_G_FMT: {
            auto& format = *static_cast<v4l2_subdev_format*>(arg);
            const PadDesc* const pad = find(format.pad);
            if (pad == nullptr)
                return -EINVAL;
            format.format = pad->format;
            return 0;
        }
        case VIDIOC_SUBDEV_S_FMT:
            return set(*static_cast<v4l2_subdev_format*>(arg));
        case VIDIOC_SUBDEV_ENUM_MBUS_CODE:
            return enumerate(*static_cast<v4l2_subdev_mbus_code_enum*>(arg));
        default:
            return enumerate(*static_cast<v4l2_subdev_frame_size_enum*>(arg));
    }
}

PadDesc* PadFormats::find(uint32_t pad) {
    const auto found = std::find_if(mPads.begin(), mPads.end(),
                                    [pad](const PadDesc& each) { return each.pad == pad; });
    return found != mPads.end() ? &*found : nullptr;
}

const PadCodeDesc* PadFormats::findCode(const PadDesc& pad, uint32_t code) {
    const auto found = std::find_if(pad.codes.begin(), pad.codes.end(),
                                    [code](const PadCodeDesc& each) { return each.code == code; });
    return found != pad.codes.end() ? &*found : nullptr;
}

int PadFormats::set(v4l2_subdev_format& format) {
    PadDesc* const pad = find(format.pad);
    if (pad == nullptr)
        return -EINVAL;
    v4l2_mbus_framefmt chosen = pad->format;
    const PadCodeDesc* const wanted = findCode(*pad, format.format.code);
    const PadCodeDesc* const code = wanted != nullptr ? wanted : findCode(*pad, chosen.code);
    if (code != nullptr && !code->sizes.empty()) {
        const uint32_t width = format.format.width, height = format.format.height;
        const auto nearest = std::min_element(
            code->sizes.begin(), code->sizes.end(), [&](const auto& a, const auto& b) {
                return farness(a, width, height) < farness(b, width, height);
            });
        chosen.width = std::clamp(width, nearest->minWidth, nearest->maxWidth);
        chosen.height = std::clamp(height, nearest->minHeight, nearest->maxHeight);
    }
    if (code != nullptr)
        chosen.code = code->code;
    if (format.which == V4L2_SUBDEV_FORMAT_ACTIVE)
        pad->format = chosen;
    format.format = chosen;
    return 0;
}

int PadFormats::enumerate(v4l2_subdev_mbus_code_enum& code) {
    const PadDesc* const pad = find(code.pad);
    if (pad == nullptr || code.index >= pad->codes.size())
        return -EINVAL;
    code.code = pad->codes[code.index].code;
    code.flags = pad->codes[code.index].flags;
    return 0;
}

int PadFormats::enumerate(v4l2_subdev_frame_size_enum& size) {
    const PadDesc* const pad = find(size.pad);
    const PadCodeDesc* const code = pad != nullptr ? findCode(*pad, size.code) : nullptr;
    if (code == nullptr || size.index >= code->sizes.size())
        return -EINVAL;
    const PadCodeDesc::Range& range = code->sizes[size.index];
    size.min_width = range.minWidth;
    size.max_width = range.maxWidth;
    size.min_height = range.minHeight;
    size.max_height = range.maxHeight;
    return 0;
}

}  // namespace NSVista::NSCorvane::sim
