// SPDX-License-Identifier: Apache-2.0
#include <corvane/DequeuedBuffer.h>

#include <algorithm>
#include <future>
#include <sstream>
#include <thread>

#include "VideoDeviceTest.h"

namespace NSVista::NSCorvane::test {
namespace {

TEST_F(VideoDeviceTest, ImportsBuffers) {
    const struct {
        int count, driver, result;
        const char *free, *memory, *line;
    } cases[] = {
        {1, 1, 0, "0x1", "V4L2_MEMORY_DMABUF #REQBUFS=1", ""},
        {3, 5, 0, "0x7", "V4L2_MEMORY_DMABUF #REQBUFS=3", ""},
        {63, 63, 0, "0x7fffffffffffffff", "V4L2_MEMORY_DMABUF #REQBUFS=63", ""},
        {64, 64, 0, "0xffffffffffffffff", "V4L2_MEMORY_DMABUF #REQBUFS=64", ""},
        {0, 0, 0, "0xffffffffffffffff", "V4L2_MEMORY_DMABUF #REQBUFS=0", ""},
        {40, 32, -ENOMEM, "0xffffffffff", " 0 #REQBUFS=40", "Not enough buffer count: 40"},
        {2, -EBUSY, -EBUSY, "0x3", " 0 #REQBUFS=2", "VIDIOC_REQBUFS count=2 ret=-16): "},
        {-1, 0, -EINVAL, "0x0", " 0 #REQBUFS=0 Free=0x0 0 }", "Bad count=-1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.count);
        mDevice = std::make_shared<V4L2VideoDevice>(0x1a, "dip", "/dev/video3");
        mDevice->openDevice();
        mKernel.on<v4l2_requestbuffers>(VIDIOC_REQBUFS, [&](int, v4l2_requestbuffers& request) {
            EXPECT_EQ(request.count, static_cast<uint32_t>(c.count));
            EXPECT_EQ(request.type, 9U);
            EXPECT_EQ(request.memory, static_cast<uint32_t>(V4L2_MEMORY_DMABUF));
            if (c.driver >= 0)
                request.count = static_cast<uint32_t>(c.driver);
            return std::min(c.driver, 0);
        });
        mKernel.takeCalls();
        EXPECT_EQ(mDevice->importBuffer(c.count), c.result);
        EXPECT_EQ(mKernel.takeCalls().size(), c.count < 0 ? 0U : 1U);
        EXPECT_EQ(free(), c.free);
        EXPECT_THAT(mDevice->toString(), testing::HasSubstr(c.memory));
        EXPECT_EQ(mLog.take(),
                  *c.line != '\0' ? Lines({std::string("E [importBuffer] ") + c.line}) : Lines());
        mDevice->closeDevice();
    }
}

TEST_F(VideoDeviceTest, ReleasesBuffersWithTheMemoryTypeItHas) {
    open(2);
    EXPECT_EQ(tracedBy([this] { EXPECT_EQ(mDevice->releaseBuffer(), 0); }, 5),
              Lines({"V4L2VideoDevice VIDIOC_REQBUFS count=0"}));
    EXPECT_EQ(mRequested, "count=0 type=9 memory=4");
    EXPECT_EQ(free(), "0x3");
    mKernel.answer(VIDIOC_REQBUFS, -EBUSY);
    EXPECT_EQ(mDevice->releaseBuffer(), -EBUSY);
    EXPECT_EQ(mLog.take(), Lines({"E [releaseBuffer] Failed to release buffer: -16"}));
    EXPECT_EQ(mReports.take(),
              ReportCapture::of("VIDIOC_REQBUFS fail err=-16(Device or resource busy)"));
}

constexpr char kWaits[] = "W [operator()] wait for buffer index";

TEST_F(VideoDeviceTest, TakesTheLowestFreeIndexAndSleepsWithoutOne) {
    open(3);
    for (const int index : {0, 1, 2})
        EXPECT_EQ(mDevice->acquireBufferIndex(), index);
    const auto acquire = [this] { return mDevice->acquireBufferIndex(); };
    auto first = std::async(std::launch::async, acquire);
    mLog.takeUntil(kWaits);
    auto second = std::async(std::launch::async, acquire);
    mLog.takeUntil(kWaits);
    mDevice->releaseBufferIndex(1);  // wakes both; one of them sleeps again
    EXPECT_EQ(mLog.takeUntil(kWaits),
              Lines({"W [releaseBufferIndex] free buf bitset: 0 -> 0x2", kWaits}));
    mDevice->releaseBufferIndex(2);
    EXPECT_EQ(first.get() + second.get(), 3);
    mLog.take();
    mDevice->releaseBufferIndex(2);
    mDevice->releaseBufferIndex(0);
    EXPECT_EQ(mLog.take(), Lines({"W [releaseBufferIndex] free buf bitset: 0 -> 0x4"}));
    EXPECT_EQ(free(), "0x5");
}

TEST_F(VideoDeviceTest, EndsAWaitForAnIndexWhenItStreamsOff) {
    open(1);
    for (const auto code : {VIDIOC_QBUF, VIDIOC_STREAMON, VIDIOC_STREAMOFF})
        mKernel.answer(code, 0);
    const auto queuesAndWaits = [this] {
        auto waiting = std::async(std::launch::async, [this] { return queue(); });
        mLog.takeUntil(kWaits);
        return waiting;
    };
    const Lines ended = {"E [queueBuffer] dip streamed off while no buffer index was free"};
    EXPECT_EQ(queue(), 0);
    auto waiting = queuesAndWaits();  // before the first stream-on it waits as well
    mDevice->releaseBufferIndex(0);
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(mDevice->streamOn(), 0);
    auto first = queuesAndWaits();
    const int64_t since = mDevice->standing().indexWaitSince;
    EXPECT_GT(since, 0);
    auto second = queuesAndWaits();
    EXPECT_EQ(mDevice->standing().indexWaiters, 2U);
    EXPECT_EQ(mDevice->standing().indexWaitSince, since) << "the first one's";
    mLog.take();
    mKernel.takeCalls();
    EXPECT_EQ(mDevice->streamOff(), 0);
    EXPECT_EQ(first.get(), -EPIPE);
    EXPECT_EQ(second.get(), -EPIPE);
    EXPECT_EQ(mLog.take(), Lines({ended[0], ended[0]}));
    EXPECT_EQ(queue(), -EPIPE) << "nobody will give an index back";
    EXPECT_EQ(mLog.take(), ended);
    EXPECT_EQ(mKernel.takeCalls().size(), 1U) << "the stream-off";

    EXPECT_EQ(mDevice->streamOn(), 0);
    waiting = queuesAndWaits();
    EXPECT_EQ(mDevice->streamOff(), 0);
    EXPECT_EQ(mDevice->streamOn(), 0);
    EXPECT_EQ(waiting.get(), -EPIPE) << "the stream-off ended it, whatever came after";
    EXPECT_EQ(mDevice->streamOff(), 0);
    mDevice->importBuffer(1);
    EXPECT_EQ(queue(), 0);
    mLog.take();
    waiting = queuesAndWaits();
    mDevice->releaseBufferIndex(0);
    EXPECT_EQ(waiting.get(), 0);
    EXPECT_EQ(free(), "0x0");
}

std::string textOf(const v4l2_buffer& buffer) {
    char text[512];
    int length = snprintf(text, sizeof(text),
                          "index=%u type=%u memory=%u flags=%#x request=%d length=%u offset=%u",
                          buffer.index, buffer.type, buffer.memory, buffer.flags, buffer.request_fd,
                          buffer.length, buffer.reserved2);
    if (!V4L2_TYPE_IS_MULTIPLANAR(buffer.type))
        return std::string(text) + " fd=" + std::to_string(buffer.m.fd);
    for (uint32_t i = 0; i < buffer.length; ++i) {
        const v4l2_plane& plane = buffer.m.planes[i];
        length +=
            snprintf(text + length, sizeof(text) - static_cast<size_t>(length),
                     " | fd=%d offset=%u length=%u", plane.m.fd, plane.reserved[2], plane.length);
        EXPECT_EQ(plane.bytesused + plane.data_offset + plane.reserved[0] + plane.reserved[1], 0U);
    }
    return text;
}

constexpr char kSinglePlane[] = "single buffer plane(0), fd(5), offset(50)\n";
constexpr char kSingleOutput[] = "single buffer plane(0), used(0)\n";
constexpr char kTwoPlanes[] =
    "multi buffer plane(0), fd(5), offset(50)\nmulti buffer plane(1), fd(6), offset(60)\n";
constexpr char kTwoOutputs[] =
    "multi buffer plane(0), used(0), length(500)\nmulti buffer plane(1), used(0), length(600)\n";

TEST_F(VideoDeviceTest, QueuesByTypeAndMemoryAndReportsARefusal) {
    mKernel.symbolicLinks = {{"/proc/self/fd/5", "/dmabuf:"}, {"/proc/self/fd/6", "/memfd:dmabuf"}};
    mKernel.on<v4l2_format>(VIDIOC_G_FMT, [](int, v4l2_format& format) {
        if (V4L2_TYPE_IS_MULTIPLANAR(format.type)) {
            format.fmt.pix_mp.num_planes = 1;
            format.fmt.pix_mp.plane_fmt[0].sizeimage = 900;
        } else if (V4L2_TYPE_IS_OUTPUT(format.type)) {
            return -EIO;
        } else {
            format.fmt.pix.sizeimage = 800;
        }
        return 0;
    });
    const std::string kSingle = "port 0x1a(dip): plane 0 fd 5 (a dma-buf) offset 50 size 500";
    const std::string kSingleOf = kSingle + ", the format asks for 800";
    const std::string kMulti = kSingle +
                               ", the format asks for 900; plane 1 fd 6 (not a dma-buf: "
                               "/memfd:dmabuf) offset 60 size 600; the format has 1 planes, not 2";
    const struct {
        uint32_t caps;
        bool dmabuf;
        std::string type, length, sent;
        std::string cause, places, outputs;  ///< lines of a refusal
    } cases[] = {
        {0x1, true, "1", "500", "50 fd=5", kSingleOf, kSinglePlane, ""},
        {0x2, true, "2", "500", "50 fd=5", kSingle, kSinglePlane, kSingleOutput},
        {0x8000000, true, "14", "500", "50 fd=5", kSingle, kSinglePlane, kSingleOutput},
        {0x1, false, "1", "500", "0 fd=0", kSingleOf, "", ""},
        {0x1000, true, "9", "2", "0 | fd=5 offset=50 length=0 | fd=6 offset=60 length=0", kMulti,
         kTwoPlanes, ""},
        {0x2000, true, "10", "2", "0 | fd=5 offset=50 length=500 | fd=6 offset=60 length=600",
         kMulti, kTwoPlanes, kTwoOutputs},
        {0x2000, false, "10", "2", "0 | fd=0 offset=0 length=500 | fd=0 offset=0 length=600",
         kMulti, "", kTwoOutputs},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.type + c.sent);
        mDevice->closeDevice();
        mKernel.setCapabilities(c.caps);
        open(2, c.dmabuf ? -1 : 1);
        std::string sent;
        int result = 0;
        mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [&](int, v4l2_buffer& buffer) {
            sent = textOf(buffer);
            EXPECT_EQ(buffer.bytesused + buffer.field, 0U);
            if (result == 0) {  // as the kernel does
                buffer.request_fd = 0;
                buffer.flags = V4L2_BUF_FLAG_QUEUED;
                buffer.index = 7;
            }
            return result;
        });
        const bool multi = c.length == "2";
        const std::string memory = c.dmabuf ? "4" : "0";
        mDevice->setMonitor(mMonitor);
        EXPECT_EQ(queue(multi ? 2 : 1), 0);
        EXPECT_EQ(sent, "index=0 type=" + c.type + " memory=" + memory +
                            " flags=0x800000 request=200 length=" + c.length + " offset=" + c.sent);
        EXPECT_EQ(mMonitor->take(), Lines({"attach 26", "queued 200 0"}));

        result = -EINVAL;
        EXPECT_EQ(queue(multi ? 2 : 1), -EINVAL);
        std::string refusal;
        for (const auto& line : mLog.take())
            if (line.find("buffer length(") == std::string::npos)
                refusal += line.substr(line.find("] ") + 2) + "\n";
        EXPECT_EQ(refusal, c.cause + "\nFailed to queue buffer dip: -22\nbuffer index(1), type(" +
                               c.type + "), memory(" + memory +
                               "), flags(0x800000), request(200)\n" + c.places + c.outputs);
        EXPECT_EQ(mMonitor->take(), Lines());
        EXPECT_EQ(free(), "0x0") << "a refused buffer keeps its index";
    }
}

TEST_F(VideoDeviceTest, RefusesMorePlanesThanABufferHasAndQueuesWithoutARequest) {
    open(2);
    std::string sent;
    mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [&](int, v4l2_buffer& buffer) {
        sent = textOf(buffer);
        return 0;
    });
    EXPECT_EQ(dumpOf(*mDevice), Lines());
    EXPECT_EQ(queue(4), -EINVAL);
    EXPECT_EQ(mLog.take(), Lines({"E [queueBuffer] Bad plane count: 4 > 3"}));
    EXPECT_EQ(free(), "0x3");
    EXPECT_EQ(mDevice->queueBuffer(bufferOf(3), nullptr, 0), 0);
    EXPECT_EQ(sent,
              "index=0 type=9 memory=4 flags=0 request=0 length=3 offset=0"
              " | fd=5 offset=50 length=0 | fd=6 offset=60 length=0"
              " | fd=7 offset=70 length=0");
    EXPECT_EQ(mDevice->queueBuffer(bufferOf(0), nullptr, 0), 0);
    EXPECT_EQ(mDevice->describe(bufferOf(1)),
              "port 0x1a(dip): plane 0 fd 5 (not open) offset 50 size 500");

