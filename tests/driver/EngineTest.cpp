/**
 * @file
 * What the virtual engine promises, in the kernel and in the process: pictures, errnos, lifetimes.
 */
#include <corvane/kvxdip.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>

#include "Ports.h"

namespace NSVista::NSCorvane::test {

namespace {

constexpr uint8_t kUntouched = 0xa5;
constexpr unsigned kMain = 0, kInput = 1, kStats = 3, kTuning = 5, kMask = 8;

class EngineTest : public testing::Test {
protected:
    /** Adds ports to the stage, their links enabled. */
    void setUp(std::vector<unsigned> numbers, unsigned buffers) {
        for (unsigned n : numbers) {
            ASSERT_EQ(setLink(media, n, true), n == kTuning ? -EINVAL : 0);
            ports.emplace_back(n, n == kInput ? 96 : 72, n == kMask ? 16 : 24, buffers);
        }
        for (Port& port : ports)
            ASSERT_EQ(port.prepare(), static_cast<int>(buffers));
    }
    int streamAll(bool on) {
        int result = 0;
        for (Port& port : ports)
            result = std::min(result, port.stream(on));
        return result;
    }
    int queue(int request, unsigned buffer, uint32_t shift = 0) {
        for (Port& port : ports)
            if (int result = port.queue(buffer, request, shift); result < 0)
                return result;
        return call(request, MEDIA_REQUEST_IOC_QUEUE);
    }
    ~EngineTest() override {
        ports.clear();
        for (unsigned n = 0; n < VENGINE_PORTS; ++n)
            EXPECT_EQ(setLink(media, n, false), n == kTuning ? -EINVAL : 0);
    }

