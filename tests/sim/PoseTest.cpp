// SPDX-License-Identifier: Apache-2.0
// Devices that answer as they are described.
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/media-bus-format.h>
#include <linux/v4l2-subdev.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cstring>
#include <tuple>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::test {

namespace {

using namespace sim;

class OneNode {
public:
    explicit OneNode(const VideoDesc& video) {
        sim::DeviceDesc description;
        description.addVideoNode("node", video);
        open(description);
    }
    explicit OneNode(const SubDeviceDesc& subDevice) {
        sim::DeviceDesc description;
        EntityDesc& entity = description.entities.emplace_back();
        entity.name = "node";
        entity.padFlags.assign(subDevice.pads.size(), MEDIA_PAD_FL_SOURCE);
        entity.subDevice = subDevice;
        open(description);
    }
    ~OneNode() { mEngine.close(mFd); }
    int call(unsigned long code, void* arg) { return mEngine.ioctl(mFd, code, arg); }

private:
    void open(const sim::DeviceDesc& description) {
        sim::Device* const device = mEngine.addDevice(description);
        mFd = mEngine.open(device->nodePath("node").c_str(), O_RDWR);
    }

    sim::Engine mEngine;
    int mFd = -1;
};

v4l2_format wish(uint32_t type, uint32_t fourcc, uint32_t width, uint32_t height) {
    v4l2_format format = {};
    format.type = type;
    format.fmt.pix.width = width;
    format.fmt.pix.height = height;
    format.fmt.pix.pixelformat = fourcc;
    return format;
}

TEST(PoseTest, FewAnswersTellHowEverySizeIsLaidOut) {
    for (const corvane_format& each : corvane_formats) {
        const uint32_t fourcc = each.fourcc;
        if (each.model != CORVANE_YUV)
            continue;
        OneNode node(VideoDesc{V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, fourcc, 0});
        for (uint32_t width = 1; width < 2200; width += 13) {
            const uint32_t height = (width * 7) % 2100;
            v4l2_format format = wish(V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, fourcc, width, height);
            ASSERT_EQ(node.call(VIDIOC_TRY_FMT, &format), 0);
            const vengine_layout layout = vengine_layout_of(
                fourcc, vengine_clamp_size(width, VENGINE_MIN_WIDTH, VENGINE_MAX_WIDTH),
                vengine_clamp_size(height, VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT));
            const v4l2_pix_format_mplane& got = format.fmt.pix_mp;
            ASSERT_EQ((std::vector<uint32_t>{got.width, got.height, got.num_planes}),
                      (std::vector<uint32_t>{layout.width, layout.height, layout.num_planes}));
            for (uint32_t i = 0; i < layout.num_planes; ++i) {
                ASSERT_EQ(got.plane_fmt[i].bytesperline, layout.bytesperline[i]) << width;
                ASSERT_EQ(got.plane_fmt[i].sizeimage, layout.sizeimage[i]) << width;
            }
        }
    }
}

/** What a driver with a habit made of some sizes, and what it then makes of another one. */
struct Habit {
    const char* name;
    std::vector<SizeDesc> sizes;
    std::vector<AnswerDesc> answers;
    AnswerDesc other;
};

SizeDesc discrete(uint32_t width, uint32_t height) {
    return {V4L2_FRMSIZE_TYPE_DISCRETE, {width, 0, 0, height, 0, 0}, {}};
}
SizeDesc steps(uint32_t step) {
    return {V4L2_FRMSIZE_TYPE_STEPWISE, {16, 4096, step, 16, 4096, step}, {}};
}

const Habit kHabits[] = {
    {"takes the nearest of its sizes",
     {discrete(320, 180), discrete(640, 360), discrete(1280, 720)},
     {{100, 100, {320, 180, {{640, 115200}}}}, {1000, 600, {1280, 720, {{2560, 1843200}}}}},
     {500, 350, {640, 360, {{1280, 460800}}}}},
    {"takes the size that shares most with what is wanted",
     {discrete(400, 100), discrete(160, 300)},
     {{250, 250, {160, 300, {{160, 48000}}}}, {300, 150, {400, 100, {{400, 40000}}}}},
     {210, 210, {160, 300, {{160, 48000}}}}},
    {"rounds down to eights",
     {steps(8)},
     {{101, 67, {96, 64, {{96, 6144}}}}, {162, 66, {160, 64, {{160, 10240}}}}},
     {95, 79, {88, 72, {{88, 6336}}}}},
    {"rounds to the nearest eights",
     {steps(8)},
     {{101, 67, {104, 64, {{104, 6656}}}}, {162, 70, {160, 72, {{160, 11520}}}}},
     {95, 73, {96, 72, {{96, 6912}}}}},
    {"tells no sizes and rounds up to fours",
     {},
     {{1, 1, {16, 16, {{32, 512}}}},
      {101, 67, {104, 68, {{208, 14144}}}},
      {162, 66, {164, 68, {{328, 22304}}}},
      {333, 251, {336, 252, {{672, 169344}}}},
      {16384, 16384, {4096, 4096, {{8192, 33554432}}}}},
     {4093, 88, {4096, 88, {{8192, 720896}}}}},
    {"has one size only",
     {},
     {{1, 1, {720, 576, {{1440, 829440}}}}, {16384, 16384, {720, 576, {{1440, 829440}}}}},
     {640, 480, {720, 576, {{1440, 829440}}}}},
    {"pads lines to 64 bytes, heights to 16 lines, planes to pages",
     {steps(2)},
     {{98, 50, {98, 50, {{128, 12288}}}},
      {320, 240, {320, 240, {{320, 118784}}}},
      {1920, 1080, {1920, 1080, {{1920, 3133440}}}},
      {1366, 768, {1366, 768, {{1408, 1622016}}}}},
     {500, 100, {500, 100, {{512, 86016}}}}},
    {"counts two chroma planes of a quarter of odd pictures",
     {steps(1)},
     {{101, 67, {101, 67, {{101, 10149}}}}, {333, 251, {333, 251, {{333, 125373}}}}},
     {499, 401, {499, 401, {{499, 300147}}}}},
    {"halves odd widths downwards",
     {steps(1)},
     {{101, 66, {101, 66, {{50, 1650}}}}, {333, 250, {333, 250, {{166, 20750}}}}},
     {499, 400, {499, 400, {{249, 49800}}}}},
    {"puts 128 bytes before every picture",
     {steps(2)},
     {{98, 50, {98, 50, {{196, 9928}}}}, {320, 240, {320, 240, {{640, 153728}}}}},
     {500, 100, {500, 100, {{1000, 100128}}}}},
    {"compresses, to a size that nobody can tell",
     {steps(2)},
     {{320, 240, {320, 240, {{0, 20000}}}},
      {640, 480, {640, 480, {{0, 65000}}}},
      {1280, 960, {1280, 960, {{0, 90000}}}}},
     {400, 300, {400, 300, {{0, 65000}}}}},
};

TEST(PoseTest, AnswersOtherSizesByTheDriversHabit) {
    for (const Habit& habit : kHabits) {
        FormatDesc format;
        format.fourcc = V4L2_PIX_FMT_GREY;
        format.sizes = habit.sizes;
        format.answers = habit.answers;
        VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, format.fourcc, sim::kPlainRole};
        video.formats = {format};
        OneNode node(video);
        for (const AnswerDesc& answer :
             {habit.answers.front(), habit.answers.back(), habit.other}) {
            v4l2_format asked =
                wish(video.bufType, format.fourcc, answer.askedWidth, answer.askedHeight);
            ASSERT_EQ(node.call(VIDIOC_S_FMT, &asked), 0);
            const v4l2_pix_format& got = asked.fmt.pix;
            EXPECT_EQ((sim::LayoutDesc{got.width, got.height, {{got.bytesperline, got.sizeimage}}}),
                      answer.layout)
                << habit.name << ": " << got.width << 'x' << got.height << ' ' << got.bytesperline
                << ' ' << got.sizeimage;
        }
    }
}

