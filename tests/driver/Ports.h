/**
 * @file
 * The virtual engine by bare ioctls: the driver's where the environment's CORVANE_TEST_MODEL is
 * set, else the in-process one. Both have to answer alike.
 */
#pragma once

#include <corvane/client/DmaBuf.h>
#include <corvane/sim/Engine.h>
#include <errno.h>
#include <fcntl.h>
#include <linux/media.h>
#include <poll.h>
#include <stdlib.h>

#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "vengine-picture.h"

namespace NSVista::NSCorvane::test {

/** The engine under test; it lives as long as the process. */
struct Host {
    static Host& instance() {
        static Host* const host = new Host;
        return *host;
    }
    std::string path(const std::string& entity) const {
        if (sim)
            return entity.empty() ? sim->device().path() : sim->device().nodePath(entity);
        for (unsigned n = 0; n < VENGINE_PORTS; ++n)
            if (entity == vengine_ports[n].name)
                return "/dev/video" + std::to_string(n);
        return entity.empty() ? "/dev/media0" : "/dev/v4l-subdev0";
    }

    std::unique_ptr<sim::VirtualEngine> sim =
        getenv("CORVANE_TEST_MODEL") ? nullptr : std::make_unique<sim::VirtualEngine>();
    System::Kernel& kernel = sim ? *sim : System::linuxKernel();
    std::unique_ptr<client::IDmaBufSource> source =
        sim ? client::makeMemoryFileSource() : client::makeVideoNodeSource(path("vengine-stats"));
};

inline int call(int fd, unsigned long code, void* arg = nullptr) {
    return Host::instance().kernel.ioctl(fd, code, arg);
}

inline short pollFor(int fd, short events, int milliseconds = 20000) {
    pollfd p = {fd, events, 0};
    return poll(&p, 1, milliseconds) > 0 ? p.revents : short{0};
}

class Fd {
public:
    explicit Fd(int fd = -1) : mFd(fd) {}
    explicit Fd(const std::string& entity)
        : mFd(Host::instance().kernel.open(Host::instance().path(entity).c_str(),
                                           O_RDWR | O_NONBLOCK)) {}
    Fd(Fd&& other) noexcept : mFd(std::exchange(other.mFd, -1)) {}
    Fd& operator=(Fd&& other) noexcept {
        std::swap(mFd, other.mFd);
        return *this;
    }
    ~Fd() {
        if (mFd >= 0)
            Host::instance().kernel.close(mFd);
    }
    operator int() const { return mFd; }

private:
    int mFd;
};

/** One port with its buffers: planes begin at an offset in dma-bufs that are longer than they. */
class Port {
public:
    static constexpr uint32_t kGuard = 128;

    Port(unsigned n, uint32_t width, uint32_t height, unsigned buffers)
        : index(n), type(vengine_ports[n].buf_type), count(buffers) {
        layout = meta() ? vengine_layout{vengine_ports[n].format, 0, 0, 1, {}, {VENGINE_META_SIZE}}
                        : vengine_layout_of(vengine_ports[n].format, width, height);
        memory.resize(buffers * layout.num_planes);
        for (size_t i = 0; i < memory.size(); ++i)
            Host::instance().source->allocate(bytes(i % layout.num_planes), memory[i]);
    }
    bool meta() const { return type >= V4L2_BUF_TYPE_META_CAPTURE; }
    bool output() const { return V4L2_TYPE_IS_OUTPUT(type); }
    bool multiplanar() const { return V4L2_TYPE_IS_MULTIPLANAR(type); }
    uint32_t offset(size_t plane) const { return kGuard / (static_cast<uint32_t>(plane) + 1); }
    size_t bytes(size_t plane) const { return layout.sizeimage[plane] + 2 * kGuard; }

