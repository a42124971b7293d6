#include <corvane/kvxdip.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <new>
#include <thread>

#include "Client.h"

namespace {

std::atomic<size_t> allocations{0};

void* countedAllocation(size_t size) {
    ++allocations;
    if (void* memory = malloc(size ? size : 1))
        return memory;
    throw std::bad_alloc();
}

}  // namespace

// Not inlined: the compiler would see memory of operator new go to free(), and warn.
[[gnu::noinline]] void* operator new(size_t size) {
    return countedAllocation(size);
}
[[gnu::noinline]] void operator delete(void* memory) noexcept {
    free(memory);
}
[[gnu::noinline]] void operator delete(void* memory, size_t) noexcept {
    free(memory);
}

namespace NSVista::NSCorvane::sim {

namespace {

constexpr uint8_t kGuard = 0xA5;
constexpr uint32_t kOffset = 128;

uint32_t totalSize(const vengine_layout& layout) {
    return layout.sizeimage[0] + layout.sizeimage[1] + layout.sizeimage[2];
}

vengine_picture pictureAt(const vengine_layout& layout, uint8_t* base) {
    uint8_t* planes[3] = {base, base + layout.sizeimage[0],
                          base + layout.sizeimage[0] + layout.sizeimage[1]};
    return vengine_map(&layout, planes);
}

}  // namespace

class StreamTest : public Client {
protected:
    /** Dequeues and returns the index, or a negative result; the flags go to mFlags. */
    int dequeue(const Node& node) {
        Buffer buffer(node, 99);
        if (node.multi())
            buffer.buf.length = VIDEO_MAX_PLANES;
        int result = System::DQueueVideoNodeBuf(node.fd, &buffer.buf);
        mFlags = buffer.buf.flags;
        mBytesUsed = node.multi() ? buffer.planes[0].bytesused : buffer.buf.bytesused;
        mSequence = buffer.buf.sequence;
        mRequestFd = buffer.buf.request_fd;
        return result ? -abs(result) : static_cast<int>(buffer.buf.index);
    }
    /** One request with buffer @p index of each node. */
    int submit(const std::vector<const Node*>& nodes, uint32_t index, const Memory& memory) {
        int fd = request();
        for (const Node* node : nodes)
            EXPECT_EQ(queue({*node, index, fd, &memory}, *node), 0);
        EXPECT_EQ(System::QueueMediaRequest(fd), 0);
        return fd;
    }

