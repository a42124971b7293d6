#include "VideoDeviceTest.h"

#include <corvane/platform/Properties.h>

#include <cstdlib>
#include <thread>

namespace NSVista::NSCorvane::test {
namespace {

TEST_F(VideoDeviceTest, ClassesNodesByTheirCapabilities) {
    constexpr uint32_t kS = V4L2_CAP_STREAMING;
    constexpr uint32_t kDeviceCaps = V4L2_CAP_DEVICE_CAPS;
    const struct {
        uint32_t capabilities, deviceCaps;
        std::string type, caps, line;
    } cases[] = {
        {kS | 0x1, 0, "V4L2_BUF_TYPE_VIDEO_CAPTURE", "4000001", "D [openDevice] dip(100) type 1"},
        {kS | 0x1000, 0, "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE", "4001000",
         "D [openDevice] dip(100) type 9"},
        {kS | 0x2, 0, "V4L2_BUF_TYPE_VIDEO_OUTPUT", "4000002", "D [openDevice] dip(100) type 2"},
        {kS | 0x2000, 0, "V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE", "4002000",
         "D [openDevice] dip(100) type 10"},
        {kS | 0x800000, 0, "V4L2_BUF_TYPE_META_CAPTURE", "4800000",
         "D [openDevice] dip(100) type 13"},
        {kS | 0x8000000, 0, "V4L2_BUF_TYPE_META_OUTPUT", "c000000",
         "D [openDevice] dip(100) type 14"},
        {kS | 0x3, 0, "V4L2_BUF_TYPE_VIDEO_CAPTURE", "4000003", "D [openDevice] dip(100) type 1"},
        {kS | 0x2001, 0, "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE", "4002001",
         "D [openDevice] dip(100) type 9"},
        {kS | 0x800002, 0, "V4L2_BUF_TYPE_VIDEO_OUTPUT", "4800002",
         "D [openDevice] dip(100) type 2"},
        {kDeviceCaps | kS | 0x1, kS | 0x2, "V4L2_BUF_TYPE_VIDEO_OUTPUT", "4000002",
         "D [openDevice] dip(100) type 2"},
        {kS | 0x1, kS | 0x2, "V4L2_BUF_TYPE_VIDEO_CAPTURE", "4000001",
         "D [openDevice] dip(100) type 1"},
        {0x800000, 0, "0", "800000", "E [openDevice] dip (100) not support streaming"},
        {kDeviceCaps | kS | 0x1, 0x1, "0", "1", "E [openDevice] dip (100) not support streaming"},
        {kS | 0x8000, 0, "0", "4008000", "E [openDevice] Invalid video device capability"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.caps);
        FakeKernel kernel;
        LogCapture log(kVideoTag, Utils::ULog::kDebug);
        kernel.on<v4l2_capability>(VIDIOC_QUERYCAP, [&c](int, v4l2_capability& capability) {
            capability.capabilities = c.capabilities;
            capability.device_caps = c.deviceCaps;
            return 0;
        });
        V4L2VideoDevice device(0x1a, "dip", "/dev/video3");
        EXPECT_EQ(device.openDevice(), c.type == "0" ? -EINVAL : 0);
        EXPECT_EQ(log.take(), Lines({c.line}));
        EXPECT_EQ(device.toString(), "V4L2VideoDevice: 100 -> /dev/video3 0x1a(dip) Cap=0x" +
                                         c.caps + " " + c.type + " { 0 #REQBUFS=0 Free=0x0 0 }");
        EXPECT_EQ(device.closeDevice(), 0);
    }
}

TEST_F(VideoDeviceTest, OpensAndClosesOnce) {
    mLog.setLevel(Utils::ULog::kDebug);
    mKernel.openResults["/dev/video3"] = -ENOENT;
    EXPECT_EQ(mDevice->openDevice(), -ENOENT);
    mKernel.openResults.clear();
    EXPECT_EQ(mDevice->closeDevice(), -EINVAL);
    EXPECT_EQ(mDevice->openDevice(), 0);
    EXPECT_EQ(mDevice->openDevice(), -EEXIST);
    mKernel.closeResult = -EIO;
    EXPECT_EQ(mDevice->closeDevice(), -EIO);
    mKernel.closeResult = 0;
    EXPECT_EQ(mDevice->closeDevice(), 0);
    EXPECT_EQ(mLog.take(),
              Lines({"W [openDevice] Failed to open /dev/video3 ret=-2",
                     "D [closeDevice] /dev/video3 -1 was closed", "D [openDevice] dip(100) type 9",
                     "W [openDevice] /dev/video3 100 was opened",
                     "E [closeDevice] Failed to close /dev/video3 100"}));
    EXPECT_EQ(mKernel.takeCalls(), Lines({"open /dev/video3 0x802", "open /dev/video3 0x802",
                                          "ioctl 100 0x80685600", "close 100", "close 100"}));
    mKernel.answer(VIDIOC_QUERYCAP, -EIO);
    EXPECT_EQ(mDevice->openDevice(), -EIO);
    EXPECT_EQ(mKernel.takeCalls().back(), "close 101");
    EXPECT_EQ(mLog.take(), Lines({"E [openDevice] Failed to query device capability: -5"}));
    EXPECT_EQ(mReports.take(),
              ReportCapture::of("VIDIOC_QUERYCAP fail err=-5(Input/output error)"));
    EXPECT_THAT(mDevice->toString(), testing::StartsWith("V4L2VideoDevice: -1 -> "));
}

TEST_F(VideoDeviceTest, IsMadeOverAnEntitysNode) {
    NotingMediaDevice media(mKernel);
    const auto made = IV4L2VideoDevice::make(media, "dip", "video7", 3);
    EXPECT_EQ(made->openDevice(), 0);
    EXPECT_EQ(mKernel.takeCalls().front(), "open /dev/video7 0x802");
    EXPECT_EQ(made->setMonitor(mMonitor), 0);
    EXPECT_EQ(mMonitor->take(), Lines({"attach 3"}));
    made->closeDevice();
}

/** The formats of one class: what is wanted, what is sent, what the driver makes of it. */
struct FormatCase {
    const char* name;
    uint32_t caps;
    uint32_t type;
    std::function<void(v4l2_format&)> sent, answer;
    PixelFormat result;
};

class VideoFormat : public VideoDeviceTest, public testing::WithParamInterface<FormatCase> {
protected:
    static Lines textOf(const PixelFormat& format) {
        Lines words;
        for (const uint32_t word : {format.format, format.width, format.height, format.planeCount})
            words.push_back(std::to_string(word));
        for (const auto& plane : format.planes)
            words.push_back(std::to_string(plane.stride) + "," + std::to_string(plane.size));
        return words;
    }
};

TEST_P(VideoFormat, IsSentAndReadBackWhole) {
    const FormatCase& c = GetParam();
    setCaps(c.caps);
    ASSERT_EQ(mDevice->openDevice(), 0);
    v4l2_format got = {};
    const auto answer = [&](int, v4l2_format& format) {
        got = format;
        c.answer(format);
        return 0;
    };
    mKernel.on<v4l2_format>(VIDIOC_G_FMT, answer);
    mKernel.on<v4l2_format>(VIDIOC_S_FMT, answer);
    v4l2_format expected = {};
    expected.type = c.type;
    PixelFormat format = {};
    EXPECT_EQ(mDevice->getFormat(format), 0);
    EXPECT_EQ(memcmp(&got, &expected, sizeof(got)), 0);
    EXPECT_EQ(textOf(format), textOf(c.result));

    format = {1, 2, 3, 2, {{4, 5}, {6, 7}, {8, 9}}};
    c.sent(expected);
    EXPECT_EQ(mDevice->setFormat(format), 0);
    EXPECT_EQ(memcmp(&got, &expected, sizeof(got)), 0);
    const PixelFormat::Plane rest = format.planes[2];
    EXPECT_TRUE(c.result.planeCount > 2 || (rest.stride == 8 && rest.size == 9));
    format = {format.format, format.width, format.height, format.planeCount, {}};
    EXPECT_EQ(mDevice->getFormat(format), 0);
    EXPECT_EQ(textOf(format), textOf(c.result));
}

const auto kMetaSent = [](v4l2_format& f) { f.fmt.meta = {1, 5}; };
const auto kMetaAnswer = [](v4l2_format& f) { f.fmt.meta = {11, 4096}; };
const auto kSingleSent = [](v4l2_format& f) {
    f.fmt.pix.width = 2;
    f.fmt.pix.height = 3;
    f.fmt.pix.pixelformat = 1;
    f.fmt.pix.field = 1;
    f.fmt.pix.bytesperline = 4;
};
const auto kSingleAnswer = [](v4l2_format& f) {
    f.fmt.pix.width = 12;
    f.fmt.pix.height = 13;
    f.fmt.pix.pixelformat = 11;
    f.fmt.pix.bytesperline = 14;
    f.fmt.pix.sizeimage = 15;
};
const auto kMultiSent = [](v4l2_format& f) {
    f.fmt.pix_mp.width = 2;
    f.fmt.pix_mp.height = 3;
    f.fmt.pix_mp.pixelformat = 1;
    f.fmt.pix_mp.field = 1;
    f.fmt.pix_mp.num_planes = 2;
    f.fmt.pix_mp.plane_fmt[0].bytesperline = 4;
    f.fmt.pix_mp.plane_fmt[0].sizeimage = 5;
    f.fmt.pix_mp.plane_fmt[1].bytesperline = 6;
    f.fmt.pix_mp.plane_fmt[1].sizeimage = 7;
};
template <uint8_t Planes>
void multiAnswer(v4l2_format& f) {
    f.fmt.pix_mp.width = 12;
    f.fmt.pix_mp.height = 13;
    f.fmt.pix_mp.pixelformat = 11;
    f.fmt.pix_mp.num_planes = Planes;
    for (uint32_t i = 0; i < 8; ++i) {
        f.fmt.pix_mp.plane_fmt[i].bytesperline = 20 + i;
        f.fmt.pix_mp.plane_fmt[i].sizeimage = 40 + i;
    }
}
constexpr PixelFormat kAllPlanes = {
    11,
    12,
    13,
    200,
    {{20, 40}, {21, 41}, {22, 42}, {23, 43}, {24, 44}, {25, 45}, {26, 46}, {27, 47}}};

INSTANTIATE_TEST_SUITE_P(
    Classes, VideoFormat,
    testing::Values(
        FormatCase{
            "MetaCapture", 0x800000, 13, kMetaSent, kMetaAnswer, {11, 0, 0, 1, {{4096, 4096}}}},
        FormatCase{
            "MetaOutput", 0x8000000, 14, kMetaSent, kMetaAnswer, {11, 0, 0, 1, {{4096, 4096}}}},
        FormatCase{"Single", 0x1, 1, kSingleSent, kSingleAnswer, {11, 12, 13, 1, {{14, 15}}}},
        FormatCase{"SingleOutput", 0x2, 2, kSingleSent, kSingleAnswer, {11, 12, 13, 1, {{14, 15}}}},
        FormatCase{
            "Multi", 0x1000, 9, kMultiSent, multiAnswer<2>, {11, 12, 13, 2, {{20, 40}, {21, 41}}}},
        FormatCase{"MixedNode",
                   0x2001,
                   9,
                   kMultiSent,
                   multiAnswer<2>,
                   {11, 12, 13, 2, {{20, 40}, {21, 41}}}},
        FormatCase{"MorePlanesThanThereAre", 0x2000, 10, kMultiSent, multiAnswer<200>, kAllPlanes}),
    [](const auto& param) { return std::string(param.param.name); });

TEST_F(VideoDeviceTest, PassesOnAPlaneCountThatItDoesNotFollow) {
    ASSERT_EQ(mDevice->openDevice(), 0);
    uint32_t sent = 0;
    mKernel.on<v4l2_format>(VIDIOC_S_FMT, [&](int, v4l2_format& format) {
        sent = format.fmt.pix_mp.num_planes;
        return 0;
    });
    PixelFormat format = {};
    for (const uint32_t count : {9U, 300U, ~0U}) {
        format.planeCount = count;
        EXPECT_EQ(mDevice->setFormat(format), 0);
        EXPECT_EQ(sent, count & 0xff);
        EXPECT_EQ(format.planeCount, count & 0xff);
    }
}

TEST_F(VideoDeviceTest, ReportsRefusedFormats) {
    ASSERT_EQ(mDevice->openDevice(), 0);
    mLog.setLevel(Utils::ULog::kDebug);
    mKernel.answer(VIDIOC_G_FMT, -EIO);
    mKernel.answer(VIDIOC_S_FMT, -EBUSY);
    PixelFormat format = {1, 2, 3, 1, {}};
    EXPECT_EQ(mDevice->getFormat(format), -EIO);
    EXPECT_EQ(format.width, 2U);
    EXPECT_EQ(mReports.take(), ReportCapture::of("VIDIOC_G_FMT fail err=-5(Input/output error)"));
    EXPECT_EQ(mDevice->setFormat(format), -EBUSY);
    EXPECT_EQ(mReports.take(),
              ReportCapture::of("VIDIOC_S_FMT fail err=-16(Device or resource busy)"));
    EXPECT_EQ(mLog.take(), Lines({"D [getFormat] dip(100) format: 9",
                                  "E [getFormat] Failed to get device format: -5",
                                  "D [setFormat] dip(100) multi plane",
                                  "E [setFormat] Failed to set device format: -16"}));
}

TEST_F(VideoDeviceTest, StreamsAndLetsItsMonitorGo) {
    mLog.setLevel(Utils::ULog::kKeyEvent);
    ASSERT_EQ(mDevice->openDevice(), 0);
    std::vector<uint32_t> types;
    int result = 0;
    const auto stream = [&](int, uint32_t& type) {
        types.push_back(type);
        return result;
    };
    mKernel.on<uint32_t>(VIDIOC_STREAMON, stream);
    mKernel.on<uint32_t>(VIDIOC_STREAMOFF, stream);
    mDevice->setMonitor(mMonitor);
    mDevice->setMonitor(nullptr);
    mDevice->setMonitor(mMonitor);
    EXPECT_EQ(mDevice->streamOn(), 0);
    result = -EPIPE;
    EXPECT_EQ(mDevice->streamOn(), -EPIPE);
    EXPECT_EQ(mDevice->streamOff(), -EPIPE);
    EXPECT_EQ(mMonitor->take(), Lines({"attach 26", "attach 26"}));
    result = 0;
    EXPECT_EQ(mDevice->streamOff(), 0);
    EXPECT_EQ(mDevice->streamOff(), 0);
    EXPECT_EQ(mMonitor->take(), Lines({"detach 26"}));
    EXPECT_EQ(types, std::vector<uint32_t>(5, 9));
    EXPECT_EQ(mLog.take(), Lines({"K [setMonitor] attachObserver port:26(dip)  #DECKEY",
                                  "K [setMonitor] attachObserver port:26(dip)  #DECKEY",
                                  "E [streamOn] VIDIOC_STREAMON fail err=-32 <dip>",
                                  "E [streamOff] VIDIOC_STREAMOFF fail err=-32 <dip>",
                                  "K [streamOff] detachObserver port:26(dip)  #DECKEY"}));
    EXPECT_EQ(mReports.take(), Lines());
}

TEST_F(VideoDeviceTest, WarnsOfASlowStreamOnWhenTimedFromTheStart) {
    // Read when the library is loaded: the process of its own inherits the environment.
    setenv("persist.vendor.kvx.camera.ulog.detailslevel", "4", 1);
    inOwnProcess([this] {
        mDevice->openDevice();
        mLog.take();
        const auto slowly = [](int, uint32_t&) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2010));
            return 0;
        };
        mKernel.on<uint32_t>(VIDIOC_STREAMON, slowly);
        mKernel.on<uint32_t>(VIDIOC_STREAMOFF, slowly);
        mDevice->streamOn();
        mDevice->streamOff();  // within its own limit
        const Lines lines = mLog.take();
        ASSERT_EQ(lines.size(), 1U);
        EXPECT_THAT(lines[0],
                    testing::MatchesRegex("W .streamOn. dip: VIDIOC_STREAMON takes 20[0-9]+ ns"));
    });
    unsetenv("persist.vendor.kvx.camera.ulog.detailslevel");
}

TEST_F(VideoDeviceTest, EndsWhenDestroyedOpen) {
    mDevice->openDevice();
    const std::string state =
        "V4L2VideoDevice: 100 -> /dev/video3 0x1a(dip) Cap=0x4001000 "
        "V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE { 0 #REQBUFS=0 Free=0x0 0 }";
    const auto onStack = [this] {
        V4L2VideoDevice unshared(1, "x", "/dev/x");
        unshared.setMonitor(mMonitor);
    };
    const auto silently = [this] {
        Utils::ULog::ULogger::sMode = 0;
        mDevice.reset();
    };
    expectFatal({
        {[this] { mDevice.reset(); }, kVideoTag, "~V4L2VideoDevice", "Still opened... " + state},
        {silently, kVideoTag, "~V4L2VideoDevice", "Still opened... " + state},
        {onStack, kVideoTag, "setMonitor", "Bad function"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
