// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Captured pictures, and their colours.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include <corvane/IV4L2VideoDevice.h>

namespace NSVista::NSCorvane::tools {

struct Rgb {
    uint8_t r, g, b;
};

/** A copy of a frame. */
struct Picture {
    std::string name;
    PixelFormat format{};
    std::vector<uint8_t> planes[FrameBuffer::kMaxPlanes];

    /** Whether colorAt() knows the format, and the planes' sizes hold it. */
    bool isKnown() const;
    /** The colour of a pixel within the picture. */
    Rgb colorAt(uint32_t x, uint32_t y) const;
};

}  // namespace NSVista::NSCorvane::tools
