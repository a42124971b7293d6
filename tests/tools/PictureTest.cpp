// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <array>
#include <iterator>
#include <string>
#include <vector>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::tools {
namespace {

/** BT.601 as its text has it. */
std::array<double, 3> colourOf(const vengine_yuv& c) {
    const double y = 255 * (c.y - 16) / 219.0;
    const double u = 255 * (c.u - 128) / 224.0;
    const double v = 255 * (c.v - 128) / 224.0;
    return {y + 1.402 * v, y - 0.344136 * u - 0.714136 * v, y + 1.772 * u};
}

void expectColour(const Rgb& got, const std::array<double, 3>& expected, const char* what) {
    const uint8_t channels[] = {got.r, got.g, got.b};
    for (int i = 0; i < 3; ++i)
        ASSERT_NEAR(channels[i], std::clamp(expected[i], 0.0, 255.0), 1.6) << what << " " << i;
}

TEST(PictureTest, DecodesTheEnginesPatternInEachOfItsFormats) {
    for (const corvane_format& format : corvane_formats) {
        if (format.model != CORVANE_YUV)
            continue;
        const vengine_layout layout = vengine_layout_of(format.fourcc, 100, 36);
        Picture picture{
            "test", {layout.fourcc, layout.width, layout.height, layout.num_planes, {}}, {}};
        uint8_t* data[3] = {};
        for (uint32_t i = 0; i < layout.num_planes; ++i) {
            picture.format.planes[i] = {layout.bytesperline[i], layout.sizeimage[i]};
            picture.planes[i].resize(layout.sizeimage[i]);
            data[i] = picture.planes[i].data();
        }
        const vengine_picture drawn = vengine_map(&layout, data);
        vengine_draw_test(&drawn, 5);
        ASSERT_TRUE(picture.isKnown());
        for (uint32_t y = 0; y < layout.height; ++y)
            for (uint32_t x = 0; x < layout.width; ++x)
                expectColour(picture.colorAt(x, y), colourOf(vengine_read(&drawn, x, y)),
                             format.name);
    }
}

struct Byte {
    uint32_t plane, at;
};

/** Of two by two pixels in lines of eight bytes: where the one at the right and below is. */
struct Place {
    uint32_t fourcc;
    std::vector<Byte> bytes;  ///< of Y, U and V, or red, green and blue
};

const Place kPlaces[] = {
    {V4L2_PIX_FMT_NV12, {{0, 9}, {0, 16}, {0, 17}}},
    {V4L2_PIX_FMT_NV21, {{0, 9}, {0, 17}, {0, 16}}},
    {V4L2_PIX_FMT_NV16, {{0, 9}, {0, 24}, {0, 25}}},
    {V4L2_PIX_FMT_NV61, {{0, 9}, {0, 25}, {0, 24}}},
    {V4L2_PIX_FMT_NV24, {{0, 9}, {0, 34}, {0, 35}}},
    {V4L2_PIX_FMT_NV42, {{0, 9}, {0, 35}, {0, 34}}},
    {V4L2_PIX_FMT_NV12M, {{0, 9}, {1, 0}, {1, 1}}},
    {V4L2_PIX_FMT_NV21M, {{0, 9}, {1, 1}, {1, 0}}},
    {V4L2_PIX_FMT_NV16M, {{0, 9}, {1, 8}, {1, 9}}},
    {V4L2_PIX_FMT_NV61M, {{0, 9}, {1, 9}, {1, 8}}},
    {V4L2_PIX_FMT_YUV420, {{0, 9}, {0, 16}, {0, 20}}},
    {V4L2_PIX_FMT_YVU420, {{0, 9}, {0, 20}, {0, 16}}},
    {V4L2_PIX_FMT_YUV422P, {{0, 9}, {0, 20}, {0, 28}}},
    {V4L2_PIX_FMT_YUV420M, {{0, 9}, {1, 0}, {2, 0}}},
    {V4L2_PIX_FMT_YVU420M, {{0, 9}, {2, 0}, {1, 0}}},
    {V4L2_PIX_FMT_YUV422M, {{0, 9}, {1, 8}, {2, 8}}},
    {V4L2_PIX_FMT_YVU422M, {{0, 9}, {2, 8}, {1, 8}}},
    {V4L2_PIX_FMT_YUV444M, {{0, 9}, {1, 9}, {2, 9}}},
    {V4L2_PIX_FMT_YVU444M, {{0, 9}, {2, 9}, {1, 9}}},
    {V4L2_PIX_FMT_YUYV, {{0, 10}, {0, 9}, {0, 11}}},
    {V4L2_PIX_FMT_YVYU, {{0, 10}, {0, 11}, {0, 9}}},
    {V4L2_PIX_FMT_UYVY, {{0, 11}, {0, 8}, {0, 10}}},
    {V4L2_PIX_FMT_VYUY, {{0, 11}, {0, 10}, {0, 8}}},
    {V4L2_PIX_FMT_GREY, {{0, 9}}},
    {V4L2_PIX_FMT_RGB24, {{0, 11}, {0, 12}, {0, 13}}},
    {V4L2_PIX_FMT_BGR24, {{0, 13}, {0, 12}, {0, 11}}},
};

TEST(PictureTest, FindsThePixelsOfEachFormat) {
    ASSERT_EQ(std::size(kPlaces), std::size(corvane_formats));
    for (const Place& place : kPlaces) {
        const std::string name = v4l2::formatName(place.fourcc);
        Picture picture{"test", {place.fourcc, 2, 2, 3, {{8, 48}, {8, 48}, {8, 48}}}, {}};
        for (auto& plane : picture.planes)
            plane.resize(48);
        const uint8_t values[] = {81, 90, 240};
        for (size_t i = 0; i < place.bytes.size(); ++i)
            picture.planes[place.bytes[i].plane][place.bytes[i].at] = values[i];
        EXPECT_TRUE(picture.isKnown()) << name;
        std::array<double, 3> expected = colourOf({81, 90, 240});
        if (name.find("24") == 3)
            expected = {81, 90, 240};
        else if (place.bytes.size() == 1)
            expected = colourOf({81, 128, 128});
        expectColour(picture.colorAt(1, 1), expected, name.c_str());
        picture.format.planes[0].size = 9;  // A driver that told too little.
        EXPECT_FALSE(picture.isKnown()) << name;
    }
    EXPECT_FALSE((Picture{"meta", {VENGINE_META_FMT_STATS, 0, 0, 1, {}}, {}}.isKnown()));
}

}  // namespace
}  // namespace NSVista::NSCorvane::tools