TEST(PoseTest, RefusesUnknownFormatsOrTurnsThemIntoAnother) {
    VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
    for (const int result : {-EINVAL, -EBUSY, 0}) {
        video.unknownFormat = result;
        video.fallback = V4L2_PIX_FMT_NV12;
        OneNode node(video);
        v4l2_format format = wish(video.bufType, V4L2_PIX_FMT_RGB24, 64, 64);
        EXPECT_EQ(node.call(VIDIOC_TRY_FMT, &format), result);
        if (result == 0) {
            EXPECT_EQ(format.fmt.pix.pixelformat, uint32_t{V4L2_PIX_FMT_NV12});
        }
    }
}

TEST(PoseTest, OffersIntervalsAndTakesTheNearest) {
    VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
    FormatDesc& format = video.formats.emplace_back();
    format.fourcc = video.format;
    format.sizes = {discrete(320, 240)};
    format.sizes[0].intervals = {{V4L2_FRMIVAL_TYPE_DISCRETE, {{1, 60}, {}, {}}},
                                 {V4L2_FRMIVAL_TYPE_DISCRETE, {{1, 15}, {}, {}}}};
    format.answers = {{320, 240, {320, 240, {{320, 76800}}}}};
    video.interval = {{1, 15}};
    OneNode node(video);
    v4l2_frmivalenum interval = {};
    interval.pixel_format = format.fourcc;
    interval.width = 320;
    interval.height = 240;
    interval.index = 1;
    EXPECT_EQ(node.call(VIDIOC_ENUM_FRAMEINTERVALS, &interval), 0);
    EXPECT_EQ(interval.discrete.denominator, 15U);
    interval.index = 2;
    EXPECT_EQ(node.call(VIDIOC_ENUM_FRAMEINTERVALS, &interval), -EINVAL);
    const auto intervals = format.sizes[0].intervals;
    format.sizes = {{V4L2_FRMSIZE_TYPE_STEPWISE, {16, 640, 2, 16, 480, 2}, intervals}};
    for (const auto& [width, height, result] : {std::tuple(16U, 480U, 0),
                                                {640U, 16U, 0},
                                                {641U, 16U, -EINVAL},
                                                {640U, 481U, -EINVAL},
                                                {15U, 16U, -EINVAL},
                                                {16U, 15U, -EINVAL}}) {
        interval.index = 0;
        interval.width = width;
        interval.height = height;
        EXPECT_EQ(OneNode(video).call(VIDIOC_ENUM_FRAMEINTERVALS, &interval), result)
            << width << 'x' << height;
    }
    for (const auto& [wanted, got] : {std::pair(50U, 60U), {1U, 15U}, {1000U, 60U}}) {
        v4l2_streamparm parameters = {};
        parameters.type = video.bufType;
        parameters.parm.capture.timeperframe = {1, wanted};
        for (const unsigned long code : {VIDIOC_S_PARM, VIDIOC_G_PARM}) {
            EXPECT_EQ(node.call(code, &parameters), 0);
            EXPECT_EQ(parameters.parm.capture.timeperframe.denominator, got);
        }
        EXPECT_EQ(parameters.parm.capture.reserved[0], 0U);
    }
}

