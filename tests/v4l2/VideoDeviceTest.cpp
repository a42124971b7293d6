// SPDX-License-Identifier: Apache-2.0
#include "VideoDeviceTest.h"

#include <algorithm>
#include <thread>
#include <vector>

namespace NSVista::NSCorvane::test {
namespace {

TEST_F(VideoDeviceTest, ClassesNodesByTheirCapabilities) {
    constexpr uint32_t kS = V4L2_CAP_STREAMING;
    constexpr uint32_t kDeviceCaps = V4L2_CAP_DEVICE_CAPS;
    const struct {
        uint32_t capabilities, deviceCaps;
        std::string state;
        const char* error = nullptr;
    } cases[] = {
        {kS | 0x1, 0, "4000001 V4L2_BUF_TYPE_VIDEO_CAPTURE"},
        {kS | 0x2001, 0, "4002001 V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE"},
        {kS | 0x2000, 0, "4002000 V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE"},
        {kS | 0x800000, 0, "4800000 V4L2_BUF_TYPE_META_CAPTURE"},
        {kS | 0x8000000, 0, "c000000 V4L2_BUF_TYPE_META_OUTPUT"},
        {kDeviceCaps | kS | 0x1, kS | 0x2, "4000002 V4L2_BUF_TYPE_VIDEO_OUTPUT"},
        {kS | 0x1, kS | 0x2, "4000001 V4L2_BUF_TYPE_VIDEO_CAPTURE"},
        {kDeviceCaps | kS | 0x1, 0x1, "1 0", "E [openDevice] dip (107) not support streaming"},
        {kS | 0x8000, 0, "4008000 0", "E [openDevice] Invalid video device capability"},
    };
    int fd = FakeKernel::kFirstFd;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.state);
        mKernel.on<v4l2_capability>(VIDIOC_QUERYCAP, [&c](int, v4l2_capability& capability) {
            capability.capabilities = c.capabilities;
            capability.device_caps = c.deviceCaps;
            return 0;
        });
        V4L2VideoDevice device(0x1a, "dip", "/dev/video3");
        EXPECT_EQ(device.openDevice(), c.error != nullptr ? -EINVAL : 0);
        EXPECT_EQ(mLog.take(), c.error != nullptr ? Lines({c.error}) : Lines());
        EXPECT_EQ(device.toString(), "V4L2VideoDevice: " + std::to_string(fd++) +
                                         " -> /dev/video3 0x1a(dip) Cap=0x" + c.state +
                                         " { 0 #REQBUFS=0 Free=0x0 0 }");
        EXPECT_EQ(device.closeDevice(), 0);
    }
}

TEST_F(VideoDeviceTest, OpensAndClosesOnce) {
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
    EXPECT_EQ(mLog.take(), Lines({"W [openDevice] Failed to open /dev/video3 ret=-2",
                                  "W [openDevice] /dev/video3 100 was opened",
                                  "E [closeDevice] Failed to close /dev/video3 100"}));
    EXPECT_EQ(mKernel.takeCalls(), Lines({"open /dev/video3 0x802", "open /dev/video3 0x802",
                                          "VIDIOC_QUERYCAP 100", "close 100", "close 100"}));
    mKernel.answer(VIDIOC_QUERYCAP, -EIO);
    EXPECT_EQ(mDevice->openDevice(), -EIO);
    EXPECT_EQ(mKernel.takeCalls().back(), "close 101");
    EXPECT_THAT(mDevice->toString(), testing::StartsWith("V4L2VideoDevice: -1 -> "));
}

/** Words of a format: fourcc, width, height, plane count, then stride and size of each plane. */
std::vector<uint32_t> wordsOf(const PixelFormat& format) {
    std::vector<uint32_t> words = {format.format, format.width, format.height, format.planeCount};
    for (uint32_t i = 0; i < std::min(format.planeCount, PixelFormat::kMaxPlanes); ++i)
        words.insert(words.end(), {format.planes[i].stride, format.planes[i].size});
    return words;
}

/** A record of a fourcc, width, height, then stride and size of each plane. */
v4l2_format formatOf(uint32_t type, const std::vector<uint32_t>& words, uint8_t planes = 1) {
    v4l2_format format = {};
    format.type = type;
    if (v4l2::isMeta(type)) {
        format.fmt.meta = {words[0], words[4]};
        return format;
    }
    auto& pixels = format.fmt.pix_mp;  // begins like the record of a single plane
    pixels.pixelformat = words[0];
    pixels.width = words[1];
    pixels.height = words[2];
    pixels.field = V4L2_FIELD_NONE;
    if (!v4l2::isMultiPlanar(type)) {
        format.fmt.pix.bytesperline = words[3];
        format.fmt.pix.sizeimage = words[4];
        return format;
    }
    pixels.num_planes = planes;
    for (size_t i = 0; i < (words.size() - 3) / 2; ++i) {
        pixels.plane_fmt[i].bytesperline = words[3 + 2 * i];
        pixels.plane_fmt[i].sizeimage = words[4 + 2 * i];
    }
    return format;
}