    Fd media{""};
    std::vector<Port> ports;
};

/** Puts the input, mask and tuning of a run into its buffers and paints all others over. */
void fill(std::vector<Port>& ports, unsigned buffer, uint32_t run) {
    for (Port& port : ports) {
        for (unsigned plane = 0; plane < port.layout.num_planes; ++plane)
            memset(port.data(buffer, plane), kUntouched, port.bytes(plane));
        vengine_picture picture = port.picture(buffer);
        vengine_tuning tuning = {VENGINE_TUNING_MAGIC, run, static_cast<int>(run % 31), {}};
        if (port.index == kTuning)
            memcpy(picture.data[0], &tuning, sizeof(tuning));
        else if (port.output())
            vengine_draw_test(&picture, run * (port.index + 1));
    }
}

/** Compares whole dma-bufs: the picture, its padding, and what lies before and behind it. */
void check(Port& port, unsigned buffer, const vengine_source& source, uint32_t run) {
    std::vector<uint8_t> wanted[3];
    uint8_t* planes[3] = {};
    for (unsigned n = 0; n < port.layout.num_planes; ++n) {
        wanted[n].assign(port.bytes(n), kUntouched);
        planes[n] = wanted[n].data() + port.offset(n);
    }
    vengine_picture picture = vengine_map(&port.layout, planes);
    vengine_stats stats = {
        VENGINE_STATS_MAGIC, source.frame, 0x1ff, run, vengine_checksum(source.input), {}};
    if (port.index == kStats)
        memcpy(planes[0], &stats, sizeof(stats));
    else
        vengine_capture(&source, vengine_ports[port.index].role, &picture);
    for (unsigned n = 0; n < port.layout.num_planes; ++n)
        EXPECT_EQ(memcmp(port.data(buffer, n), wanted[n].data(), wanted[n].size()), 0)
            << vengine_ports[port.index].name << " plane " << n << " frame " << source.frame;
}

TEST_F(EngineTest, ShowsPicturesOnAllPortsAtTheirOffsets) {
    constexpr unsigned kDepth = 8;
    const char* runs = getenv("CORVANE_TEST_RUNS");
    const uint32_t count = runs ? static_cast<uint32_t>(atoi(runs)) : 40;
    setUp({0, 1, 2, 3, 4, 5, 6, 7, 8}, kDepth);
    ASSERT_EQ(streamAll(true), 0);
    std::vector<Fd> requests;
    for (unsigned n = 0; n < kDepth; ++n)
        requests.push_back(newRequest(media));
    uint32_t frame = 0;
    for (uint32_t next = 0; next < count + kDepth; ++next) {
        const unsigned buffer = next % kDepth;
        if (next >= kDepth) {
            const uint32_t run = next - kDepth;
            ASSERT_EQ(pollFor(requests[buffer], POLLPRI), POLLPRI);
            for (Port& port : ports)
                ASSERT_EQ(port.dequeue(), static_cast<int>(buffer));
            vengine_stats stats;
            memcpy(&stats, ports[kStats].picture(buffer).data[0], sizeof(stats));
            frame = run == 0 ? stats.frame : frame + 1;
            vengine_picture input = ports[kInput].picture(buffer);
            vengine_picture mask = ports[kMask].picture(buffer);
            for (Port& port : ports)
                if (!port.output())
                    check(port, buffer, {&input, &mask, frame, static_cast<int>(run % 31)}, run);
            ASSERT_FALSE(HasFailure());
            ASSERT_EQ(call(requests[buffer], MEDIA_REQUEST_IOC_REINIT), 0);
        }
        if (next < count) {
            fill(ports, buffer, next);
            ASSERT_EQ(queue(requests[buffer], buffer), 0);
        }
    }
}

TEST_F(EngineTest, RefusesAsTheKernelDoes) {
    setUp({kMain, kTuning}, 2);
    Port& main = ports[0];
    Fd request = newRequest(media);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_QUEUE), -ENOENT);
    EXPECT_EQ(setLink(media, kTuning, false), -EINVAL) << "immutable";
    EXPECT_EQ(setLink(media, kMain, false), 0);
    EXPECT_EQ(main.stream(true), -EPIPE);
    EXPECT_EQ(setLink(media, kMain, true), 0);
    EXPECT_EQ(main.dequeue(), -EINVAL) << "not streaming";
    EXPECT_EQ(streamAll(true), 0);
    EXPECT_EQ(setLink(media, kMain, false), -EBUSY);
    EXPECT_EQ(main.dequeue(), -EAGAIN);
    EXPECT_EQ(main.requestBuffers(0), -EBUSY);
    v4l2_format format = {};
    format.type = main.type;
    EXPECT_EQ(call(main.node, VIDIOC_S_FMT, &format), -EBUSY);
    Fd second(vengine_ports[kMain].name);
    std::swap(second, main.node);
    EXPECT_EQ(main.requestBuffers(1), -EBUSY) << "another file owns the queue";
    std::swap(second, main.node);
    EXPECT_EQ(main.queue(2, request), -EINVAL) << "no such index";
    EXPECT_EQ(main.queue(0, main.node), -EINVAL) << "no request";
    EXPECT_EQ(queue(request, 0, 1 << 20), -EINVAL) << "beyond the dma-buf's end";
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    EXPECT_EQ(queue(request, 0), 0);
    EXPECT_EQ(pollFor(request, POLLPRI), POLLPRI);
    EXPECT_EQ(main.dequeue(), -EIO) << "the tuning has no magic";
    EXPECT_EQ(main.queue(0, request), -EBUSY) << "complete";
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_QUEUE), -EBUSY);
    EXPECT_EQ(main.queue(0, -1), -EBUSY) << "requests and plain buffers do not mix";
}

