// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The formats of a sub-device's pads.
 */
#pragma once

#include <linux/v4l2-subdev.h>

#include <cstdint>
#include <vector>

#include <corvane/sim/Description.h>

namespace NSVista::NSCorvane::sim {

/**
 * Answers for those pads that have a format. A pad takes the codes and sizes that it offers and
 * changes alone: what a driver passes on to its other pads is not known. A format that is tried is
 * answered and not kept. Not thread-safe.
 */
class PadFormats {
public:
    explicit PadFormats(std::vector<PadDesc> pads) : mPads(std::move(pads)) {}

    static bool isTheirs(uint32_t code);
    /** Any ioctl of isTheirs(). @return 0 or a negated errno; ENOTTY where no pad has a format. */
    int ioctl(uint32_t code, void* arg);

private:
    PadDesc* find(uint32_t pad);
    static const PadCodeDesc* findCode(const PadDesc& pad, uint32_t code);
    int set(v4l2_subdev_format& format);
    int enumerate(v4l2_subdev_mbus_code_enum& code);
    int enumerate(v4l2_subdev_frame_size_enum& size);

    std::vector<PadDesc> mPads;
};

}  // namespace NSVista::NSCorvane::sim
