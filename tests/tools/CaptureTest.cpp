// SPDX-License-Identifier: Apache-2.0
#include <corvane/sim/DescriptionFile.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>

#include "NodeCapture.h"

namespace NSVista::NSCorvane::tools {
namespace {

/** A node as text, with what could not be learned. */
std::string captureText(const std::string& path, std::vector<std::string>& remarks) {
    client::NodeFd node(path.c_str(), O_RDWR);
    sim::DeviceDesc device;
    device.addVideoNode("node", captureVideoNode(node, remarks));
    return sim::writeDescription(device);
}

TEST(CaptureTest, LeavesTheOldFormatBehindAndTellsWhatItCouldNotLearn) {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);
    const std::string path = engine.device().nodePath("vengine-main");
    v4l2_format format = {};
    format.type = V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE;
    format.fmt.pix_mp.width = 128;
    format.fmt.pix_mp.height = 64;
    format.fmt.pix_mp.pixelformat = V4L2_PIX_FMT_YUV420M;
    ASSERT_EQ(client::NodeFd(path.c_str(), O_RDWR).ioctl(VIDIOC_S_FMT, &format), 0);

    std::vector<std::string> remarks;
    const std::string tried = captureText(path, remarks);
    engine.faults().fail(sim::Call::ioctl(VIDIOC_TRY_FMT), ENOTTY, 1, sim::Repeat::FOR_GOOD);
    EXPECT_EQ(captureText(path, remarks), tried);
    EXPECT_TRUE(remarks.empty());
    EXPECT_GT(engine.faults().calls(sim::Call::ioctl(VIDIOC_S_FMT)), 40U);
    format.fmt = {};
    ASSERT_EQ(client::NodeFd(path.c_str(), O_RDWR).ioctl(VIDIOC_G_FMT, &format), 0);
    EXPECT_EQ(format.fmt.pix_mp.width, 128U);
    EXPECT_EQ(format.fmt.pix_mp.pixelformat, uint32_t{V4L2_PIX_FMT_YUV420M});

    client::NodeFd user(path.c_str(), O_RDWR);
    v4l2_requestbuffers request{3, V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE, V4L2_MEMORY_DMABUF, 0, 0,
                                {}};
    ASSERT_EQ(user.ioctl(VIDIOC_REQBUFS, &request), 0);
    captureText(path, remarks);
    EXPECT_EQ(remarks, (std::vector<std::string>{
                           "its format could not be set again: Device or resource busy",
                           "its buffers could not be asked for: Device or resource busy"}));
}

}  // namespace
}  // namespace NSVista::NSCorvane::tools
