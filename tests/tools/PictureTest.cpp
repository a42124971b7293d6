// SPDX-License-Identifier: Apache-2.0
#include "Picture.h"

#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <array>
#include <cmath>
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

Picture makePicture(const vengine_layout& layout) {
    Picture picture{
        "test", {layout.fourcc, layout.width, layout.height, layout.num_planes, {}}, {}};
    for (uint32_t i = 0; i < layout.num_planes; ++i) {
        picture.format.planes[i] = {layout.bytesperline[i], layout.sizeimage[i]};
        picture.planes[i].resize(layout.sizeimage[i]);
    }
    return picture;
}

TEST(PictureTest, DecodesTheEnginesPatternInEachOfItsFormats) {
    for (const uint32_t fourcc : {V4L2_PIX_FMT_NV12M, V4L2_PIX_FMT_YUV420M, V4L2_PIX_FMT_NV12,
                                  V4L2_PIX_FMT_YUYV, V4L2_PIX_FMT_GREY}) {
        const vengine_layout layout = vengine_layout_of(fourcc, 100, 36);
        Picture picture = makePicture(layout);
        uint8_t* data[3] = {};
        for (uint32_t i = 0; i < layout.num_planes; ++i)
            data[i] = picture.planes[i].data();
        const vengine_picture drawn = vengine_map(&layout, data);
        vengine_draw_test(&drawn, 5);
        ASSERT_TRUE(picture.isKnown());
        for (uint32_t y = 0; y < layout.height; ++y)
            for (uint32_t x = 0; x < layout.width; ++x)
                expectColour(picture.colorAt(x, y), colourOf(vengine_read(&drawn, x, y)),
                             v4l2::formatName(fourcc).c_str());
    }
}

TEST(PictureTest, DecodesOtherFormatsByTheirLayout) {
    // Two by two pixels in lines of six bytes; the pixel looked at is at the right and below.
    const vengine_yuv wanted{81, 90, 240};
    struct Case {
        uint32_t fourcc;
        std::vector<uint8_t> bytes;
        std::array<double, 3> expected;
    };
    for (const Case& c :
         {Case{V4L2_PIX_FMT_UYVY, {1, 2, 3, 4, 0, 0, 90, 9, 240, 81}, colourOf(wanted)},
          Case{V4L2_PIX_FMT_YUV420,
               {1, 2, 0, 0, 0, 0, 3, 81, 0, 0, 0, 0, 90, 0, 0, 240},
               colourOf(wanted)},
          Case{V4L2_PIX_FMT_RGB24, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 20, 30}, {10, 20, 30}},
          Case{V4L2_PIX_FMT_BGR24, {1, 2, 3, 4, 5, 6, 7, 8, 9, 30, 20, 10}, {10, 20, 30}}}) {
        Picture picture{"test", {c.fourcc, 2, 2, 1, {{6, 12}}}, {}};
        picture.planes[0] = c.bytes;
        picture.planes[0].resize(32);
        EXPECT_TRUE(picture.isKnown());
        expectColour(picture.colorAt(1, 1), c.expected, v4l2::formatName(c.fourcc).c_str());
    }
    EXPECT_FALSE((Picture{"meta", {VENGINE_META_FMT_STATS, 0, 0, 1, {}}, {}}.isKnown()));
}

}  // namespace
}  // namespace NSVista::NSCorvane::tools