TEST(PoseTest, TriesAPadsFormatWithoutSettingIt) {
    SubDeviceDesc desc;
    desc.pads = {{0, {}, {{MEDIA_BUS_FMT_Y8_1X8, 0, {{2000, 3000, 16, 480}, {16, 640, 16, 480}}}}}};
    desc.pads[0].format.code = MEDIA_BUS_FMT_Y8_1X8;
    desc.pads[0].format.width = 320;
    desc.pads[0].format.height = 240;
    OneNode node(desc);
    for (const auto& [which, width] :
         {std::pair(V4L2_SUBDEV_FORMAT_TRY, 320U), {V4L2_SUBDEV_FORMAT_ACTIVE, 640U}}) {
        v4l2_subdev_format format = {};
        format.which = which;
        format.format.width = 1000;
        format.format.height = 400;
        format.format.code = MEDIA_BUS_FMT_Y8_1X8;
        EXPECT_EQ(node.call(VIDIOC_SUBDEV_S_FMT, &format), 0);
        EXPECT_EQ(format.format.width, 640U);
        EXPECT_EQ(format.format.height, 400U);
        format.which = V4L2_SUBDEV_FORMAT_ACTIVE;
        EXPECT_EQ(node.call(VIDIOC_SUBDEV_G_FMT, &format), 0);
        EXPECT_EQ(format.format.width, width);
    }
}

TEST(PoseTest, SetsTheStandardsAndTimingsThatItHas) {
    VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
    sim::ConnectorsDesc& inputs = video.signal.inputs.emplace();
    inputs.list.resize(1);
    inputs.list[0].standards = V4L2_STD_PAL;
    video.signal.standard = V4L2_STD_PAL;
    video.signal.timings.emplace().width = 640;
    video.signal.timingsOffered.resize(1);
    video.signal.timingsOffered[0].width = 1280;
    OneNode node(video);
    for (const auto& [width, result, got] :
         {std::tuple(640U, 0, 640U), {1280U, 0, 1280U}, {640U, -EINVAL, 1280U}}) {
        v4l2_dv_timings timings = {};
        timings.type = V4L2_DV_BT_656_1120;
        timings.bt.width = width;
        EXPECT_EQ(node.call(VIDIOC_S_DV_TIMINGS, &timings), result);
        EXPECT_EQ(node.call(VIDIOC_G_DV_TIMINGS, &timings), 0);
        EXPECT_EQ(timings.bt.width, got);
    }
    for (const auto& [wanted, result, got] :
         {std::tuple(V4L2_STD_PAL_B | V4L2_STD_NTSC_M, 0, V4L2_STD_PAL_B),
          {V4L2_STD_NTSC_M, -EINVAL, V4L2_STD_PAL_B}}) {
        v4l2_std_id standard = wanted;
        EXPECT_EQ(node.call(VIDIOC_S_STD, &standard), result);
        EXPECT_EQ(node.call(VIDIOC_G_STD, &standard), 0);
        EXPECT_EQ(standard, got);
    }
}

