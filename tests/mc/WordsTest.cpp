// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2.h>
#include <gtest/gtest.h>

namespace NSVista::NSCorvane::v4l2 {
namespace {

TEST(Words, ReadEverySpellingOfAFormat) {
    const struct {
        const char* text;
        uint32_t fourcc;
        const char *characters, *name;
    } cases[] = {
        {"NV12M", V4L2_PIX_FMT_NV12M, "NM12", "NV12M"},
        {"NM12", V4L2_PIX_FMT_NV12M, "NM12", "NV12M"},
        {"NV12", V4L2_PIX_FMT_NV12, "NV12", "NV12"},
        {"Y16", V4L2_PIX_FMT_Y16, "Y16", "Y16"},
        {"Y16-BE", V4L2_PIX_FMT_Y16_BE, "Y16-BE", "Y16-BE"},
        {"-BE", v4l2_fourcc('-', 'B', 'E', ' '), "-BE", "-BE"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(fourccOf(c.text), c.fourcc) << c.text;
        EXPECT_EQ(fourccText(c.fourcc), c.characters) << c.text;
        EXPECT_EQ(formatName(c.fourcc), c.name) << c.text;
    }
    for (const char* text : {"", "FIVES", "A\nB", "\xc3\xa9"})
        EXPECT_EQ(fourccOf(text), 0U) << text;
    for (const corvane_format& each : corvane_formats)
        EXPECT_EQ(fourccOf(formatName(each.fourcc)), each.fourcc) << each.name;
}

TEST(Words, KnowTypesByTheirCapabilities) {
    for (const BufferType& each : kBufferTypes) {
        EXPECT_EQ(findBufferType(each.type), &each);
        if (each.caps != 0) {
            EXPECT_EQ(portBufferType(each.caps | V4L2_CAP_STREAMING), each.type) << each.name;
            EXPECT_EQ(formatClassOfCaps(each.caps), formatClassOfType(each.type)) << each.name;
        }
        EXPECT_EQ(isOutput(each.type), strstr(each.name, "OUTPUT") != nullptr) << each.name;
    }
    EXPECT_EQ(portBufferType(V4L2_CAP_VIDEO_M2M | V4L2_CAP_STREAMING), 0U);
    EXPECT_EQ(findBufferType(0), nullptr);
}

}  // namespace
}  // namespace NSVista::NSCorvane::v4l2