    EXPECT_EQ(dumpOf(*mDevice), Lines({mDevice->toString()}));
    EXPECT_THAT(mDevice->toString(),
                testing::MatchesRegex(".* V4L2_MEMORY_DMABUF #REQBUFS=2 Free=0x0 0x[0-9a-f]+ ."));
    mLog.setLevel(Utils::ULog::kKeyEvent);
    mDevice->closeDevice();
    const std::string closed = mDevice->toString();
    mDevice.reset();
    EXPECT_EQ(mLog.take(), Lines({"K [~V4L2VideoDevice] " + closed + "  #DECKEY"}));
}

TEST_F(VideoDeviceTest, Dequeues) {
    open(2);
    mDevice->setMonitor(mMonitor);
    EXPECT_EQ(mDevice->acquireBufferIndex(), 0);
    EXPECT_EQ(mDevice->acquireBufferIndex(), 1);
    mMonitor->take();
    int again = 9;
    mKernel.on<v4l2_buffer>(VIDIOC_DQBUF, [&](int, v4l2_buffer& buffer) {
        EXPECT_EQ(buffer.type, 9U);
        EXPECT_EQ(buffer.memory, static_cast<uint32_t>(V4L2_MEMORY_DMABUF));
        EXPECT_EQ(buffer.length, 8U);
        if (again-- > 0)
            return -EAGAIN;
        buffer.index = 1;
        buffer.flags = V4L2_BUF_FLAG_REQUEST_FD | V4L2_BUF_FLAG_ERROR;
        buffer.request_fd = 201;
        return 0;
    });
    EXPECT_EQ(mDevice->dequeBuffer(), -1) << "the buffer is in error";
    EXPECT_EQ(mLog.take(), Lines({"W [releaseBufferIndex] free buf bitset: 0 -> 0x2"}));
    EXPECT_EQ(mKernel.takeCalls().size(), 10U);
    EXPECT_EQ(mMonitor->take(), Lines({"dequeued 201 1"}));
    EXPECT_EQ(free(), "0x2");

    giveBack(0, V4L2_BUF_FLAG_REQUEST_FD);
    EXPECT_EQ(mDevice->dequeBuffer(), 0);
    mDevice->onNotify(0);
    mDevice->startToDequeueBuffer();
    EXPECT_EQ(mMonitor->take(), Lines({"dequeued 201 0", "dequeued 201 0", "dequeued 201 0"}));
    mLog.take();

    mKernel.answer(VIDIOC_DQBUF, -EPIPE);
    EXPECT_EQ(mDevice->dequeBuffer(), -1);
    EXPECT_EQ(mLog.take(), Lines({"E [dequeBuffer] Failed to dequeue buffer: -32"}));
    EXPECT_EQ(mMonitor->take(), Lines());
    EXPECT_EQ(mDevice->standing().lost, 1U);
    mDevice->importBuffer(2);
    EXPECT_EQ(mDevice->standing().lost, 0U) << "all indexes are there";
}

