// SPDX-License-Identifier: Apache-2.0
#include <corvane/client/DmaBuf.h>
#include <corvane/client/SessionRequest.h>
#include <corvane/client/VideoNode.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <linux/dma-buf.h>
#include <linux/dma-heap.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

#include "support/DescriptorLimit.h"
#include "support/FakeKernel.h"
#include "support/Process.h"
#include "vengine-desc.h"

/** The errno of what this process asks dma-bufs and heaps, which are memory files and /dev/null. */
static std::function<int(unsigned long request, void* arg)> sAnswer;

extern "C" __attribute__((visibility("default"))) int ioctl(int fd, unsigned long request,
                                                            ...) noexcept {
    va_list arguments;
    va_start(arguments, request);
    void* const arg = va_arg(arguments, void*);
    va_end(arguments);
    if (!sAnswer || (request != DMA_BUF_IOCTL_SYNC && request != DMA_HEAP_IOCTL_ALLOC))
        return static_cast<int>(syscall(SYS_ioctl, fd, request, arg));
    errno = sAnswer(request, arg);
    return errno == 0 ? 0 : -1;
}

namespace NSVista::NSCorvane::client {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

/** Makes memory files answer as dma-bufs. */
class SyncTest : public testing::Test {
protected:
    SyncTest() {
        sAnswer = [this](unsigned long, void* arg) {
            mSyncs.push_back(static_cast<dma_buf_sync*>(arg)->flags);
            if (mErrors.empty())
                return 0;
            const int error = mErrors.front();
            mErrors.pop_front();
            return error;
        };
    }
    ~SyncTest() override { sAnswer = nullptr; }
    /** A buffer whose next synchronisations give these errors; all later ones are accepted. */
    DmaBuf allocate(std::deque<int> errors) {
        DmaBuf buffer;
        EXPECT_EQ(makeMemoryFileSource()->allocate(100, buffer), 0);
        mErrors = std::move(errors);
        mSyncs.clear();
        return buffer;
    }

