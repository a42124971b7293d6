// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <algorithm>
#include <array>
#include <iterator>

#include <corvane/formats.h>

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

using Places = std::array<corvane_place, 3>;

Places placesOf(const corvane_format& known, const PixelFormat& format) {
    uint32_t strides[PixelFormat::kMaxPlanes];
    std::transform(std::begin(format.planes), std::end(format.planes), std::begin(strides),
                   [](const PixelFormat::Plane& plane) { return plane.stride; });
    Places places;
    corvane_find_places(&known, strides, format.height, places.data());
    return places;
}

}  // namespace

bool Picture::isKnown() const {
    const corvane_format* const known = corvane_format_of(format.format);
    if (known == nullptr)
        return false;
    const Places places = placesOf(*known, format);
    for (int i = 0; i < 3; ++i) {
        const corvane_plane& plane = known->planes[i];
        // The last line may lack the padding of the others.
        const uint32_t bytes = corvane_line_bytes(&plane, format.width);
        if (places[i].stride < bytes ||
            places[i].end - places[i].stride + bytes > format.planes[plane.memory].size)
            return false;
    }
    return true;
}

Rgb Picture::colorAt(uint32_t x, uint32_t y) const {
    const corvane_format& known = *corvane_format_of(format.format);
    const Places places = placesOf(known, format);
    uint8_t values[3] = {0, 128, 128};
    for (int i = 0; i < 3; ++i) {
        const corvane_sample& sample = known.samples[i];
        const corvane_place& place = places[sample.plane];
        if (sample.step != 0)
            values[i] =
                planes[known.planes[sample.plane].memory]
                      [place.offset + corvane_sample_at(&known, &sample, place.stride, x, y)];
    }
    const auto [first, second, third] = values;
    return known.model == CORVANE_RGB ? Rgb{first, second, third} : fromYuv(first, second, third);
}

}  // namespace NSVista::NSCorvane::tools