TEST_F(VideoDeviceTest, TellsWhatEachDequeueBrought) {
    Lines told;
    std::thread::id thread;
    const auto tell = [&](const DequeuedBuffer& buffer) {
        thread = std::this_thread::get_id();
        std::ostringstream text;
        text << buffer.portIndex << " " << buffer.result << " " << buffer.requestFd;
        if (buffer.bufferIndex != DequeuedBuffer::kNoIndex) {
            EXPECT_EQ(free(), "0x" + std::to_string(1 << buffer.bufferIndex)) << "not free yet";
            text << " " << buffer.bufferIndex << " " << buffer.flags << " " << buffer.field << " "
                 << buffer.sequence << " " << buffer.timestamp.tv_sec << " "
                 << buffer.timestamp.tv_usec;
        }
        for (uint32_t i = 0; i < buffer.planeCount; ++i)
            text << " | " << buffer.planes[i].bytesUsed << "+" << buffer.planes[i].dataOffset;
        told.push_back(text.str());
    };
    const struct {
        uint32_t caps, flags, length;
        int result;
        std::string line;
        uint32_t unwritten = 0;  ///< planes that the driver left alone
    } cases[] = {
        {0x1000, 0x800000, 2, 0, "26 0 201 1 8388608 7 8 9 10 | 20+30 | 21+31"},
        {0x1000, 0x800000, 2, 0, "26 0 201 1 8388608 7 8 9 10 | 0+0 | 0+0", 2},
        {0x1000, 0x40, 1, 0, "26 1 -1 1 64 7 8 9 10 | 20+30"},
        {0x1, 0x800040, 500, 0, "26 1 201 1 8388672 7 8 9 10 | 19+0"},
        {0x1, 0x800000, 500, -EIO, "26 -5 -1"},
        {0x1000, 0x800000, 2, -EAGAIN, "26 -11 -1"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.line);
        mDevice->closeDevice();
        mKernel.setCapabilities(c.caps);
        open(2);
        mDevice->setDequeuedCallback(tell);
        EXPECT_EQ(mDevice->acquireBufferIndex(), 0);
        EXPECT_EQ(mDevice->acquireBufferIndex(), 1);
        mKernel.on<v4l2_buffer>(VIDIOC_DQBUF, [&](int, v4l2_buffer& buffer) {
            if (c.result < 0)
                return c.result;
            buffer.index = 1;
            buffer.flags = c.flags;
            buffer.request_fd = 201;
            buffer.field = 7;
            buffer.sequence = 8;
            buffer.timestamp = {9, 10};
            buffer.bytesused = 19;
            if (V4L2_TYPE_IS_MULTIPLANAR(buffer.type))
                for (uint32_t i = c.unwritten; i < c.length; ++i) {
                    buffer.m.planes[i].bytesused = 20 + i;
                    buffer.m.planes[i].data_offset = 30 + i;
                }
            buffer.length = c.length;
            return 0;
        });
        std::async(std::launch::async, [this] { mDevice->onNotify(0); }).get();
        EXPECT_EQ(std::exchange(told, {}), Lines({c.line}));
        EXPECT_NE(thread, std::this_thread::get_id());
        mDevice->setDequeuedCallback(nullptr);
        mDevice->onNotify(0);
        EXPECT_EQ(told, Lines());
    }
}

