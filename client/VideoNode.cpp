#include <corvane/client/VideoNode.h>
#include <fcntl.h>
#include <linux/videodev2.h>

#include <corvane/client/NodeFd.h>

namespace NSVista::NSCorvane::client {

namespace {

/** The type that a video device of the library chooses; it has no use for other nodes. */
uint32_t bufferTypeOf(uint32_t caps) {
    if ((caps & V4L2_CAP_STREAMING) == 0)
        return 0;
    if ((caps & (V4L2_CAP_VIDEO_CAPTURE | V4L2_CAP_VIDEO_CAPTURE_MPLANE)) != 0)
        return (caps & (V4L2_CAP_VIDEO_CAPTURE_MPLANE | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0
                   ? V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE
                   : V4L2_BUF_TYPE_VIDEO_CAPTURE;
    if ((caps & (V4L2_CAP_VIDEO_OUTPUT | V4L2_CAP_VIDEO_OUTPUT_MPLANE)) != 0)
        return (caps & V4L2_CAP_VIDEO_OUTPUT_MPLANE) != 0 ? V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE
                                                          : V4L2_BUF_TYPE_VIDEO_OUTPUT;
    if ((caps & V4L2_CAP_META_CAPTURE) != 0)
        return V4L2_BUF_TYPE_META_CAPTURE;
    if ((caps & V4L2_CAP_META_OUTPUT) != 0)
        return V4L2_BUF_TYPE_META_OUTPUT;
    return 0;
}

}  // namespace

bool VideoNode::isOutput() const {
    return V4L2_TYPE_IS_OUTPUT(bufferType);
}

bool VideoNode::isMeta() const {
    return bufferType == V4L2_BUF_TYPE_META_CAPTURE || bufferType == V4L2_BUF_TYPE_META_OUTPUT;
}

bool VideoNode::isMultiPlanar() const {
    return V4L2_TYPE_IS_MULTIPLANAR(bufferType);
}

int queryVideoNode(const std::string& path, VideoNode& node) {
    node = {};
    NodeFd fd(path.c_str(), O_RDWR | O_NONBLOCK);
    if (!fd)
        return fd.error();
    v4l2_capability caps{};
    if (const int result = fd.ioctl(VIDIOC_QUERYCAP, &caps); result < 0)
        return result;
    node.capabilities =
        (caps.capabilities & V4L2_CAP_DEVICE_CAPS) != 0 ? caps.device_caps : caps.capabilities;
    node.bufferType = bufferTypeOf(node.capabilities);
    if (node.bufferType == 0)
        return 0;
    // Asking for no buffers changes nothing on an idle node and tells what its queue can do.
    v4l2_requestbuffers request{};
    request.type = node.bufferType;
    request.memory = V4L2_MEMORY_DMABUF;
    node.takesRequests = fd.ioctl(VIDIOC_REQBUFS, &request) >= 0 &&
                         (request.capabilities & V4L2_BUF_CAP_SUPPORTS_REQUESTS) != 0;
    return 0;
}

int setFrameRate(const std::string& path, uint32_t bufferType, uint32_t perSecond) {
    NodeFd fd(path.c_str(), O_RDWR | O_NONBLOCK);
    if (!fd)
        return fd.error();
    v4l2_streamparm parameters{};
    parameters.type = bufferType;
    parameters.parm.capture.timeperframe = {1, perSecond};
    const int result = fd.ioctl(VIDIOC_S_PARM, &parameters);
    return result < 0 ? result : 0;
}

}  // namespace NSVista::NSCorvane::client