TEST(PoseTest, HasOneConnectorAndNoneOfTheOtherKind) {
    for (const bool output : {false, true}) {
        VideoDesc video{output ? V4L2_BUF_TYPE_VIDEO_OUTPUT : V4L2_BUF_TYPE_VIDEO_CAPTURE,
                        V4L2_PIX_FMT_GREY, sim::kPlainRole};
        sim::ConnectorsDesc& connectors =
            (output ? video.signal.outputs : video.signal.inputs).emplace();
        connectors.list.resize(2);
        connectors.current = 1;
        OneNode node(video);
        uint32_t index = 7;
        EXPECT_EQ(node.call(output ? VIDIOC_G_OUTPUT : VIDIOC_G_INPUT, &index), 0);
        EXPECT_EQ(index, 1U);
        EXPECT_EQ(node.call(output ? VIDIOC_G_INPUT : VIDIOC_G_OUTPUT, &index), -ENOTTY);
        for (const auto& [wanted, result] : {std::pair(0U, -EBUSY), {1U, 0}, {2U, -EINVAL}}) {
            index = wanted;
            EXPECT_EQ(node.call(output ? VIDIOC_S_OUTPUT : VIDIOC_S_INPUT, &index), result);
        }
        v4l2_enum_dv_timings timings = {};
        for (const unsigned long code : {VIDIOC_G_STD, VIDIOC_S_STD, VIDIOC_G_DV_TIMINGS,
                                         VIDIOC_S_DV_TIMINGS, VIDIOC_ENUM_DV_TIMINGS})
            EXPECT_EQ(node.call(code, &timings), -ENODATA) << code;
    }
    VideoDesc none{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
    none.deviceCaps = V4L2_CAP_VIDEO_CAPTURE;
    v4l2_input input = {};
    EXPECT_EQ(OneNode(none).call(VIDIOC_ENUMINPUT, &input), -ENOTTY);
}

TEST(PoseTest, GrantsBuffersAsTheQueueDoes) {
    VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
    video.minBuffers = 2;
    video.maxBuffers = 6;
    video.queueCapabilities = V4L2_BUF_CAP_SUPPORTS_DMABUF;
    FormatDesc& offered = video.formats.emplace_back();
    offered.fourcc = video.format;
    offered.sizes = {steps(1)};
    offered.answers = {{100, 100, {100, 100, {{100, 10000}}}}};
    video.layout = offered.answers[0].layout;
    video.secondQueue = {video};
    video.secondQueue[0].bufType = V4L2_BUF_TYPE_VIDEO_OUTPUT;
    OneNode node(video);
    for (const uint32_t type : {video.bufType, video.secondQueue[0].bufType}) {
        v4l2_format format = wish(type, video.format, 64 * type, 64);
        EXPECT_EQ(node.call(VIDIOC_S_FMT, &format), 0);
        v4l2_requestbuffers request = {};
        request.type = type;
        request.count = 1;
        request.memory = V4L2_MEMORY_MMAP;
        EXPECT_EQ(node.call(VIDIOC_REQBUFS, &request), -EINVAL);
        request.memory = V4L2_MEMORY_DMABUF;
        for (const auto& [wanted, granted] : {std::pair(1U, 2U), {5U, 5U}, {64U, 6U}, {0U, 0U}}) {
            request.count = wanted;
            ASSERT_EQ(node.call(VIDIOC_REQBUFS, &request), 0);
            EXPECT_EQ(request.count, granted);
            EXPECT_EQ(request.capabilities, uint32_t{V4L2_BUF_CAP_SUPPORTS_DMABUF});
        }
    }
    video.secondQueue[0].queueCapabilities.reset();
    v4l2_requestbuffers untold{1, V4L2_BUF_TYPE_VIDEO_OUTPUT, V4L2_MEMORY_DMABUF, 9, 0, {}};
    EXPECT_EQ(OneNode(video).call(VIDIOC_REQBUFS, &untold), 0);
    EXPECT_EQ(untold.capabilities, 0U);
    for (const uint32_t type : {video.bufType, video.secondQueue[0].bufType}) {
        v4l2_format format = wish(type, 0, 0, 0);
        EXPECT_EQ(node.call(VIDIOC_G_FMT, &format), 0);
        EXPECT_EQ(format.fmt.pix.width, 64 * type) << "each its own";
    }
}

struct Setting {
    const char* name;
    ControlDesc control;
    int64_t wanted;
    int result;
    int64_t value;
};

ControlDesc control(uint32_t type, int64_t minimum, int64_t maximum, int64_t step,
                    uint32_t flags = 0) {
    ControlDesc desc;
    desc.id = V4L2_CID_CONTRAST;
    desc.type = type;
    desc.minimum = minimum;
    desc.maximum = maximum;
    desc.step = step;
    desc.flags = flags;
    if (type == V4L2_CTRL_TYPE_MENU)
        desc.menu = {{1, "One"}, {3, "Three"}};
    return desc;
}

const Setting kSettings[] = {
    {"clamped", control(V4L2_CTRL_TYPE_INTEGER, -10, 10, 1), 99, 0, 10},
    {"to the nearest step", control(V4L2_CTRL_TYPE_INTEGER, 1, 20, 5), 14, 0, 16},
    {"not beyond the last step", control(V4L2_CTRL_TYPE_INTEGER, 1, 20, 5), 20, 0, 16},
    {"the whole range of 64 bits", control(V4L2_CTRL_TYPE_INTEGER64, INT64_MIN, INT64_MAX, 1),
     INT64_MAX - 3, 0, INT64_MAX - 3},
    {"true", control(V4L2_CTRL_TYPE_BOOLEAN, 0, 1, 1), 7, 0, 1},
    {"known bits", control(V4L2_CTRL_TYPE_BITMASK, 0, 0xf0, 0), 0xff, 0, 0xf0},
    {"an item", control(V4L2_CTRL_TYPE_MENU, 1, 3, 0), 3, 0, 3},
    {"a button", control(V4L2_CTRL_TYPE_BUTTON, 0, 0, 0), 1, 0, 0},
    {"no item", control(V4L2_CTRL_TYPE_MENU, 1, 3, 0), 2, -EINVAL, 0},
    {"beyond the items", control(V4L2_CTRL_TYPE_MENU, 1, 3, 0), 4, -ERANGE, 0},
    {"read-only", control(V4L2_CTRL_TYPE_INTEGER, 0, 9, 1, V4L2_CTRL_FLAG_READ_ONLY), 1, -EACCES,
     0},
    {"an array", control(V4L2_CTRL_TYPE_U8, 0, 9, 1, V4L2_CTRL_FLAG_HAS_PAYLOAD), 1, -EACCES, 0},
};

TEST(PoseTest, SetsControlsByTheirKind) {
    for (const Setting& setting : kSettings) {
        VideoDesc video{V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, sim::kPlainRole};
        video.controls = {setting.control};
        SubDeviceDesc subDevice;
        subDevice.controls = {setting.control};
        OneNode nodes[] = {OneNode(video), OneNode(subDevice)};
        for (OneNode& node : nodes) {
            const bool isLong = setting.control.type == V4L2_CTRL_TYPE_INTEGER64;
            v4l2_ext_control item = {};
            item.id = setting.control.id;
            if (isLong)
                item.value64 = setting.wanted;
            else
                item.value = static_cast<int32_t>(setting.wanted);
            v4l2_ext_controls list = {};
            list.count = 1;
            list.error_idx = 9;
            v4l2_ext_control tried = item;
            list.controls = &tried;
            EXPECT_EQ(node.call(VIDIOC_TRY_EXT_CTRLS, &list), setting.result) << setting.name;
            EXPECT_EQ(list.error_idx, setting.result < 0 ? 0U : 1U);
            list.controls = &item;
            EXPECT_EQ(node.call(VIDIOC_S_EXT_CTRLS, &list), setting.result) << setting.name;
            const bool isArray = setting.control.flags == V4L2_CTRL_FLAG_HAS_PAYLOAD;
            item.size = 8;
            item.value64 = 0;
            EXPECT_EQ(node.call(VIDIOC_G_EXT_CTRLS, &list), isArray ? -EFAULT : 0);
            EXPECT_EQ(isLong ? item.value64 : item.value, setting.value) << setting.name;
        }
    }
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