TEST_F(VideoDeviceTest, KeepsMemoryAtItsIndex) {
    open(4);
    uint32_t index = 99;
    mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [&](int, v4l2_buffer& buffer) {
        index = buffer.index;
        return 0;
    });
    // Queues memory, then gives its index back: memory "3" is descriptor 3, "3+8" at an offset.
    const auto indexOf = [&](int fd, uint32_t offset = 0) {
        EXPECT_EQ(mDevice->queueBuffer({{{fd, offset, 1}}, 1}, &mRequest, 0), 0);
        mDevice->releaseBufferIndex(index);
        return index;
    };
    EXPECT_EQ(indexOf(5), 0U);
    EXPECT_EQ(indexOf(6), 0U) << "the lowest free one unless told otherwise";
    EXPECT_EQ(dumpOf(*mDevice).size(), 1U);

    mDevice->setKeepIndexes(true);
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(indexOf(5), 0U);
        EXPECT_EQ(indexOf(6), 1U);
        EXPECT_EQ(indexOf(5, 8), 2U);
    }
    EXPECT_EQ(mDevice->acquireBufferIndex(), 0) << "by hand the lowest as ever";
    EXPECT_EQ(mDevice->acquireBufferIndex(), 1);
    EXPECT_EQ(indexOf(5, 8), 2U);
    EXPECT_EQ(indexOf(5), 3U) << "its own is taken: one that had no memory yet";
    EXPECT_EQ(mDevice->remappedBuffers(), 0U);
    EXPECT_EQ(indexOf(0), 2U) << "all have had memory: the lowest free one";
    mDevice->releaseBufferIndex(1);
    EXPECT_EQ(indexOf(0), 2U);
    EXPECT_EQ(indexOf(7), 1U);
    EXPECT_EQ(mDevice->remappedBuffers(), 2U);
    EXPECT_EQ(dumpOf(*mDevice), Lines({mDevice->toString(), "    indexes kept, #remapped=2"}));

    mDevice->importBuffer(4);
    EXPECT_EQ(indexOf(7), 0U) << "an import forgets all memory";
    mDevice->setKeepIndexes(false);
    EXPECT_EQ(indexOf(8), 0U);
    mDevice->setKeepIndexes(true);
    EXPECT_EQ(indexOf(9), 0U) << "so does a new beginning";
    EXPECT_EQ(mDevice->remappedBuffers(), 2U);
    mDevice->setKeepIndexes(false);
    EXPECT_EQ(dumpOf(*mDevice).size(), 2U) << "the count is shown still";
}

