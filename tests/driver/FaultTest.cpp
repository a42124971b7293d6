/**
 * @file
 * The driver's own test side, in debugfs: faults, hangs and records. Needs a kernel with the
 * driver.
 */
#include <corvane/kvxdip.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <fstream>
#include <functional>
#include <iterator>
#include <thread>

#include "Ports.h"

namespace NSVista::NSCorvane::test {

namespace {

std::string readTest(const std::string& name) {
    std::ifstream file("/sys/kernel/debug/vengine/" + name);
    return {std::istreambuf_iterator<char>(file), {}};
}

bool writeTest(const std::string& name, const std::string& text) {
    std::ofstream file("/sys/kernel/debug/vengine/" + name);
    return bool(file << text << std::flush);
}

class FaultTest : public testing::Test {
protected:
    void SetUp() override {
        if (Host::instance().sim)
            GTEST_SKIP() << "needs the driver";
        setLink(media, 0, true);
        ASSERT_EQ(port.prepare(), 2);
        ASSERT_EQ(port.stream(true), 0);
        ASSERT_TRUE(writeTest("record", "clear"));
    }
    void TearDown() override {
        if (Host::instance().sim)
            return;
        port.node = Fd();
        setLink(media, 0, false);
        EXPECT_EQ(readTest("fault"), "");
    }
    /** One whole cycle of a request. @return the first failure. */
    int cycle() {
        int result = port.queue(0, request);
        result = result < 0 ? result : call(request, MEDIA_REQUEST_IOC_QUEUE);
        if (result == 0 && pollFor(request, POLLPRI) != POLLPRI)
            result = -ETIMEDOUT;
        result = result < 0 ? result : port.dequeue();
        return result < 0 ? result : call(request, MEDIA_REQUEST_IOC_REINIT);
    }

    Fd media{Host::instance().sim ? Fd() : Fd("")};
    Fd request{newRequest(media)};
    Port port{0, 64, 16, 2};
    Fd sub{Host::instance().sim ? Fd() : Fd(VENGINE_SUBDEV_ENTITY)};
    uint8_t bytes[400] = {};
    v4l2_event_subscription subscription = {V4L2_EVENT_FRAME_SYNC, 0, 0, {}};
};

TEST_F(FaultTest, StrikesTheCallItIsSetFor) {
    ASSERT_TRUE(writeTest("fault", "reqbufs -12 2 vengine-main"));
    ASSERT_TRUE(writeTest("fault", "reqbufs 1 2"));
    ASSERT_TRUE(writeTest("fault", "s_fmt -16"));
    port.node = Fd();
    EXPECT_EQ(port.prepare(), -EBUSY);
    EXPECT_EQ(port.prepare(), 2);
    EXPECT_EQ(port.requestBuffers(2), -ENOMEM);
    EXPECT_EQ(port.requestBuffers(2), 1) << "granted short, at the next call that is not refused";
    for (const char* wrong : {"", "qbuf", "qbuf 1", "qbuf -5 0", "nothing -5", "buffer hang"})
        EXPECT_FALSE(writeTest("fault", std::string(wrong) + "\n")) << wrong;
}

TEST_F(FaultTest, HungCallsGoOnWhenReleased) {
    ASSERT_TRUE(writeTest("fault", "aloc_buf hang"));
    ASSERT_TRUE(writeTest("fault", "streamon hang"));
    int results[2] = {1, 1};
    std::thread memory([&] { results[0] = call(sub, KVXDIP_IOC_ALOC_BUF, bytes); });
    port.stream(false);
    std::thread start([&] { results[1] = port.stream(true); });
    while (readTest("fault") != "aloc_buf hangs \nstreamon hangs \n" &&
           readTest("fault") != "streamon hangs \naloc_buf hangs \n")
        usleep(1000);
    usleep(50000);
    EXPECT_EQ(results[0] + results[1], 2) << "still hanging";
    kvxdip_control control = {1, 3};
    EXPECT_EQ(call(sub, KVXDIP_IOC_SET_CONTROL, &control), 0) << "others are served";
    ASSERT_TRUE(writeTest("fault", "clear"));
    memory.join();
    start.join();
    EXPECT_EQ(results[0] + results[1], 0);
    EXPECT_EQ(readTest("record"), "aloc_buf 0000\nset_control 0100000003000000\n");
}

TEST_F(FaultTest, OrdersCompletionsInGroups) {
    std::ofstream("/sys/module/vengine/parameters/order") << 2 << std::flush;
    Fd second = newRequest(media);
    ASSERT_EQ(port.queue(0, request) + call(request, MEDIA_REQUEST_IOC_QUEUE), 0);
    EXPECT_EQ(pollFor(request, POLLPRI, 20), 0) << "the group is not complete";
    EXPECT_NE(readTest("offsets").find("vengine-main 0 128 64"), std::string::npos);
    ASSERT_EQ(port.queue(1, second) + call(second, MEDIA_REQUEST_IOC_QUEUE), 0);
    ASSERT_EQ(pollFor(request, POLLPRI), POLLPRI);
    EXPECT_EQ(port.dequeue(), 1);
    EXPECT_EQ(port.dequeue(), 0);
    ASSERT_EQ(call(request, MEDIA_REQUEST_IOC_REINIT), 0);
    EXPECT_EQ(cycle(), 0) << "a group that stays short goes in the end";
    std::ofstream("/sys/module/vengine/parameters/order") << 1 << std::flush;
}

TEST_F(FaultTest, CountsWhatItHolds) {
    client::DmaBuf buffer;
    int32_t fence = -1;
    ASSERT_EQ(Host::instance().source->allocate(64, buffer), 0);
    kvxdip_kva kva = {};
    kva.count = 1;
    kva.fd[0] = buffer.fd();
    kvxdip_fence fences = {1, reinterpret_cast<uintptr_t>(&fence)};
    EXPECT_EQ(call(sub, KVXDIP_IOC_ADD_KVA, &kva), 0);
    EXPECT_EQ(call(sub, KVXDIP_IOC_ADD_FENCE, &fences), 0);
    EXPECT_EQ(call(sub, KVXDIP_IOC_ALOC_BUF, bytes), 0);
    EXPECT_EQ(call(sub, VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);
    EXPECT_EQ(cycle(), 0);
    EXPECT_EQ(readTest("counts"),
              "requests 1\nbuffers 0\nevents 1\nkva 1\niova 0\nfences 1\n"
              "memory 1\nfiles 1\ndmabufs 3\n");
    close(fence);
}

}  // namespace

}  // namespace NSVista::NSCorvane::test
