#include <corvane/client/DmaBuf.h>
#include <corvane/client/SessionRequest.h>
#include <corvane/client/VideoNode.h>
#include <corvane/sim/Engine.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::client {
namespace {

TEST(DmaBufTest, MemoryFileIsMappedAndGivenBack) {
    const auto source = makeMemoryFileSource();
    DmaBuf buffer;
    EXPECT_EQ(source->allocate(0, buffer), -EINVAL);
    EXPECT_FALSE(buffer);
    ASSERT_EQ(source->allocate(5000, buffer), 0);
    struct stat info {};
    ASSERT_EQ(fstat(buffer.fd(), &info), 0);
    EXPECT_EQ(info.st_size, 5000);

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
    const PixelFormat three{0, 8, 8, 3, {{8, 100}, {8, 7}, {8, 4096}}};
    for (const PixelFormat& format : {one, three})
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
                EXPECT_EQ(mapping.plane(i).size(), plane.bufsize);
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
    VideoNode node{};
    EXPECT_EQ(queryVideoNode("/dev/nowhere", node), -ENOENT);
    EXPECT_EQ(engine.openFiles(), 0U);
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