TEST_F(EngineTest, WaitsForEveryNodeAndLetsGoOfThoseThatStop) {
    setUp({kMain, kStats, 7}, 4);
    ASSERT_EQ(ports[0].stream(true), 0);
    Fd request = newRequest(media);
    ASSERT_EQ(queue(request, 0), 0);
    EXPECT_EQ(pollFor(request, POLLPRI, 100), 0) << "two nodes do not stream yet";
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), -EBUSY);
    ASSERT_EQ(ports[1].stream(true), 0);
    ASSERT_EQ(ports[2].stream(false), 0) << "takes its buffer out of the request";
    EXPECT_EQ(pollFor(request, POLLPRI), POLLPRI);
    EXPECT_GE(ports[0].dequeue(), 0);
    EXPECT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);

    ASSERT_EQ(queue(request, 1), 0);
    EXPECT_EQ(streamAll(false), 0);
    EXPECT_EQ(pollFor(request, POLLPRI), POLLPRI) << "the last stream-off ends a request";
    ASSERT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    for (unsigned round = 0; round < 20; ++round) {
        ASSERT_EQ(streamAll(true), 0);
        std::vector<Fd> requests;
        for (unsigned n = 0; n < 4; ++n) {
            requests.push_back(newRequest(media));
            ASSERT_EQ(queue(requests[n], n), 0);
        }
        requests.resize(round % 4);
        ASSERT_EQ(streamAll(false), 0) << "whatever is in flight, and whoever holds it";
    }
    ASSERT_EQ(queue(request, 2), 0);
    ports.clear();
    EXPECT_EQ(pollFor(request, POLLPRI), POLLPRI) << "closing the nodes ends it as well";
}

int kva(int fd, unsigned long code, std::vector<int> fds, uint8_t count) {
    kvxdip_kva record = {};
    record.count = count;
    for (size_t n = 0; n < fds.size(); ++n)
        memcpy(reinterpret_cast<char*>(&record) + 1 + 4 * n, &fds[n], 4);
    return call(fd, code, &record);
}

int iova(int fd, unsigned long code, int buffer, uint8_t coherence, uint32_t count = 1) {
    kvxdip_iova record = {};
    record.fd = buffer;
    record.coherence = coherence;
    record.count = count;
    return call(fd, code, &record);
}

TEST_F(EngineTest, KeepsTheSubDevicesTables) {
    client::DmaBuf a, b;
    ASSERT_EQ(Host::instance().source->allocate(64, a) + Host::instance().source->allocate(64, b),
              0);
    Fd sub(VENGINE_SUBDEV_ENTITY), other(VENGINE_SUBDEV_ENTITY);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd()}, 0), -EINVAL);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd()}, 33), -EINVAL);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd(), 999}, 2), -EBADF);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd(), sub}, 2), -EINVAL);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_DEL_KVA, {a.fd()}, 1), -ENOENT) << "a failed call adds nothing";
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd(), b.fd(), a.fd()}, 3), 0);
    EXPECT_EQ(kva(other, KVXDIP_IOC_DEL_KVA, {a.fd()}, 1), -ENOENT) << "belongs to its file";
    EXPECT_EQ(kva(sub, KVXDIP_IOC_DEL_KVA, {a.fd(), b.fd(), b.fd()}, 3), -ENOENT);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_DEL_KVA, {a.fd(), a.fd(), b.fd()}, 3), 0);
    int result = 0;
    for (unsigned n = 0; n < VENGINE_MAX_KVA && result == 0; ++n)
        result = kva(sub, KVXDIP_IOC_ADD_KVA, {a.fd()}, 1);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_ADD_KVA, {b.fd()}, 1), -ENOSPC);

    EXPECT_EQ(iova(sub, KVXDIP_IOC_ACQUIRE_IOVA, a.fd(), 1, 2), -EINVAL);
    EXPECT_EQ(iova(sub, KVXDIP_IOC_ACQUIRE_IOVA, a.fd(), 2), -EINVAL);
    EXPECT_EQ(iova(sub, KVXDIP_IOC_ACQUIRE_IOVA, 999, 1), -EBADF);
    EXPECT_EQ(iova(sub, KVXDIP_IOC_ACQUIRE_IOVA, a.fd(), 1), 0);
    EXPECT_EQ(iova(sub, KVXDIP_IOC_RELEASE_IOVA, a.fd(), 0), -ENOENT);
    EXPECT_EQ(iova(sub, KVXDIP_IOC_RELEASE_IOVA, a.fd(), 1), 0);

    kvxdip_memory memory = {1, 0}, another = {0, 1};
    EXPECT_EQ(call(sub, KVXDIP_IOC_ALOC_BUF, &memory), 0);
    EXPECT_EQ(call(sub, KVXDIP_IOC_FREE_BUF, &another), -ENOENT);
    kvxdip_user_resource user = {1, 2};
    EXPECT_EQ(call(sub, KVXDIP_IOC_CLEAR_USER_RESOURCE, &user), 0);
    EXPECT_EQ(call(sub, KVXDIP_IOC_FREE_BUF, &memory), -ENOENT);
    EXPECT_EQ(kva(sub, KVXDIP_IOC_DEL_KVA, {a.fd()}, 1), -ENOENT);

    struct {
        int32_t id, value;
        int result;
    } const controls[] = {{1, -65, -ERANGE}, {1, 64, 0}, {2, 1000001, -ERANGE}, {3, 0, -EINVAL}};
    for (const auto& c : controls) {
        kvxdip_control control = {c.id, c.value};
        EXPECT_EQ(call(sub, KVXDIP_IOC_SET_CONTROL, &control), c.result) << c.id << ' ' << c.value;
        control.value = 0;
        EXPECT_EQ(call(sub, KVXDIP_IOC_GET_CONTROL, &control), c.id == 3 ? -EINVAL : 0);
        EXPECT_EQ(control.value, c.result == 0 ? c.value : 0);
    }
    kvxdip_control back = {1, 0};
    EXPECT_EQ(call(sub, KVXDIP_IOC_SET_CONTROL, &back), 0);
}

