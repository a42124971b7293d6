// SPDX-License-Identifier: Apache-2.0
// The sub-device's node: tables, fences, events, controls.
#include <sys/resource.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <future>

#include "Bench.h"

namespace NSVista::NSCorvane::test {

namespace {

using namespace std::chrono_literals;

constexpr int kClosed = 1000000;

class SubDeviceNodeTest : public EngineTest {
protected:
    SubDeviceNodeTest() {
        EXPECT_EQ(bench.source().allocate(64, one) + bench.source().allocate(64, two), 0);
    }

    static int kva(int fd, unsigned long code, const std::vector<int>& fds, size_t count) {
        kvxdip_kva record = {};
        record.count = static_cast<uint8_t>(count);
        memcpy(reinterpret_cast<char*>(&record) + 1, fds.data(), fds.size() * sizeof(int));
        return call(fd, code, &record);
    }
    int add(const std::vector<int>& fds) { return kva(sub, KVXDIP_IOC_ADD_KVA, fds, fds.size()); }
    int del(const std::vector<int>& fds) { return kva(sub, KVXDIP_IOC_DEL_KVA, fds, fds.size()); }
    int iova(unsigned long code, int buffer, uint8_t coherence, uint32_t count = 1) {
        kvxdip_iova record = {};
        record.fd = buffer;
        record.coherence = coherence;
        record.count = count;
        return call(sub, code, &record);
    }
    int map(int buffer, uint8_t coherence, uint32_t count = 1) {
        return iova(KVXDIP_IOC_ACQUIRE_IOVA, buffer, coherence, count);
    }
    int unmap(int buffer, uint8_t coherence) {
        return iova(KVXDIP_IOC_RELEASE_IOVA, buffer, coherence);
    }
    int memory(unsigned long code, uint8_t smvr, uint8_t capture) {
        kvxdip_memory record = {smvr, capture};
        return call(sub, code, &record);
    }
    int fences(unsigned long code, int32_t* array, unsigned count) {
        kvxdip_fence record = {static_cast<uint8_t>(count), reinterpret_cast<uintptr_t>(array)};
        return call(sub, code, &record);
    }
    static bool readable(int fence) { return pollFor(fence, POLLIN, 0) == POLLIN; }

