// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2.h>
#include <corvane/client/VideoNode.h>
#include <fcntl.h>

#include <cerrno>

#include <corvane/client/NodeFd.h>

namespace NSVista::NSCorvane::client {

namespace {

/** @return 0 or the negated errno, also of a node that could not be opened. */
int readCaps(NodeFd& node, uint32_t& caps) {
    if (!node)
        return node.error();
    v4l2_capability capability{};
    if (const int result = node.ioctl(VIDIOC_QUERYCAP, &capability); result < 0)
        return result;
    caps = v4l2::deviceCaps(capability);
    return 0;
}

}  // namespace

bool VideoNode::isOutput() const {
    return v4l2::isOutput(bufferType);
}

bool VideoNode::isMeta() const {
    return v4l2::isMeta(bufferType);
}

bool VideoNode::isMultiPlanar() const {
    return v4l2::isMultiPlanar(bufferType);
}

int queryVideoNode(const std::string& path, VideoNode& node) {
    node = {};
    NodeFd fd(path.c_str(), O_RDWR | O_NONBLOCK);
    if (const int result = readCaps(fd, node.capabilities); result != 0)
        return result;
    if ((node.capabilities & V4L2_CAP_STREAMING) != 0)
        node.bufferType = v4l2::portBufferType(node.capabilities);
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

int queryGrantedBuffers(const std::string& path, uint32_t wanted, uint32_t& granted) {
    NodeFd fd(path.c_str(), O_RDWR | O_NONBLOCK);
    uint32_t caps = 0;
    if (const int result = readCaps(fd, caps); result != 0)
        return result;
    v4l2_requestbuffers request{};
    request.count = wanted;
    request.type = v4l2::portBufferType(caps);
    request.memory = V4L2_MEMORY_DMABUF;
    if (const int result = fd.ioctl(VIDIOC_REQBUFS, &request); result < 0)
        return result;
    granted = request.count;
    request.count = 0;
    const int result = fd.ioctl(VIDIOC_REQBUFS, &request);
    return result < 0 ? result : 0;
}

int setFrameRate(const std::string& path, uint32_t bufferType, uint32_t perSecond) {
    if (perSecond == 0)
        return -EINVAL;
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