TEST_F(EngineTest, TellsCompletionByEventAndFence) {
    setUp({kMain}, 1);
    ASSERT_EQ(streamAll(true), 0);
    Fd sub(VENGINE_SUBDEV_ENTITY);
    v4l2_event_subscription subscription = {};
    EXPECT_EQ(call(sub, VIDIOC_SUBSCRIBE_EVENT, &subscription), -EINVAL);
    subscription.type = V4L2_EVENT_FRAME_SYNC;
    EXPECT_EQ(call(sub, VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);
    v4l2_event event = {};
    EXPECT_EQ(call(sub, VIDIOC_DQEVENT, &event), -ENOENT);

    int32_t fences[3] = {-1, -1, -1};
    kvxdip_fence record = {3, reinterpret_cast<uintptr_t>(fences)};
    ASSERT_EQ(call(sub, KVXDIP_IOC_ADD_FENCE, &record), 0);
    record.count = 1;
    EXPECT_EQ(call(sub, KVXDIP_IOC_DEL_FENCE, &record), 0);
    EXPECT_EQ(pollFor(fences[0], POLLIN, 0), POLLIN) << "given back, nobody would signal it";
    EXPECT_EQ(pollFor(fences[1], POLLIN, 0), 0);
    EXPECT_EQ(call(sub, KVXDIP_IOC_DEL_FENCE, &record), -EINVAL) << "already given back";

    Fd request = newRequest(media);
    uint32_t frame = 0;
    for (unsigned run = 0; run < VENGINE_EVENTS + 5; ++run) {
        ASSERT_EQ(queue(request, 0), 0);
        ASSERT_EQ(pollFor(request, POLLPRI), POLLPRI);
        EXPECT_EQ(pollFor(fences[2], POLLIN, 0), POLLIN);
        ASSERT_EQ(ports[0].dequeue(), 0);
        ASSERT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    }
    for (unsigned n = 0; n < VENGINE_EVENTS; ++n) {
        ASSERT_EQ(pollFor(sub, POLLPRI, 0), POLLPRI);
        ASSERT_EQ(call(sub, VIDIOC_DQEVENT, &event), 0);
        EXPECT_TRUE(n == 0 || event.u.frame_sync.frame_sequence == frame + 1);
        frame = event.u.frame_sync.frame_sequence;
        EXPECT_EQ(event.sequence, n + 5) << "the oldest were dropped";
        EXPECT_EQ(event.pending, VENGINE_EVENTS - 1 - n);
    }
    EXPECT_EQ(call(sub, VIDIOC_DQEVENT, &event), -ENOENT);
    for (int32_t fence : fences)
        close(fence);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