    /** Opens the node, sets the format and asks for the buffers. @return how many were granted. */
    int prepare() {
        node = Fd(vengine_ports[index].name);
        v4l2_format format = {};
        format.type = type;
        if (!meta()) {  // the first fields of pix and pix_mp are the same
            format.fmt.pix.pixelformat = layout.fourcc;
            format.fmt.pix.width = layout.width;
            format.fmt.pix.height = layout.height;
        }
        int result = call(node, VIDIOC_S_FMT, &format);
        return result < 0 ? result : requestBuffers(count);
    }
    int requestBuffers(unsigned wanted) {
        v4l2_requestbuffers request = {};
        request.count = wanted;
        request.type = type;
        request.memory = V4L2_MEMORY_DMABUF;
        int result = call(node, VIDIOC_REQBUFS, &request);
        return result < 0 ? result : static_cast<int>(request.count);
    }
    int stream(bool on) { return call(node, on ? VIDIOC_STREAMON : VIDIOC_STREAMOFF, &type); }
    /** Queues a buffer, its planes @p shift bytes further; a negative request stands for none. */
    int queue(unsigned buffer, int request, uint32_t shift = 0) {
        v4l2_plane planes[3] = {};
        v4l2_buffer b = {};
        b.index = buffer;
        b.type = type;
        b.memory = V4L2_MEMORY_DMABUF;
        b.flags = request >= 0 ? V4L2_BUF_FLAG_REQUEST_FD : 0;
        b.request_fd = request;
        for (unsigned n = 0; n < layout.num_planes; ++n) {
            // An index beyond the queue's is for the driver to refuse: any memory does.
            planes[n].m.fd = memory[(buffer * layout.num_planes + n) % memory.size()].fd();
            planes[n].length = output() ? layout.sizeimage[n] : 0;
            planes[n].reserved[2] = offset(n) + shift;
        }
        b.length = multiplanar() ? layout.num_planes : layout.sizeimage[0];
        b.m.fd = planes[0].m.fd;
        if (multiplanar())
            b.m.planes = planes;
        else
            b.reserved2 = planes[0].reserved[2];
        return call(node, VIDIOC_QBUF, &b);
    }
    /** @return the buffer's index, -EIO for one with the error flag, or the negated errno. */
    int dequeue() {
        v4l2_plane planes[3] = {};
        v4l2_buffer b = {};
        b.type = type;
        b.memory = V4L2_MEMORY_DMABUF;
        b.length = 3;
        if (multiplanar())
            b.m.planes = planes;
        int result = call(node, VIDIOC_DQBUF, &b);
        if (result < 0)
            return result;
        return b.flags & V4L2_BUF_FLAG_ERROR ? -EIO : static_cast<int>(b.index);
    }
    /** A whole dma-buf; the pages stay mapped, and nothing here has caches to be told of. */
    uint8_t* data(unsigned buffer, unsigned plane) {
        return memory[buffer * layout.num_planes + plane].map(client::CpuAccess::ReadWrite).data();
    }
    vengine_picture picture(unsigned buffer) {
        uint8_t* planes[3] = {};
        for (unsigned n = 0; n < layout.num_planes; ++n)
            planes[n] = data(buffer, n) + offset(n);
        return vengine_map(&layout, planes);
    }

    unsigned index;
    uint32_t type;
    unsigned count;
    vengine_layout layout;
    std::vector<client::DmaBuf> memory;
    Fd node;
};

inline Fd newRequest(int media) {
    int fd = -1;
    call(media, MEDIA_IOC_REQUEST_ALLOC, &fd);
    return Fd(fd);
}

/** Enables or disables the link of port @p n. */
inline int setLink(int media, unsigned n, bool enable) {
    std::map<std::string, uint32_t> ids;
    media_entity_desc entity = {};
    for (entity.id = MEDIA_ENT_ID_FLAG_NEXT; call(media, MEDIA_IOC_ENUM_ENTITIES, &entity) == 0;
         entity.id |= MEDIA_ENT_ID_FLAG_NEXT)
        ids[entity.name] = entity.id;
    media_link_desc link = {};
    link.source.entity = ids[VENGINE_CORE_ENTITY];
    link.source.index = static_cast<uint16_t>(n);
    link.sink.entity = ids[vengine_ports[n].name];
    if (V4L2_TYPE_IS_OUTPUT(vengine_ports[n].buf_type))
        std::swap(link.source, link.sink);
    link.flags = enable ? MEDIA_LNK_FL_ENABLED : 0;
    return call(media, MEDIA_IOC_SETUP_LINK, &link);
}

}  // namespace NSVista::NSCorvane::test