TEST_F(VideoDeviceTest, TakesEachIndexOnceOnManyThreads) {
    constexpr int kThreads = 4;
    open(kThreads - 1);
    mDevice->setKeepIndexes(true);
    std::atomic<uint32_t> held{0};
    mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [&](int, v4l2_buffer& buffer) {
        const uint32_t bit = 1U << buffer.index;
        EXPECT_EQ(held.fetch_or(bit) & bit, 0U);
        std::this_thread::yield();
        held.fetch_and(~bit);
        mDevice->releaseBufferIndex(buffer.index);
        return 0;
    });
    const auto queueMany = [this](int fd) {
        for (int i = 0; i < 2000; ++i)
            mDevice->queueBuffer({{{fd + i % 2, 0, 1}}, 1}, nullptr, 0);
    };
    std::vector<std::thread> threads;
    for (int i = 0; i < kThreads; ++i)
        threads.emplace_back(queueMany, 3 + i);
    for (auto& thread : threads)
        thread.join();
    EXPECT_EQ(free(), "0x7");
}

TEST_F(VideoDeviceTest, TakesTheTenthEagainForABuffer) {
    open(1);
    mDevice->setMonitor(mMonitor);
    mMonitor.reset();  // held weakly: from here on it is skipped
    EXPECT_EQ(mDevice->acquireBufferIndex(), 0);
    mKernel.answer(VIDIOC_DQBUF, -EAGAIN);
    EXPECT_EQ(mDevice->dequeBuffer(), 0);
    EXPECT_EQ(mKernel.takeCalls().size(), 10U);
    EXPECT_EQ(free(), "0x1");
}

TEST_F(VideoDeviceTest, EndsOnConsistencyErrorsOfBuffers) {
    open(2);
    mKernel.answer(VIDIOC_QBUF, 0);
    giveBack(0, 0);
    const auto acquireOfNone = [this] {
        mDevice->importBuffer(0);
        mDevice->acquireBufferIndex();
    };
    const auto queueMonitored = [this] {
        mDevice->setMonitor(mMonitor);
        mDevice->queueBuffer(bufferOf(1), nullptr, 0);
    };
    const auto dequeueMonitored = [this] {
        mDevice->setMonitor(mMonitor);
        mDevice->dequeBuffer();
    };
    expectFatal({
        {acquireOfNone, kVideoTag, "acquireBufferIndex", "index:0 out of range"},
        {[this] { mDevice->releaseBufferIndex(2); }, kVideoTag, "releaseBufferIndex",
         "Bad index:2 2"},
        {queueMonitored, kVideoTag, "queueBuffer", "Not supported: no V4L2_BUF_FLAG_REQUEST_FD"},
        {dequeueMonitored, kVideoTag, "dequeBuffer", "Not supported: no V4L2_BUF_FLAG_REQUEST_FD"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