    client::DmaBuf one, two;
    Fd sub{VENGINE_SUBDEV_ENTITY};
};

TEST_F(SubDeviceNodeTest, KeepsWhatItIsGivenAndNothingOfARefusedCall) {
    const Fd other(VENGINE_SUBDEV_ENTITY);
    const int a = one.fd(), b = two.fd();
    bench.takeRecord();
    const std::pair<int, int> answers[] = {
        {kva(sub, KVXDIP_IOC_ADD_KVA, {a}, 0), -EINVAL},
        {kva(sub, KVXDIP_IOC_ADD_KVA, std::vector<int>(33, a), 33), -EINVAL},
        {kva(sub, KVXDIP_IOC_ADD_KVA, std::vector<int>(32, a), 32), 0},
        {del(std::vector<int>(32, a)), 0},
        {add({a, kClosed}), -EBADF},
        {add({a, sub}), -EINVAL},
        {del({a}), -ENOENT},
        {add({a, b, a}), 0},
        {kva(other, KVXDIP_IOC_DEL_KVA, {a}, 1), -ENOENT},  // belongs to its file
        {del({a, b, b}), -ENOENT},
        {del({a, kClosed}), -EBADF},
        {del({a, a}), 0},
        {map(a, 1, 2), -EINVAL},
        {map(a, 1, 0), -EINVAL},
        {map(a, 2), -EINVAL},
        {map(kClosed, 1), -EBADF},
        {map(a, 1), 0},
        {unmap(a, 0), -ENOENT},
        {unmap(b, 1), -ENOENT},
        {memory(KVXDIP_IOC_ALOC_BUF, 1, 0), 0},
        {memory(KVXDIP_IOC_FREE_BUF, 0, 1), -ENOENT},
    };
    for (size_t i = 0; i < std::size(answers); ++i)
        EXPECT_EQ(answers[i].first, answers[i].second) << "call " << i;
    EXPECT_EQ(bench.held(), "dmabufs 2\niova 1\nkva 1\nmemory 1\n");
    const std::string record = bench.takeRecord();
    EXPECT_EQ(std::count(record.begin(), record.end(), '\n'), std::ssize(answers));
    EXPECT_TRUE(record.ends_with("aloc_buf 0100\nfree_buf 0001\n")) << record;
    EXPECT_EQ(unmap(a, 1), 0);
    EXPECT_EQ(memory(KVXDIP_IOC_FREE_BUF, 1, 0), 0);
    EXPECT_EQ(del({b}), 0);
    EXPECT_EQ(bench.held(), "");
}

TEST_F(SubDeviceNodeTest, ClearingTakesBackWhatOneUserHolds) {
    int32_t fds[3] = {-1, -1, -1};
    auto use = [&](uint64_t user) { return call(sub, KVXDIP_IOC_S_INIT_INFO, &user); };
    auto clear = [&](uint64_t user) {
        kvxdip_user_resource record = {user, 77};
        return call(sub, KVXDIP_IOC_CLEAR_USER_RESOURCE, &record);
    };
    const uint64_t users[3] = {0, 5, uint64_t{5} << 32};
    for (unsigned n = 0; n < 3; ++n) {
        ASSERT_EQ(n == 0 ? 0 : use(users[n]), 0) << "at first nobody is named";
        ASSERT_EQ(add({one.fd()}) + map(one.fd(), 0) + memory(KVXDIP_IOC_ALOC_BUF, 0, 1) +
                      fences(KVXDIP_IOC_ADD_FENCE, &fds[n], 1),
                  0);
    }
    const Fd other(VENGINE_SUBDEV_ENTITY);
    kvxdip_user_resource record = {5, 0};
    EXPECT_EQ(call(other, KVXDIP_IOC_CLEAR_USER_RESOURCE, &record), 0) << "another file's";
    EXPECT_EQ(clear(6), 0);
    EXPECT_EQ(bench.held(), "dmabufs 6\nfences 3\niova 3\nkva 3\nmemory 3\n");
    EXPECT_EQ(clear(5), 0);
    EXPECT_TRUE(readable(fds[1]));
    EXPECT_FALSE(readable(fds[0]) || readable(fds[2]));
    close(fds[1]);
    EXPECT_EQ(bench.held(), "dmabufs 4\nfences 2\niova 2\nkva 2\nmemory 2\n");
    EXPECT_EQ(del({one.fd()}), 0) << "whoever it was got for";
    EXPECT_EQ(clear(users[2]) + clear(0), 0);
    close(fds[0]);
    close(fds[2]);
    EXPECT_EQ(bench.held(), "");
}

TEST_F(SubDeviceNodeTest, TablesHaveLimits) {
    const rlimit descriptors = {4096, 4096};
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &descriptors), 0);
    int results = 0;
    for (unsigned n = 0; n < VENGINE_MAX_KVA; ++n)
        results |= add({one.fd()});
    for (unsigned n = 0; n < VENGINE_MAX_IOVA; ++n)
        results |= map(one.fd(), 0);
    for (unsigned n = 0; n < VENGINE_MAX_MEMORY; ++n)
        results |= memory(KVXDIP_IOC_ALOC_BUF, 0, 0);
    std::vector<int32_t> fds(VENGINE_MAX_FENCES, -1);
    for (unsigned n = 0; n < VENGINE_MAX_FENCES; n += 128)
        results |= fences(KVXDIP_IOC_ADD_FENCE, &fds[n], 128);
    EXPECT_EQ(results, 0);
    int32_t more = -1;
    EXPECT_EQ(add({two.fd()}), -ENOSPC);
    EXPECT_EQ(map(two.fd(), 0), -ENOSPC);
    EXPECT_EQ(memory(KVXDIP_IOC_ALOC_BUF, 0, 1), -ENOMEM);
    EXPECT_EQ(fences(KVXDIP_IOC_ADD_FENCE, &more, 1), -ENOSPC);
    EXPECT_EQ(more, -1);
    sub = Fd();
    if (bench.inProcess()) {
        EXPECT_EQ(
            bench.device().subDeviceCounts().leftAtClose,
            size_t{VENGINE_MAX_KVA + VENGINE_MAX_IOVA + VENGINE_MAX_MEMORY + VENGINE_MAX_FENCES});
    }
    for (int32_t fd : fds) {
        EXPECT_TRUE(readable(fd)) << "the close gave it back";
        close(fd);
    }
}

TEST_F(SubDeviceNodeTest, ControlsHaveRanges) {
    // clang-format off
    const struct {
        int32_t id, value, result, kept;
    } steps[] = {{1, 0, 0, 0}, {1, -65, -ERANGE, 0}, {1, -64, 0, -64}, {1, 65, -ERANGE, -64},
                 {1, 64, 0, 64}, {1, 0, 0, 0}, {2, 1000000, 0, 1000000}, {2, -1, -ERANGE, 1000000},
                 {3, 0, -EINVAL, 77}, {0, 0, -EINVAL, 77}};
    // clang-format on
    for (const auto& step : steps) {
        kvxdip_control control = {step.id, step.value};
        EXPECT_EQ(call(sub, KVXDIP_IOC_SET_CONTROL, &control), step.result) << step.value;
        control.value = 77;
        EXPECT_EQ(call(sub, KVXDIP_IOC_GET_CONTROL, &control), step.kept == 77 ? -EINVAL : 0);
        EXPECT_EQ(control.value, step.kept);
    }
}

