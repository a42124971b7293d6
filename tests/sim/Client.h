/**
 * @file
 * A client of the virtual engine that makes bare system calls.
 */
#pragma once

#include <corvane/client/DmaBuf.h>
#include <corvane/platform/System.h>
#include <corvane/sim/Engine.h>

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <poll.h>
#include <unistd.h>

#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::sim {

inline int call(int fd, unsigned long code, void* arg) {
    return System::Ioctl(fd, static_cast<int>(code), arg, 3);
}

/** A dma-buf: a memory file on the virtual engine. */
struct Memory {
    explicit Memory(size_t bytes);
    client::DmaBuf buffer;
    int fd;
    size_t size;
    uint8_t* data;
};

/** An open video node of the engine with its link enabled. */
struct Node {
    const vengine_port* port;
    int fd;
    vengine_layout layout;  ///< plane sizes also of a metadata node

    bool multi() const { return V4L2_TYPE_IS_MULTIPLANAR(port->buf_type); }
    int requestBuffers(uint32_t count, uint32_t memory = V4L2_MEMORY_DMABUF) const {
        v4l2_requestbuffers request = {};
        request.count = count;
        request.type = port->buf_type;
        request.memory = memory;
        int result = call(fd, VIDIOC_REQBUFS, &request);
        return result < 0 ? result : static_cast<int>(request.count);
    }
    int stream(bool on) const {
        uint32_t type = port->buf_type;
        return call(fd, on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &type);
    }
};

/** A v4l2_buffer of a node, with its planes: all in one memory, one after another. */
struct Buffer {
    Buffer(const Node& node, uint32_t index, int request = -1, const Memory* memory = nullptr,
           uint32_t offset = 0) {
        buf.type = node.port->buf_type;
        buf.memory = V4L2_MEMORY_DMABUF;
        buf.index = index;
        if (request >= 0) {
            buf.flags = V4L2_BUF_FLAG_REQUEST_FD;
            buf.request_fd = request;
        }
        buf.m.fd = memory ? memory->fd : -1;
        buf.reserved2 = offset;
        buf.length = node.layout.sizeimage[0];
        if (!node.multi())
            return;
        buf.m.planes = planes;
        buf.length = node.layout.num_planes;
        for (uint32_t i = 0; i < buf.length; ++i) {
            planes[i].m.fd = memory ? memory->fd : -1;
            planes[i].reserved[2] = offset;
            if (V4L2_TYPE_IS_OUTPUT(buf.type))
                planes[i].length = node.layout.sizeimage[i];
            offset += node.layout.sizeimage[i];
        }
    }
    Buffer(const Buffer&) = delete;
    v4l2_buffer buf = {};
    v4l2_plane planes[VIDEO_MAX_PLANES] = {};
};

/** Tests run on the driver of a real kernel, where the environment has CORVANE_TEST_MODEL. */
bool onDriver();

/** Engine, media device and nodes; closes what it opened and expects that nothing is left. */
class Client : public testing::Test {
protected:
    static constexpr uint32_t kWidth = 66, kHeight = 18;

    Client();
    ~Client() override;

    Device& device() { return mEngine.device(); }
    std::string nodePath(const std::string& entity);
    int setLink(const std::string& port, uint32_t flags);
    uint32_t entityId(const std::string& name);
    /** Opens a port's node, links it and sets the test's size. */
    Node& node(const std::string& name);
    /** The same, with buffers and streaming. */
    Node& streaming(const std::string& name, uint32_t buffers = 4) {
        Node& ready = node(name);
        EXPECT_EQ(ready.requestBuffers(buffers), static_cast<int>(buffers));
        EXPECT_EQ(ready.stream(true), 0);
        return ready;
    }
    int request() {
        int fd = System::AllocMediaRequest(mMedia, 0);
        EXPECT_GE(fd, 0);
        mRequests.push_back(fd);
        return fd;
    }
    static int queue(Buffer&& buffer, const Node& node) {
        return System::QueueVideoNodeBuf(node.fd, &buffer.buf);
    }
    /** Waits for a request's completion. */
    static bool done(int request, int limit = 5000) {
        pollfd poll = {request, POLLPRI, 0};
        return ::poll(&poll, 1, limit) == 1 && poll.revents == POLLPRI;
    }

    VirtualEngine mEngine;
    std::optional<ScopedKernel> mKernel;  ///< empty on a driver
    int mMedia;
    std::map<std::string, Node> mNodes;
    std::vector<int> mRequests;
};

}  // namespace NSVista::NSCorvane::sim
