// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/DmaBuf.h>
#include <fcntl.h>
#include <linux/dma-heap.h>
#include <linux/videodev2.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <corvane/client/VideoNode.h>
#include <algorithm>
#include <cerrno>
#include <limits>
#include <utility>

#include <corvane/client/NodeFd.h>

namespace NSVista::NSCorvane::client {

namespace {

class MemoryFileSource : public IDmaBufSource {
public:
    int allocate(size_t size, DmaBuf& buffer) override {
        if (size == 0)
            return -EINVAL;
        DmaBuf made(memfd_create("corvane-buffer", MFD_CLOEXEC), size);
        if (!made || ftruncate(made.fd(), static_cast<off_t>(size)) != 0)
            return -errno;
        buffer = std::move(made);
        return 0;
    }
    std::string toString() const override { return "memory files"; }
};

class DmaHeapSource : public IDmaBufSource {
public:
    DmaHeapSource(UniqueFd fd, const char* path) : mFd(std::move(fd)), mPath(path) {}

    int allocate(size_t size, DmaBuf& buffer) override {
        dma_heap_allocation_data data{size, 0, O_RDWR | O_CLOEXEC, 0};
        if (ioctl(mFd.get(), DMA_HEAP_IOCTL_ALLOC, &data) != 0)
            return -errno;
        buffer = DmaBuf(static_cast<int>(data.fd), size);
        return 0;
    }
    std::string toString() const override { return mPath; }

private:
    const UniqueFd mFd;
    const std::string mPath;
};

/** Enlarges the (first) plane of a node's format to @p size. */
void enlarge(v4l2_format& format, const VideoNode& node, uint32_t size) {
    if (node.isMeta())
        format.fmt.meta.buffersize = std::max<uint32_t>(format.fmt.meta.buffersize, size);
    else if (node.isMultiPlanar())
        format.fmt.pix_mp.plane_fmt[0].sizeimage =
            std::max<uint32_t>(format.fmt.pix_mp.plane_fmt[0].sizeimage, size);
    else
        format.fmt.pix.sizeimage = std::max(format.fmt.pix.sizeimage, size);
}

class VideoNodeSource : public IDmaBufSource {
public:
    explicit VideoNodeSource(std::string path) : mPath(std::move(path)) {}
    int allocate(size_t size, DmaBuf& buffer) override;
    std::string toString() const override { return "buffers of " + mPath; }

private:
    std::string mPath;
};

int VideoNodeSource::allocate(size_t size, DmaBuf& buffer) {
    if (size == 0 || size > std::numeric_limits<uint32_t>::max())
        return -EINVAL;
    VideoNode about{};
    if (const int result = queryVideoNode(mPath, about); result != 0)
        return result;
    NodeFd node(mPath.c_str(), O_RDWR | O_NONBLOCK);
    if (!node)
        return node.error();
    v4l2_create_buffers create{};
    create.count = 1;
    create.memory = V4L2_MEMORY_MMAP;
    create.format.type = about.bufferType;
    if (const int result = node.ioctl(VIDIOC_G_FMT, &create.format); result < 0)
        return result;
    enlarge(create.format, about, static_cast<uint32_t>(size));
    if (const int result = node.ioctl(VIDIOC_CREATE_BUFS, &create); result < 0)
        return result;
    v4l2_exportbuffer exported{};
    exported.type = about.bufferType;
    exported.index = create.index;
    exported.flags = O_RDWR | O_CLOEXEC;
    if (const int result = node.ioctl(VIDIOC_EXPBUF, &exported); result < 0)
        return result;
    buffer = DmaBuf(exported.fd, size);
    return 0;
}

}  // namespace

std::unique_ptr<IDmaBufSource> makeMemoryFileSource() {
    return std::make_unique<MemoryFileSource>();
}

std::unique_ptr<IDmaBufSource> openDmaHeapSource(const char* path) {
    UniqueFd fd(open(path, O_RDWR | O_CLOEXEC));
    return fd ? std::make_unique<DmaHeapSource>(std::move(fd), path) : nullptr;
}

std::unique_ptr<IDmaBufSource> makeVideoNodeSource(std::string nodePath) {
    return std::make_unique<VideoNodeSource>(std::move(nodePath));
}

}  // namespace NSVista::NSCorvane::client
