// SPDX-License-Identifier: Apache-2.0
// How a call that the driver refuses ends, one of each kind, with the refusal made by the driver.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IV4L2SubDevice.h>
#include <gmock/gmock.h>

#include <cerrno>

#include "StreamingFixture.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::test {
namespace {

class Endings : public Streaming {
protected:
    void SetUp() override {
        Streaming::SetUp();
        if (!Platform::instance().fails())
            GTEST_SKIP() << "needs a device that fails on demand";
    }
    /** An error line must be @p line, and @p reported reports must have been made. */
    void expectEnding(const std::string& line, int reported) {
        EXPECT_THAT(errors(), testing::Contains(line));
        EXPECT_EQ(reports.exchange(0), reported) << line;
    }
    const Platform& platform = Platform::instance();
};

TEST_F(Endings, OfTheSetUp) {
    Rig rig(1);
    ASSERT_EQ(rig.init(), 0);
    rig.scene->acquire();
    const auto port = rig.scene->queryPort(0);
    platform.order("reqbufs -12");
    EXPECT_EQ(rig.scene->importBuffer(port, 4), -ENOMEM);
    expectEnding("[importBuffer] VIDIOC_REQBUFS count=4 ret=-12): ", 1);
    platform.order("reqbufs 1");
    EXPECT_EQ(rig.scene->importBuffer(port, 4), -ENOMEM);
    expectEnding("[importBuffer] Not enough buffer count: 4", 0);
    EXPECT_EQ(rig.scene->importBuffer(port, 33), -ENOMEM) << "a kernel has 32";
    EXPECT_EQ(rig.scene->importBuffer(port, 32), 0);
    errors();
    PixelFormat format{};
    ASSERT_EQ(rig.scene->getFormat(port, format), 0);
    EXPECT_EQ(rig.scene->setFormat(port, format), -EBUSY) << "buffers are allocated";
    expectEnding("[setFormat] Failed to set device format: -16", 1);
}

TEST_F(Endings, OfQueueAndDequeue) {
    for (const bool refuseQueue : {true, false}) {
        Rig rig(1);
        ASSERT_EQ(rig.start(2), 0);
        platform.order(refuseQueue ? "qbuf -12" : "dqbuf -5");
        rig.fill(0);
        EXPECT_EQ(rig.queue(0), refuseQueue ? -ENOMEM : 0);
        if (!refuseQueue) {
            ASSERT_TRUE(rig.waitDone(1));
        }
        expectEnding(refuseQueue ? "[queueBuffer] Failed to queue buffer vengine-main: -12"
                                 : "[dequeBuffer] Failed to dequeue buffer: -5",
                     0);
        EXPECT_EQ(rig.withDriver(), 1U) << "the index stays taken";
        rig.events.reset();
        EXPECT_EQ(rig.stop(), 0);
    }
}

TEST_F(Endings, OfLinks) {
    const auto media = platform.search();
    ASSERT_EQ(media->acquire(), 0);
    const PortLink& link = platform.ports()[0].links[0];
    const auto enable = [&](bool on) {
        return media->enableLink(on, link.source.c_str(), link.sourcePad, link.sink.c_str(),
                                 link.sinkPad);
    };
    EXPECT_TRUE(enable(true));
    EXPECT_EQ(platform.linkFlags(link), MEDIA_LNK_FL_ENABLED);
    {
        Rig rig(1);
        ASSERT_EQ(rig.start(2), 0);
        EXPECT_FALSE(enable(false)) << "the driver changes no link while it streams";
        expectEnding("[enableLink] MEDIA_IOC_SETUP_LINK fail err=-16", 1);
    }
    EXPECT_EQ(platform.linkFlags(link), 0U);
    EXPECT_EQ(media->release(), 0);
}

TEST_F(Endings, OfARequestAreFatal) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            Utils::setExceptionHandler({});
            Rig rig(1);
            rig.start(2);
            platform.order("request_reinit -16");
            rig.fill(0);
            rig.queue(0);
            rig.waitDone(1);
        },
        "\\[reinit\\] Failed to reinit media request: -16 \\(reinit");
}

TEST_F(Endings, OfTheSubDevice) {
    const DefaultMediaConfigs configs{platform.model(), VENGINE_SUBDEV_ENTITY};
    registerDefaultMediaConfigs(&configs);
    auto& provider = *IDefaultSubDeviceProvider::instance();

    platform.order("subscribe_event -12");
    auto refused = provider.acquire("refused");
    EXPECT_EQ(refused, nullptr);
    expectEnding("[subscribe] Failed to VIDIOC_SUBSCRIBE_EVENT: -12", 1);
    provider.release("refused", refused);
    reports = 0;
    errors();

    auto device = provider.acquire("user");
    ASSERT_NE(device, nullptr);
    platform.order("aloc_buf -12");
    EXPECT_EQ(device->requestMemory({true, 1, 0}), -ENOMEM);
    expectEnding("[requestMemory] Failed on ( is_smvr=1 is_capture=0) fd=" +
                     std::to_string(device->getDeviceFd()) + " err=-12(Cannot allocate memory)",
                 1);
    platform.order("set_control -13");
    EXPECT_EQ(device->setControl(1, 0), -EACCES);
    expectEnding("[setControl] Failed to KVXDIP_IOC_SET_CONTROL: -13", 0);
    EXPECT_EQ(device->setControl(1, 0), 0) << "it is refused once";
    provider.release("user", device);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