    std::deque<int> mErrors;
    std::vector<uint64_t> mSyncs;
};

TEST_F(SyncTest, AccessBeginsAndEnds) {
    constexpr std::pair<CpuAccess, uint64_t> kCases[] = {{CpuAccess::Read, DMA_BUF_SYNC_READ},
                                                         {CpuAccess::Write, DMA_BUF_SYNC_WRITE},
                                                         {CpuAccess::ReadWrite, DMA_BUF_SYNC_RW}};
    for (const auto& [access, flag] : kCases) {
        DmaBuf buffer = allocate({EINTR, EAGAIN, 0});
        {
            DmaBufMapping first = buffer.map(access);
            const DmaBufMapping mapping = std::move(first);
            EXPECT_TRUE(mapping);
            EXPECT_THAT(mSyncs, ElementsAre(flag, flag, flag)) << "retried";
            mErrors = {EINTR};
        }
        const uint64_t end = flag | DMA_BUF_SYNC_END;
        EXPECT_THAT(mSyncs, ElementsAre(flag, flag, flag, end, end));
    }
}

TEST_F(SyncTest, MemoryThatIsNotSynchronisedIsAskedOnce) {
    for (const int error : {ENOTTY, ENOSYS}) {
        DmaBuf first = allocate({error});
        EXPECT_TRUE(first.map(CpuAccess::Read)) << error;
        DmaBuf buffer = std::move(first);
        for (int i = 0; i < 2; ++i)
            EXPECT_TRUE(buffer.map(CpuAccess::Read)) << error;
        EXPECT_THAT(mSyncs, ElementsAre(DMA_BUF_SYNC_READ)) << error;
    }
    EXPECT_FALSE(allocate({EIO}).map(CpuAccess::Read)) << "refused";
    EXPECT_EQ(errno, EIO);
    EXPECT_THAT(mSyncs, ElementsAre(DMA_BUF_SYNC_READ));
}

TEST_F(SyncTest, HeapAllocates) {
    const auto heap = openDmaHeapSource("/dev/null");
    ASSERT_NE(heap, nullptr);
    EXPECT_EQ(heap->toString(), "/dev/null");
    DmaBuf buffer;
    sAnswer = [](unsigned long, void*) { return ENOMEM; };
    EXPECT_EQ(heap->allocate(4096, buffer), -ENOMEM);
    EXPECT_FALSE(buffer);
    size_t missing = 0;
    sAnswer = [&missing](unsigned long, void* arg) {
        auto& data = *static_cast<dma_heap_allocation_data*>(arg);
        EXPECT_EQ(data.fd + data.heap_flags, 0U) << "or the kernel refuses";
        EXPECT_EQ(data.fd_flags, static_cast<uint32_t>(O_RDWR | O_CLOEXEC));
        data.fd = static_cast<uint32_t>(memfd_create("heap", MFD_CLOEXEC));
        return ftruncate(static_cast<int>(data.fd), static_cast<off_t>(data.len - missing));
    };
    EXPECT_EQ(heap->allocate(4096, buffer), 0);
    EXPECT_EQ(buffer.size(), 4096U);
    EXPECT_EQ(lseek(buffer.fd(), 0, SEEK_END), 4096);
    missing = 1;
    EXPECT_EQ(Frame().allocate({0, 8, 8, 1, {{8, 100}}}, {}, *heap), -EINVAL) << "a byte short";
}

TEST(DmaBufTest, MemoryFileIsMappedAndGivenBack) {
    const auto source = makeMemoryFileSource();
    DmaBuf buffer;
    EXPECT_EQ(source->allocate(0, buffer), -EINVAL);
    {
        const test::DescriptorLimit none(0);
        EXPECT_EQ(source->allocate(100, buffer), -EMFILE);
    }
    EXPECT_FALSE(buffer);
    ASSERT_EQ(source->allocate(5000, buffer), 0);
    struct stat info {};
    ASSERT_EQ(fstat(buffer.fd(), &info), 0);
    EXPECT_EQ(info.st_size, 5000);
    EXPECT_EQ(fcntl(buffer.fd(), F_GETFD), FD_CLOEXEC);

    for (const char* text : {"one", "two"}) {
        memcpy(buffer.map(CpuAccess::Write).data() + 4990, text, 4);
        char read[4] = {};
        EXPECT_EQ(pread(buffer.fd(), read, sizeof(read), 4990), 4);
        EXPECT_STREQ(read, text);
    }
    const int fd = buffer.fd();
    {
        DmaBuf other = std::move(buffer);
        EXPECT_EQ(other.fd(), fd);
        EXPECT_EQ(other.size(), 5000U);
        EXPECT_STREQ(reinterpret_cast<char*>(other.map(CpuAccess::Read).data()) + 4990, "two");
    }
    EXPECT_EQ(fcntl(fd, F_GETFD), -1);
    EXPECT_EQ(test::contentOf("/proc/self/maps").find("corvane-buffer"), std::string::npos);
    EXPECT_FALSE(DmaBuf(-1, 100).map(CpuAccess::Read));
}

TEST(DmaBufTest, SourcesThatAreNotThereSaySo) {
    EXPECT_EQ(openDmaHeapSource("/nowhere"), nullptr);
    EXPECT_EQ(errno, ENOENT);
    DmaBuf buffer;
    EXPECT_EQ(makeVideoNodeSource("/dev/nowhere")->allocate(100, buffer), -ENOENT);

    sim::VirtualEngine engine;  // It exports nothing.
    const sim::ScopedKernel installed(engine);
    EXPECT_LT(makeVideoNodeSource(engine.device().nodePath("vengine-main"))->allocate(100, buffer),
              0);
    EXPECT_FALSE(buffer);
    EXPECT_EQ(engine.openFiles(), 0U);
}

TEST(FrameTest, PlanesAndGapsCoverTheMemoryOnce) {
    const auto source = makeMemoryFileSource();
    const PixelFormat one{0, 8, 8, 1, {{8, 100}}};
    const PixelFormat two{0, 8, 8, 2, {{8, 100}, {8, 7}}};
    const PixelFormat three{0, 8, 8, 3, {{8, 100}, {8, 7}, {8, 4096}}};
    for (const PixelFormat& format : {one, two, three})
        for (const FrameLayout& layout :
             {FrameLayout{0, 0}, FrameLayout{0, 16}, FrameLayout{192, 0}, FrameLayout{1, 16}}) {
            SCOPED_TRACE(testing::Message() << format.planeCount << " planes, offset "
                                            << layout.offset << ", guard " << layout.guard);
            Frame frame;
            ASSERT_EQ(frame.allocate(format, layout, *source), 0);
            const FrameMapping mapping = frame.map(CpuAccess::ReadWrite);
            ASSERT_TRUE(mapping);
            EXPECT_EQ(mapping.gap(0).size(), layout.offset);
            EXPECT_EQ(frame.buffer().planes[0].offset, layout.offset);
            const uint8_t* end = mapping.gap(0).data() + layout.offset;
            for (uint32_t i = 0; i < format.planeCount; ++i) {
                const FrameBuffer::Plane& plane = frame.buffer().planes[i];
                EXPECT_EQ(plane.bufsize, format.planes[i].size);
                EXPECT_EQ(plane.fd == frame.buffer().planes[0].fd, i == 0 || layout.offset != 0);
                EXPECT_GE(lseek(plane.fd, 0, SEEK_END), plane.offset + plane.bufsize);
                EXPECT_TRUE(i == 0 || plane.offset % 64 == 0);
                EXPECT_EQ(mapping.plane(i).size(), plane.bufsize);
                EXPECT_EQ(mapping.plane(i).data() == mapping.plane(0).data(), i == 0);
                EXPECT_GE(mapping.gap(i + 1).size(), layout.guard);
                if (i == 0 || layout.offset != 0) {
                    EXPECT_EQ(mapping.plane(i).data(), end);
                }
                EXPECT_EQ(mapping.gap(i + 1).data(), mapping.plane(i).data() + plane.bufsize);
                end = mapping.gap(i + 1).data() + mapping.gap(i + 1).size();
            }
        }
    Frame frame;
    EXPECT_EQ(frame.allocate(PixelFormat{0, 8, 8, 0, {}}, {}, *source), -EINVAL);
    EXPECT_EQ(frame.allocate(PixelFormat{0, 8, 8, 4, {}}, {}, *source), -EINVAL);
    EXPECT_EQ(frame.allocate(two, {}, *makeVideoNodeSource("/dev/nowhere")), -ENOENT);
    // In 32 bits these wrap, some to a few bytes, some only with the guard or the alignment.
    constexpr uint32_t kMost = 0xffffffff;
    EXPECT_EQ(frame.allocate(one, {kMost - 100, 0}, *makeVideoNodeSource("/dev/nowhere")), -ENOENT);
    for (const FrameLayout& layout : {FrameLayout{kMost, 0}, FrameLayout{kMost - 99, 0},
                                      FrameLayout{64, kMost - 64}, FrameLayout{kMost - 300, 64}}) {
        EXPECT_EQ(frame.allocate(three, layout, *source), -EOVERFLOW) << layout.offset;
    }
}

TEST(VideoNodeTest, KnowsWhatAPortWouldUse) {
    sim::VirtualEngine engine;
    const sim::ScopedKernel installed(engine);
    for (const vengine_port& port : vengine_ports) {
        VideoNode node{};
        EXPECT_EQ(queryVideoNode(engine.device().nodePath(port.name), node), 0) << port.name;
        EXPECT_EQ(node.bufferType, port.buf_type) << port.name;
        EXPECT_TRUE(node.takesRequests) << port.name;
    }
    VideoNode node{~0U, ~0U, true};
    EXPECT_EQ(queryVideoNode("/dev/nowhere", node), -ENOENT);
    EXPECT_EQ(node.bufferType, 0U);
    uint32_t granted = 0;
    EXPECT_EQ(queryGrantedBuffers("/dev/nowhere", 1, granted), -ENOENT);
    EXPECT_EQ(engine.openFiles(), 0U);
}

TEST(VideoNodeTest, TellsWhetherBuffersTakeRequests) {
    test::FakeKernel kernel;
    kernel.setCapabilities(V4L2_CAP_VIDEO_CAPTURE);
    VideoNode node{};
    for (const auto& [result, caps, expected] :
         {std::tuple{0, V4L2_BUF_CAP_SUPPORTS_REQUESTS, true},
          {0, V4L2_BUF_CAP_SUPPORTS_DMABUF, false},
          {-EINVAL, V4L2_BUF_CAP_SUPPORTS_REQUESTS, false}}) {
        kernel.on<v4l2_requestbuffers>(
            VIDIOC_REQBUFS, [result = result, caps = caps](int, v4l2_requestbuffers& to) {
                EXPECT_EQ(to.count, 0U);
                to.capabilities = static_cast<uint32_t>(caps);
                return result;
            });
        EXPECT_EQ(queryVideoNode("/dev/video0", node), 0);
        EXPECT_EQ(node.takesRequests, expected);
    }
    std::vector<uint32_t> asked;
    int givenBack = 0;
    kernel.on<v4l2_requestbuffers>(VIDIOC_REQBUFS, [&](int, v4l2_requestbuffers& to) {
        asked.push_back(to.count);
        to.count = std::min(to.count, 3U);
        return to.count == 0 ? givenBack : 0;
    });
    uint32_t granted = 0;
    EXPECT_EQ(queryGrantedBuffers("/dev/video0", 8, granted), 0);
    EXPECT_EQ(granted, 3U);
    EXPECT_THAT(asked, ElementsAre(8, 0)) << "given back";
    givenBack = -EBUSY;
    EXPECT_EQ(queryGrantedBuffers("/dev/video0", 8, granted), -EBUSY);
}

TEST(VideoNodeTest, SetsAFrameRate) {
    test::FakeKernel kernel;
    kernel.setCapabilities(V4L2_CAP_VIDEO_CAPTURE);
    EXPECT_EQ(setFrameRate("/dev/video0", V4L2_BUF_TYPE_VIDEO_CAPTURE, 25), -ENOTTY);
    kernel.on<v4l2_streamparm>(VIDIOC_S_PARM, [](int, v4l2_streamparm& to) {
        EXPECT_EQ(to.type, V4L2_BUF_TYPE_VIDEO_CAPTURE);
        EXPECT_EQ(to.parm.capture.timeperframe.numerator, 1U);
        EXPECT_EQ(to.parm.capture.timeperframe.denominator, 25U);
        return 0;
    });
    EXPECT_EQ(setFrameRate("/dev/video0", V4L2_BUF_TYPE_VIDEO_CAPTURE, 25), 0);
    EXPECT_EQ(setFrameRate("/dev/video0", V4L2_BUF_TYPE_VIDEO_CAPTURE, 0), -EINVAL);
    kernel.openResults["/dev/video0"] = -EACCES;
    EXPECT_EQ(setFrameRate("/dev/video0", V4L2_BUF_TYPE_VIDEO_CAPTURE, 25), -EACCES);
}

TEST(VideoNodeTest, ExportsBuffersOfTheWantedSize) {
    for (const uint32_t caps :
         {V4L2_CAP_VIDEO_CAPTURE, V4L2_CAP_VIDEO_OUTPUT_MPLANE, V4L2_CAP_META_CAPTURE}) {
        test::FakeKernel kernel;
        kernel.setCapabilities(caps);
        const uint32_t type = v4l2::portBufferType(caps);
        uint32_t created = 0;
        uint32_t own = 0;
        kernel.on<v4l2_format>(VIDIOC_G_FMT, [&own](int, v4l2_format& to) {
            to.fmt.pix_mp.plane_fmt[0].sizeimage = own;  // of one plane in the same place
            return 0;
        });
        kernel.on<v4l2_create_buffers>(VIDIOC_CREATE_BUFS, [&](int, v4l2_create_buffers& to) {
            EXPECT_EQ(to.memory, V4L2_MEMORY_MMAP);
            EXPECT_EQ(to.format.type, type);
            PixelFormat format{0, 0, 0, 1, {}};
            to.format.fmt.pix_mp.num_planes = v4l2::isMultiPlanar(type) ? 1 : 0;
            v4l2::readFormat(to.format, v4l2::formatClassOfType(type), format);
            created = format.planes[0].size;
            to.index = 3;
            return 0;
        });
        kernel.on<v4l2_exportbuffer>(VIDIOC_EXPBUF, [type](int, v4l2_exportbuffer& to) {
            EXPECT_EQ(to.type, type);
            EXPECT_EQ(to.index, 3U);
            EXPECT_EQ(to.flags, static_cast<uint32_t>(O_RDWR | O_CLOEXEC));
            to.fd = memfd_create("exported", MFD_CLOEXEC);
            return 0;
        });
        DmaBuf buffer;
        EXPECT_EQ(makeVideoNodeSource("/dev/video0")->allocate(5000, buffer), 0);
        EXPECT_EQ(created, 5000U);
        own = 6000;
        EXPECT_EQ(makeVideoNodeSource("/dev/video0")->allocate(5000, buffer), 0);
        EXPECT_EQ(created, v4l2::isMeta(type) ? 5000U : own);
        EXPECT_EQ(buffer.size(), 5000U);
        EXPECT_EQ(fcntl(buffer.fd(), F_GETFD), FD_CLOEXEC);
        EXPECT_EQ(makeVideoNodeSource("/dev/video0")->allocate(0, buffer), -EINVAL);
        for (const unsigned long refused : {VIDIOC_EXPBUF, VIDIOC_CREATE_BUFS, VIDIOC_G_FMT}) {
            kernel.answer(refused, -EIO);
            EXPECT_EQ(makeVideoNodeSource("/dev/video0")->allocate(5000, buffer), -EIO);
            kernel.answer(refused, 0);
        }
        kernel.on<v4l2_requestbuffers>(VIDIOC_REQBUFS, [&kernel](int, v4l2_requestbuffers&) {
            return kernel.openResults["/dev/video0"] = -EBUSY;
        });
        EXPECT_EQ(makeVideoNodeSource("/dev/video0")->allocate(5000, buffer), -EBUSY);
    }
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