TEST_F(VideoDeviceTest, SendsAndReadsBackTheFormatsOfEachClass) {
    const std::vector<uint32_t> two = {1, 2, 3, 4, 5, 6, 7};
    const std::vector<uint32_t> meta = {11, 0, 0, 0, 4096};
    const std::vector<uint32_t> all = {11, 12, 13, 20, 40, 21, 41, 22, 42, 23,
                                       43, 24, 44, 25, 45, 26, 46, 27, 47};
    std::vector<uint32_t> read = all;  // more planes are told of than there are
    read.insert(read.begin() + 3, 200);
    const struct {
        uint32_t caps;
        v4l2_format sent, answer;
        std::vector<uint32_t> result;
    } cases[] = {
        {0x800000, formatOf(13, two), formatOf(13, meta), {11, 0, 0, 1, 4096, 4096}},
        {0x8000000, formatOf(14, two), formatOf(14, meta), {11, 0, 0, 1, 4096, 4096}},
        {0x1, formatOf(1, {1, 2, 3, 4, 0}), formatOf(1, all), {11, 12, 13, 1, 20, 40}},
        {0x1000, formatOf(9, two, 2), formatOf(9, all, 1), {11, 12, 13, 1, 20, 40}},
        {0x2001, formatOf(9, two, 2), formatOf(9, all, 2), {11, 12, 13, 2, 20, 40, 21, 41}},
        {0x2000, formatOf(10, two, 2), formatOf(10, all, 200), read},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.caps);
        mDevice->closeDevice();
        mKernel.setCapabilities(c.caps);
        ASSERT_EQ(mDevice->openDevice(), 0);
        v4l2_format got = {};
        const auto answer = [&](int, v4l2_format& format) {
            got = format;
            format = c.answer;
            return 0;
        };
        mKernel.on<v4l2_format>(VIDIOC_G_FMT, answer);
        mKernel.on<v4l2_format>(VIDIOC_S_FMT, answer);
        PixelFormat format = {1, 2, 3, 2, {{4, 5}, {6, 7}}};
        EXPECT_EQ(mDevice->setFormat(format), 0);
        EXPECT_EQ(memcmp(&got, &c.sent, sizeof(got)), 0);
        EXPECT_EQ(wordsOf(format), c.result);
        format = {};
        EXPECT_EQ(mDevice->getFormat(format), 0);
        v4l2_format asked = {};
        asked.type = c.sent.type;
        EXPECT_EQ(memcmp(&got, &asked, sizeof(got)), 0);
        EXPECT_EQ(wordsOf(format), c.result);
    }
}

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

TEST_F(VideoDeviceTest, StreamsAndLetsItsMonitorGo) {
    open(1);
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
    mKernel.answer(VIDIOC_QBUF, 0);
    EXPECT_EQ(queue(), 0) << "which it is not told";
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
    EXPECT_EQ(mLog.take(), Lines({"E [streamOn] VIDIOC_STREAMON fail err=-32 <dip>",
                                  "E [streamOff] VIDIOC_STREAMOFF fail err=-32 <dip>"}));
    EXPECT_EQ(mReports.take(), Lines());
}

TEST_F(VideoDeviceTest, PrintsItselfBesideAnything) {
    for (const auto code : {VIDIOC_QBUF, VIDIOC_STREAMON, VIDIOC_STREAMOFF})
        mKernel.answer(code, 0);
    giveBack(0, V4L2_BUF_FLAG_REQUEST_FD);
    const auto monitor = IV4L2BufferMonitor::make("m");
    std::atomic<bool> done{false};
    std::thread printing([&] {
        while (!done)
            EXPECT_LE(dumpOf(*mDevice).size() + dumpOf(*monitor).size(), 5U);
    });
    const auto device = mDevice;
    for (int round = 0; round < 200; ++round) {
        device->openDevice();
        device->setKeepIndexes(round % 2 != 0);
        device->importBuffer(1);
        device->setMonitor(monitor);
        device->streamOn();
        queue();
        int port = 26;
        monitor->notifyRequestDone(201, &port, 1);
        device->streamOff();
        EXPECT_EQ(device->closeDevice(), 0);
    }
    done = true;
    printing.join();
}

TEST_F(VideoDeviceTest, EndsWhenDestroyedOpen) {
    mDevice->openDevice();
    const auto silently = [this] {
        Utils::ULog::ULogger::sMode = 0;
        mDevice.reset();
    };
    const auto onStack = [this] {
        V4L2VideoDevice unshared(1, "x", "/dev/x");
        unshared.setMonitor(mMonitor);
    };
    expectFatal({
        {silently, kVideoTag, "~V4L2VideoDevice", "Still opened... " + mDevice->toString()},
        {onStack, kVideoTag, "setMonitor", "Bad function"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
