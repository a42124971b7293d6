// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A picture to draw on.
 */
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Picture.h"

namespace NSVista::NSCorvane::tools {

/** An RGB picture in memory. What falls outside of it is cut. */
class Canvas {
public:
    /** Pixels per character of text(), blank column and row included. */
    static constexpr uint32_t kCharWidth = 12;
    static constexpr uint32_t kCharHeight = 16;

    Canvas(uint32_t width, uint32_t height, Rgb background);

    void fill(uint32_t x, uint32_t y, uint32_t width, uint32_t height, Rgb color);
    /** Capital letters, digits and common signs; small letters become capitals. */
    void text(uint32_t x, uint32_t y, const std::string& text, Rgb color);
    /** @param scale pixels of the canvas per pixel of the picture. */
    void picture(uint32_t x, uint32_t y, const Picture& picture, uint32_t scale);
    /** @return false with a line on stderr. */
    bool writePng(const std::string& path) const;

private:
    uint32_t mWidth;
    uint32_t mHeight;
    std::vector<Rgb> mPixels;
};

}  // namespace NSVista::NSCorvane::tools