    uint32_t mFlags = 0, mBytesUsed = 0, mSequence = 0;
    int mRequestFd = -1;
};

TEST_F(StreamTest, AllPortsMakeTheirPicturesAtTheirOffsets) {
    int subDevice = System::Open(device().nodePath(VENGINE_SUBDEV_ENTITY).c_str(), O_RDWR, 0);
    kvxdip_control brightness = {VENGINE_CTRL_BRIGHTNESS, 7};
    ASSERT_EQ(call(subDevice, KVXDIP_IOC_SET_CONTROL, &brightness), 0);
    for (uint32_t frame = 0; frame < 3; ++frame) {
        SCOPED_TRACE(frame);
        std::map<std::string, std::unique_ptr<Memory>> memory;
        int fd = request();
        for (const vengine_port& port : vengine_ports) {
            const Node& node = frame == 0 ? streaming(port.name) : this->node(port.name);
            auto& m = memory[port.name];
            m = std::make_unique<Memory>(kOffset + totalSize(node.layout) + 64);
            memset(m->data, kGuard, m->size);
            if (V4L2_TYPE_IS_OUTPUT(port.buf_type)) {
                vengine_tuning tuning = {VENGINE_TUNING_MAGIC, 40 + frame, -20, {}};
                vengine_picture picture = pictureAt(node.layout, m->data + kOffset);
                if (port.role == VENGINE_ROLE_TUNING)
                    memcpy(m->data + kOffset, &tuning, sizeof(tuning));
                else
                    vengine_draw_test(&picture, frame * 5 + port.role);
            }
            ASSERT_EQ(queue({node, frame, fd, m.get(), kOffset}, node), 0) << port.name;
        }
        ASSERT_EQ(System::QueueMediaRequest(fd), 0);
        ASSERT_TRUE(done(fd));

        auto pictureOf = [&](const char* name) {
            return pictureAt(node(name).layout, memory[name]->data + kOffset);
        };
        vengine_picture input = pictureOf("vengine-input"), mask = pictureOf("vengine-mask");
        vengine_source source = {&input, &mask, frame, vengine_brightness(7, -20)};
        for (const vengine_port& port : vengine_ports) {
            SCOPED_TRACE(port.name);
            const Node& node = this->node(port.name);
            EXPECT_EQ(dequeue(node), static_cast<int>(frame));
            EXPECT_EQ(mFlags, static_cast<uint32_t>(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC |
                                                    V4L2_BUF_FLAG_REQUEST_FD));
            EXPECT_EQ(mRequestFd, fd);
            EXPECT_EQ(mSequence, frame);
            EXPECT_EQ(mBytesUsed, node.layout.sizeimage[0]);
            Memory expected(memory[port.name]->size);
            memset(expected.data, kGuard, expected.size);
            vengine_picture picture = pictureAt(node.layout, expected.data + kOffset);
            vengine_stats stats = {VENGINE_STATS_MAGIC,       frame,
                                   (1u << VENGINE_PORTS) - 1, 40 + frame,
                                   vengine_checksum(&input),  {}};
            if (port.role == VENGINE_ROLE_STATS)
                memcpy(expected.data + kOffset, &stats, sizeof(stats));
            else if (!V4L2_TYPE_IS_OUTPUT(port.buf_type))
                vengine_capture(&source, port.role, &picture);
            else
                continue;
            EXPECT_EQ(memcmp(expected.data, memory[port.name]->data, expected.size), 0);
        }
    }
    System::Close(subDevice, 0);
}

TEST_F(StreamTest, CompletesInTheOrderAskedFor) {
    using namespace std::chrono_literals;
    const Node& node = streaming("vengine-main", 6);
    Memory memory(65536);
    const std::vector<std::pair<Timing, std::vector<int>>> cases = {
        {{.latency = 20ms, .jitter = 5ms}, {0, 1, 2, 3, 4, 5}},
        {{.order = Order::REVERSED, .group = 3, .patience = 10s}, {2, 1, 0, 5, 4, 3}},
        {{.order = Order::REVERSED, .group = 4, .patience = 300ms}, {3, 2, 1, 0, 5, 4}},
        {{.onQueueingThread = true}, {0, 1, 2, 3, 4, 5}},
    };
    for (const auto& [timing, expected] : cases) {
        device().setTiming(timing);
        auto begin = std::chrono::steady_clock::now();
        std::vector<int> requests, order;
        for (uint32_t i = 0; i < 6; ++i) {
            requests.push_back(submit({&node}, i, memory));
            if (timing.onQueueingThread) {
                EXPECT_TRUE(done(requests.back(), 0));
            }
        }
        for (int fd : requests)
            EXPECT_TRUE(done(fd));
        EXPECT_GE(std::chrono::steady_clock::now() - begin, timing.latency);
        for (int i = 0; i < 6; ++i)
            order.push_back(dequeue(node));
        EXPECT_EQ(order, expected);
    }
    device().setTiming({.order = Order::RANDOM, .group = 6, .patience = 10s, .seed = 3});
    std::vector<int> order;
    for (uint32_t i = 0; i < 6; ++i)
        submit({&node}, i, memory);
    for (int fd : mRequests)
        EXPECT_TRUE(done(fd));
    for (int i = 0; i < 6; ++i)
        order.push_back(dequeue(node));
    EXPECT_FALSE(std::is_sorted(order.begin(), order.end()));
}

TEST_F(StreamTest, HeldRequestsCompleteByHand) {
    const Node& node = streaming("vengine-main");
    Memory memory(65536);
    device().hold();
    int first = submit({&node}, 0, memory), second = submit({&node}, 1, memory);
    EXPECT_FALSE(done(first, 20));
    EXPECT_EQ(System::ReinitMediaRequest(first), -EBUSY);
    device().completeNext();
    EXPECT_TRUE(done(first));
    EXPECT_FALSE(done(second, 20));
    EXPECT_EQ(System::ReinitMediaRequest(first), 0);
    EXPECT_FALSE(done(first, 0));
    device().resume();
    EXPECT_TRUE(done(second));
}

TEST_F(StreamTest, BuffersInErrorAreTheRightOnes) {
    const Node &main = streaming("vengine-main"), &tuning = streaming("vengine-tuning");
    Memory memory(65536);
    device().failBuffer("vengine-main", 2);
    // The last request's tuning has no magic, which fails all of its buffers.
    for (uint32_t i = 0; i < 3; ++i)
        EXPECT_TRUE(done(submit({&main}, i, memory)));
    EXPECT_TRUE(done(submit({&main, &tuning}, 3, memory)));
    std::vector<bool> failed;
    for (const Node* node : {&main, &main, &main, &main, &tuning}) {
        EXPECT_GE(dequeue(*node), 0);
        failed.push_back(mFlags & V4L2_BUF_FLAG_ERROR);
    }
    EXPECT_EQ(failed, (std::vector<bool>{false, true, false, true, true}));
}

TEST_F(StreamTest, StreamOffTakesItsBuffersOutOfRequests) {
    const Node &main = streaming("vengine-main"), &flip = streaming("vengine-flip");
    const Node& grey = node("vengine-grey");
    ASSERT_EQ(grey.requestBuffers(2), 2);
    Memory memory(65536);
    device().hold();
    int both = submit({&main, &flip}, 0, memory), waiting = submit({&flip, &grey}, 1, memory);
    EXPECT_EQ(setLink("vengine-main", 0), -EBUSY);
    EXPECT_EQ(main.stream(false), 0);
    EXPECT_EQ(setLink("vengine-main", 0), 0);
    EXPECT_EQ(main.stream(true), -EPIPE);
    EXPECT_EQ(dequeue(main), -EINVAL);
    device().resume();
    EXPECT_TRUE(done(both)) << "goes on with what is left";
    EXPECT_EQ(dequeue(flip), 0);
    EXPECT_FALSE(done(waiting, 20)) << "a node does not stream yet";
    EXPECT_EQ(grey.stream(true), 0);
    EXPECT_TRUE(done(waiting));

    device().hold();
    int cancelled = submit({&grey}, 0, memory);
    EXPECT_EQ(grey.stream(false), 0);
    EXPECT_TRUE(done(cancelled)) << "its last node stopped";
    EXPECT_EQ(device().counts().cancelled, 1u);
    device().resume();
}

TEST_F(StreamTest, BuffersOutliveTheirRequestsDescriptor) {
    const Node& node = streaming("vengine-main");
    Memory memory(65536);
    device().hold();
    int queued = submit({&node}, 0, memory), idle = request();
    ASSERT_EQ(queue({node, 1, idle, &memory}, node), 0);
    mRequests.clear();
    EXPECT_EQ(System::Close(queued, 0), 0);
    EXPECT_EQ(System::Close(idle, 0), 0);
    device().resume();
    EXPECT_TRUE(done(submit({&node}, 2, memory)));
    EXPECT_EQ(dequeue(node), 0);
    EXPECT_EQ(queue({node, 1, request(), &memory}, node), -EINVAL) << "bound until stream-off";
    device().hold();
    EXPECT_EQ(System::Close(submit({&node}, 3, memory), 0), 0);
    mRequests.erase(mRequests.end() - 1);
    EXPECT_EQ(node.stream(false), 0) << "ends the request that nobody else knows";
    EXPECT_EQ(device().counts().cancelled, 1u);
    EXPECT_EQ(queue({node, 1, request(), &memory}, node), 0);
}

TEST_F(StreamTest, KeepsTheMemoryOfAnIndex) {
    const Node& node = streaming("vengine-main");
    Memory first(65536), second(65536);
    auto cycle = [&](const Memory& memory) {
        EXPECT_TRUE(done(submit({&node}, 0, memory)));
        EXPECT_EQ(dequeue(node), 0);
        return device().counts().remaps;
    };
    EXPECT_EQ(cycle(first), 0u);
    EXPECT_EQ(cycle(first), 0u);
    EXPECT_EQ(cycle(second), 2u) << "one for each plane";
    EXPECT_EQ(device().counts().mappedPlanes, 2u);

    // What a refused request prepared stays so: the index keeps the memory of then.
    int refused = request();
    ASSERT_EQ(queue({node, 0, refused, &first}, node), 0);
    ASSERT_EQ(queue({node, 1, refused}, node), 0);
    EXPECT_EQ(System::QueueMediaRequest(refused), -EINVAL);
    EXPECT_EQ(System::ReinitMediaRequest(refused), 0);
    memset(first.data, 0, first.size);
    memset(second.data, 0, second.size);
    cycle(second);
    EXPECT_NE(first.data[0], 0);
    EXPECT_EQ(second.data[0], 0);
}

TEST_F(StreamTest, QueueingRewritesTheCallersRecord) {
    const Node &main = streaming("vengine-main"), &grey = streaming("vengine-grey");
    Memory memory(65536);
    int fd = request();
    Buffer planes(main, 0, fd, &memory, 64), plane(grey, 0, fd, &memory, 64);
    ASSERT_EQ(System::QueueVideoNodeBuf(main.fd, &planes.buf), 0);
    ASSERT_EQ(System::QueueVideoNodeBuf(grey.fd, &plane.buf), 0);
    EXPECT_EQ(planes.planes[0].m.fd, 0);
    EXPECT_EQ(planes.planes[0].reserved[2], 0u);
    EXPECT_EQ(plane.buf.m.fd, 0);
    EXPECT_EQ(plane.buf.reserved2, 0u);
    EXPECT_TRUE(plane.buf.flags & V4L2_BUF_FLAG_IN_REQUEST);
    EXPECT_EQ(plane.buf.request_fd, fd);
}

TEST_F(StreamTest, QueuesTakeRequestsAsTheyAreDescribed) {
    DeviceDesc described;
    described.setNames("plain", "plain");
    const std::vector<std::pair<RequestUse, std::vector<int>>> cases = {
        {RequestUse::OPTIONAL, {0, 0, -EBUSY}},
        {RequestUse::REQUIRED, {-EBADR, -EBADR, -EINVAL}},
        {RequestUse::REFUSED, {0, 0, -EBADR}},
    };
    for (size_t i = 0; i < cases.size(); ++i)
        described.addVideoNode(std::to_string(i), {V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY,
                                                   VENGINE_ROLE_MAIN, cases[i].first});
    Device& plain = *mEngine.addDevice(described);
    const vengine_port port = {"", V4L2_BUF_TYPE_VIDEO_CAPTURE, V4L2_PIX_FMT_GREY, 0, 0};
    Memory memory(VENGINE_DEFAULT_WIDTH * VENGINE_DEFAULT_HEIGHT);
    for (size_t i = 0; i < cases.size(); ++i) {
        Node node{&port, System::Open(plain.nodePath(std::to_string(i)).c_str(), O_RDWR, 0),
                  vengine_layout_of(port.format, VENGINE_DEFAULT_WIDTH, VENGINE_DEFAULT_HEIGHT)};
        ASSERT_EQ(node.requestBuffers(3), 3);
        ASSERT_EQ(node.stream(true), 0);
        std::vector<int> results;
        for (uint32_t index : {0, 1})
            results.push_back(queue({node, index, -1, &memory}, node));
        // Of another device's request only a queue hears that takes one at all.
        results.push_back(queue({node, 2, request(), &memory}, node));
        EXPECT_EQ(results, cases[i].second) << i;
        for (int index = 0; index < 2 && results[0] == 0; ++index) {
            EXPECT_EQ(dequeue(node), index) << "waits";
            EXPECT_EQ(mFlags, static_cast<uint32_t>(V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC));
        }
        System::Close(node.fd, 0);
    }
    EXPECT_EQ(plain.counts().completed, 4u);
    EXPECT_EQ(plain.counts().mappedPlanes, 0u);
}

TEST_F(StreamTest, AllocatesNothingInTheSteadyState) {
    const Node &main = streaming("vengine-main"), &stats = streaming("vengine-stats");
    Memory memory(65536);
    int fd = request();
    size_t before = 0;
    for (uint32_t i = 0; i < 200; ++i) {
        if (i == 10)
            before = allocations;
        for (const Node* node : {&main, &stats})
            ASSERT_EQ(queue({*node, i % 4, fd, &memory}, *node), 0);
        ASSERT_EQ(System::QueueMediaRequest(fd), 0);
        ASSERT_TRUE(done(fd));
        ASSERT_EQ(System::ReinitMediaRequest(fd), 0);
        ASSERT_EQ(dequeue(main), static_cast<int>(i % 4));
        ASSERT_EQ(dequeue(stats), static_cast<int>(i % 4));
    }
    EXPECT_EQ(allocations - before, 0u);
}

TEST_F(StreamTest, SurvivesManyThreadsThatStartAndStop) {
    std::vector<std::thread> threads;
    Memory memory(65536);
    for (const char* name : {"vengine-main", "vengine-flip", "vengine-grey", "vengine-stats"})
        node(name);
    for (auto& [name, node] : mNodes) {
        threads.emplace_back([&, node = &node] {
            for (int round = 0; round < 30; ++round) {
                ASSERT_EQ(node->requestBuffers(4), 4);
                ASSERT_EQ(node->stream(true), 0);
                std::vector<int> requests;
                for (uint32_t i = 0; i < 4; ++i) {
                    requests.push_back(System::AllocMediaRequest(mMedia, 0));
                    ASSERT_EQ(queue({*node, i, requests.back(), &memory}, *node), 0);
                    ASSERT_EQ(System::QueueMediaRequest(requests.back()), 0);
                }
                ASSERT_TRUE(done(requests[0]));
                ASSERT_EQ(node->stream(false), 0);
                for (int fd : requests) {
                    ASSERT_TRUE(done(fd));
                    ASSERT_EQ(System::Close(fd, 0), 0);
                }
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    DeviceCounts counts = device().counts();
    EXPECT_EQ(counts.queued, 480u);
    EXPECT_EQ(counts.completed + counts.cancelled, 480u);
}

}  // namespace NSVista::NSCorvane::sim
