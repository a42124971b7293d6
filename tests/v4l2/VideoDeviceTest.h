// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A video node on a fake kernel.
 */
#pragma once

#include <corvane/V4L2VideoDevice.h>
#include <linux/videodev2.h>

#include <memory>
#include <string>

#include "support/Recorders.h"

namespace NSVista::NSCorvane::test {

constexpr char kVideoTag[] = "corvane-V4L2VideoDevice";

class VideoDeviceTest : public testing::Test {
protected:
    VideoDeviceTest() { mKernel.setCapabilities(V4L2_CAP_VIDEO_CAPTURE_MPLANE); }
    ~VideoDeviceTest() override {
        mKernel.closeResult = 0;
        if (mDevice != nullptr)
            mDevice->closeDevice();
    }
    /** A new device, open, with buffers. @param granted by the driver, -1 for all. */
    void open(int count, int granted = -1) {
        mDevice = std::make_shared<V4L2VideoDevice>(0x1a, "dip", "/dev/video3");
        EXPECT_EQ(mDevice->openDevice(), 0);
        mKernel.on<v4l2_requestbuffers>(
            VIDIOC_REQBUFS, [this, granted](int, v4l2_requestbuffers& request) {
                mRequested = "count=" + std::to_string(request.count) +
                             " type=" + std::to_string(request.type) +
                             " memory=" + std::to_string(request.memory);
                if (granted >= 0)
                    request.count = static_cast<uint32_t>(granted);
                return 0;
            });
        EXPECT_EQ(mDevice->importBuffer(count), granted < 0 ? 0 : -ENOMEM);
        mLog.take();
        mKernel.takeCalls();
    }
    int queue(size_t planes = 1) { return mDevice->queueBuffer(bufferOf(planes), &mRequest, 0); }
    /** Planes of fds 5, 6, 7; offsets 50, 60, 70; sizes 500, 600, 700. */
    static FrameBuffer bufferOf(size_t planes) {
        return {{{5, 50, 500}, {6, 60, 600}, {7, 70, 700}}, planes};
    }
    /** Dequeuing gives @p index with @p flags. */
    void giveBack(uint32_t index, uint32_t flags) {
        mKernel.on<v4l2_buffer>(VIDIOC_DQBUF, [index, flags](int, v4l2_buffer& buffer) {
            buffer.index = index;
            buffer.flags = flags;
            buffer.request_fd = 201;
            return 0;
        });
    }
    /** The free indexes, as toString() has them. */
    std::string free() const {
        const std::string text = mDevice->toString();
        const size_t begin = text.find("Free=") + 5;
        return text.substr(begin, text.find(' ', begin) - begin);
    }

    FakeKernel mKernel;
    LogCapture mLog{kVideoTag};
    ReportCapture mReports;
    FakeMediaRequest mRequest;
    std::shared_ptr<NotingBufferMonitor> mMonitor = std::make_shared<NotingBufferMonitor>();
    std::shared_ptr<V4L2VideoDevice> mDevice =
        std::make_shared<V4L2VideoDevice>(0x1a, "dip", "/dev/video3");
    std::string mRequested;  ///< the last VIDIOC_REQBUFS
};

}  // namespace NSVista::NSCorvane::test