TEST_F(SubDeviceNodeTest, FencesBecomeReadableWithTheNextRequest) {
    Port& port = start(kMain);
    int32_t fds[4] = {-1, -1, -1, -1};
    ASSERT_EQ(fences(KVXDIP_IOC_ADD_FENCE, fds, 2), 0);
    EXPECT_EQ(fds[2], -1);
    EXPECT_FALSE(readable(fds[0]) || readable(fds[1]));
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, fds, 1), 0);
    EXPECT_TRUE(readable(fds[0])) << "given back, nobody would signal it";
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, fds, 1), -EINVAL) << "already given back";
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, fds, 2), -EINVAL);
    int32_t twice[2] = {fds[1], fds[1]};
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, twice, 2), -EINVAL);
    EXPECT_FALSE(readable(fds[1])) << "of a refused call nothing is given back";
    EXPECT_EQ(cycle(port), 0);
    EXPECT_TRUE(readable(fds[1]));
    ASSERT_EQ(fences(KVXDIP_IOC_ADD_FENCE, fds + 2, 2), 0);
    EXPECT_FALSE(readable(fds[2])) << "is for the one after";
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, fds + 1, 3), 0);
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, fds, 0), 0);
    EXPECT_EQ(fences(KVXDIP_IOC_ADD_FENCE, nullptr, 1), -EFAULT);
    EXPECT_EQ(fences(KVXDIP_IOC_DEL_FENCE, nullptr, 1), -EFAULT);
    for (int32_t fd : fds)
        close(fd);
}

TEST_F(SubDeviceNodeTest, WakesWhoWaitsForAnEvent) {
    Port& port = start(kMain);
    const Fd blocking(VENGINE_SUBDEV_ENTITY, O_RDWR);
    EXPECT_EQ(subscribe(blocking), 0);
    auto waiter = std::async(std::launch::async, [&blocking] {
        v4l2_event event = {};
        return call(blocking, VIDIOC_DQEVENT, &event);
    });
    EXPECT_EQ(waiter.wait_for(50ms), std::future_status::timeout);
    ASSERT_EQ(cycle(port), 0);
    EXPECT_EQ(waiter.get(), 0);
}

TEST_F(SubDeviceNodeTest, KeepsTheNewestFrameEventsOfASubscription) {
    constexpr unsigned kMore = 5;
    Port& port = start(kMain);
    const Fd unsubscribed(VENGINE_SUBDEV_ENTITY);
    v4l2_event event = {};
    EXPECT_EQ(subscribe(sub, VIDIOC_SUBSCRIBE_EVENT, 0), -EINVAL);
    EXPECT_EQ(subscribe(sub), 0);
    EXPECT_NE(bench.held().find("events 1\n"), std::string::npos);
    EXPECT_EQ(call(sub, VIDIOC_DQEVENT, &event), -ENOENT);
    for (unsigned run = 0; run < VENGINE_EVENTS + kMore; ++run)
        ASSERT_EQ(cycle(port), 0);
    uint32_t frame = 0;
    for (unsigned n = 0; n < VENGINE_EVENTS; ++n) {
        ASSERT_EQ(pollFor(sub, POLLPRI, 0), POLLPRI);
        ASSERT_EQ(call(sub, VIDIOC_DQEVENT, &event), 0);
        EXPECT_EQ(event.type, static_cast<uint32_t>(V4L2_EVENT_FRAME_SYNC));
        EXPECT_TRUE(n == 0 || event.u.frame_sync.frame_sequence == frame + 1);
        frame = event.u.frame_sync.frame_sequence;
        EXPECT_EQ(event.sequence, n + kMore) << "the oldest were dropped";
        EXPECT_EQ(event.pending, VENGINE_EVENTS - 1 - n);
        EXPECT_NE(event.timestamp.tv_sec + event.timestamp.tv_nsec, 0);
    }
    EXPECT_EQ(pollFor(sub, POLLPRI, 0), 0);
    EXPECT_EQ(call(sub, VIDIOC_DQEVENT, &event), -ENOENT);
    EXPECT_EQ(call(unsubscribed, VIDIOC_DQEVENT, &event), -ENOENT);
    if (bench.inProcess()) {
        EXPECT_EQ(bench.device().subDeviceCounts().eventsDropped, kMore);
        EXPECT_EQ(frame + 1, bench.device().nextFrame());
    }

    ASSERT_EQ(cycle(port), 0);
    EXPECT_EQ(pollFor(sub, POLLPRI, 0), POLLPRI);
    EXPECT_EQ(subscribe(sub, VIDIOC_UNSUBSCRIBE_EVENT, V4L2_EVENT_CTRL), 0) << "not subscribed";
    EXPECT_EQ(pollFor(sub, POLLPRI, 0), POLLPRI);
    EXPECT_EQ(subscribe(sub, VIDIOC_UNSUBSCRIBE_EVENT), 0);
    EXPECT_EQ(pollFor(sub, POLLPRI, 0), 0) << "takes the events along";
    ASSERT_EQ(cycle(port), 0);
    EXPECT_EQ(call(sub, VIDIOC_DQEVENT, &event), -ENOENT);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
