// How each call that the driver refuses ends, with the refusal made by the driver itself.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IV4L2SubDevice.h>

#include <cerrno>
#include <functional>
#include <unordered_set>

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
    /** The first error line must be @p line, and @p reported reports must have been made. */
    void expectEnding(const std::string& line, int reported) {
        const auto lines = errors();
        ASSERT_FALSE(lines.empty()) << line;
        EXPECT_EQ(lines.front(), line);
        EXPECT_EQ(reports.exchange(0), reported) << line;
    }
    const Platform& platform = Platform::instance();
};

TEST_F(Endings, OfFormatsAndImports) {
    Rig rig(1);
    ASSERT_EQ(rig.init(), 0);
    rig.scene->acquire();
    const auto port = rig.scene->queryPort(0);
    PixelFormat format{};

    platform.fail("g_fmt", EIO);
    EXPECT_EQ(rig.scene->getFormat(port, format), -EIO);
    expectEnding("[getFormat] Failed to get device format: -5", 1);
    ASSERT_EQ(rig.scene->getFormat(port, format), 0);
    platform.fail("s_fmt", EINVAL);
    EXPECT_EQ(rig.scene->setFormat(port, format), -EINVAL);
    expectEnding("[setFormat] Failed to set device format: -22", 1);
    platform.fail("reqbufs", ENOMEM);
    EXPECT_EQ(rig.scene->importBuffer(port, 4), -ENOMEM);
    expectEnding("[importBuffer] VIDIOC_REQBUFS count=4 ret=-12): ", 1);
    platform.grantOneBuffer();
    EXPECT_EQ(rig.scene->importBuffer(port, 4), -ENOMEM);
    expectEnding("[importBuffer] Not enough buffer count: 4", 0);
    platform.behave();
    EXPECT_EQ(rig.scene->importBuffer(port, 4), 0);
    EXPECT_EQ(rig.scene->setFormat(port, format), -EBUSY) << "buffers are allocated";
    expectEnding("[setFormat] Failed to set device format: -16", 1);
}

TEST_F(Endings, OfStreamOnAndOff) {
    Rig rig(1);
    platform.fail("streamon", EPIPE);
    ASSERT_EQ(rig.start(2), 0) << "the scene counts as started all the same";
    expectEnding("[streamOn] VIDIOC_STREAMON fail err=-32 <vengine-main>", 1);
    platform.fail("streamoff", EIO);
    EXPECT_EQ(rig.stop(), 0);
    expectEnding("[streamOff] VIDIOC_STREAMOFF fail err=-5 <vengine-main>", 1);
}

TEST_F(Endings, OfQueueAndDequeue) {
    {
        Rig rig(1);
        ASSERT_EQ(rig.start(2), 0);
        platform.fail("qbuf", ENOMEM);
        rig.fill(0);
        EXPECT_EQ(rig.queue(0), -ENOMEM);
        expectEnding("[queueBuffer] Failed to queue buffer vengine-main: -12", 0);
        EXPECT_EQ(rig.withDriver(), 1U) << "the index stays taken";
        rig.events.reset();
        EXPECT_EQ(rig.stop(), 0);
    }
    Rig rig(1);
    ASSERT_EQ(rig.start(2), 0);
    platform.fail("dqbuf", EIO);
    rig.fill(0);
    ASSERT_EQ(rig.queue(0), 0);
    ASSERT_TRUE(rig.waitDone(1));
    expectEnding("[dequeBuffer] Failed to dequeue buffer: -5", 0);
    EXPECT_EQ(rig.withDriver(), 1U);
    EXPECT_EQ(rig.stop(), 0);
}

TEST_F(Endings, OfLinks) {
    const auto media = platform.search();
    ASSERT_EQ(media->acquire(), 0);
    const PortLink& link = platform.ports()[0].links[0];
    const auto enable = [&](bool on) {
        return media->enableLink(on, link.source.c_str(), link.sourcePad, link.sink.c_str(),
                                 link.sinkPad);
    };
    platform.fail("setup_link", EBUSY);
    EXPECT_FALSE(enable(true));
    expectEnding("[enableLink] MEDIA_IOC_SETUP_LINK fail err=-16", 1);
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

/** A refused call that ends the process. */
struct FatalCase {
    const char* operation;
    int error;
    const char* line;
};

class FatalEndings : public Endings, public testing::WithParamInterface<FatalCase> {};

TEST_P(FatalEndings, AbortWithTheirLocation) {
    testing::GTEST_FLAG(death_test_style) = "threadsafe";
    EXPECT_DEATH(
        {
            Utils::setExceptionHandler({});
            Rig rig(1);
            rig.start(2);
            platform.fail(GetParam().operation, GetParam().error);
            // For a refused allocation, another request; the rest fails on the way of this one.
            const auto extra = rig.scene->createRequest();
            rig.fill(0);
            rig.queue(0);
            rig.waitDone(1);
        },
        GetParam().line);
}

INSTANTIATE_TEST_SUITE_P(
    Requests, FatalEndings,
    testing::Values(FatalCase{"request_alloc", ENOMEM,
                              "\\[MediaRequest\\] Bad request fd < 0 \\(MediaRequest"},
                    FatalCase{"request_queue", ENOENT,
                              "\\[queueRequest\\] Failed to queue media request \\(queueRequest"},
                    FatalCase{"request_reinit", EBUSY,
                              "\\[reinit\\] Failed to reinit media request: -16 \\(reinit"}),
    [](const auto& test) { return std::string(test.param.operation); });

/** A private ioctl, and how its refusal ends. */
struct SubDeviceCase {
    const char* operation;
    int error;
    std::function<int(IV4L2SubDevice&)> call;
    std::string line;
    int reports;
};

TEST_F(Endings, OfTheSubDevice) {
    const DefaultMediaConfigs configs{platform.model(), VENGINE_SUBDEV_ENTITY};
    registerDefaultMediaConfigs(&configs);
    auto& provider = *IDefaultSubDeviceProvider::instance();

    platform.fail("subscribe_event", ENOMEM);
    auto refused = provider.acquire("refused");
    EXPECT_EQ(refused, nullptr);
    expectEnding("[subscribe] Failed to VIDIOC_SUBSCRIBE_EVENT: -12", 1);
    provider.release("refused", refused);
    reports = 0;
    errors();

    auto device = provider.acquire("user");
    ASSERT_NE(device, nullptr);
    std::vector<int> fences(1);
    client::DmaBuf buffer;
    ASSERT_EQ(platform.source().allocate(4096, buffer), 0);
    const std::unordered_set<int> fds{buffer.fd()};
    uint64_t info = 1;
    const std::string fd = std::to_string(device->getDeviceFd());
    const std::string dmabuf = std::to_string(buffer.fd());
    const SubDeviceCase cases[] = {
        {"s_init_info", EPERM,
         [&](IV4L2SubDevice& d) { return d.setInitInfo(reinterpret_cast<init_info*>(&info)); },
         "[setInitInfo] Failed to KVXDIP_IOC_S_INIT_INFO: -1", 1},
        {"set_control", EACCES, [](IV4L2SubDevice& d) { return d.setControl(1, 0); },
         "[setControl] Failed to KVXDIP_IOC_SET_CONTROL: -13", 0},
        {"get_control", EACCES, [](IV4L2SubDevice& d) { return d.getControl(1, nullptr); },
         "[getControl] Failed to KVXDIP_IOC_GET_CONTROL: -13", 0},
        {"aloc_buf", ENOMEM,
         [](IV4L2SubDevice& d) {
             return d.requestMemory({true, 1, 0});
         },
         "[requestMemory] Failed on ( is_smvr=1 is_capture=0) fd=" + fd +
             " err=-12(Cannot allocate memory)",
         1},
        {"free_buf", EIO,
         [](IV4L2SubDevice& d) {
             return d.requestMemory({false, 1, 0});
         },
         "[requestMemory] Failed on ( is_smvr=1 is_capture=0) fd=" + fd +
             " err=-5(Input/output error)",
         1},
        {"add_kva", ENOSPC, [&](IV4L2SubDevice& d) { return d.mapKVA(fds); },
         "[mapKVA] Failed to KVXDIP_IOC_ADD_KVA: -28", 1},
        {"del_kva", EIO, [&](IV4L2SubDevice& d) { return d.unmapKVA(fds); },
         "[unmapKVA] Failed to KVXDIP_IOC_DEL_KVA: -5", 1},
        {"acquire_iova", ENOSPC, [&](IV4L2SubDevice& d) { return d.mapIOVA(buffer.fd(), true); },
         "[mapIOVA] KVXDIP_IOC_ACQUIRE_IOVA:-28 err:28(No space left on device) fd:" + dmabuf +
             " coherence:1",
         1},
        {"release_iova", EIO, [&](IV4L2SubDevice& d) { return d.unmapIOVA(buffer.fd(), true); },
         "[unmapIOVA] KVXDIP_IOC_RELEASE_IOVA:-5 err:5(Input/output error) fd:" + dmabuf +
             " coherence:1",
         0},
        {"add_fence", EMFILE, [&](IV4L2SubDevice& d) { return d.acquireFenceFd(fences); },
         "[acquireFenceFd] Failed to KVXDIP_IOC_ADD_FENCE: -24", 1},
        {"del_fence", EIO, [&](IV4L2SubDevice& d) { return d.releaseFenceFd(fences); },
         "[releaseFenceFd] Failed to KVXDIP_IOC_DEL_FENCE: -5", 1},
        {"clear_user_resource", EIO, [](IV4L2SubDevice& d) { return d.releaseUserResource(1, 2); },
         "[releaseUserResource] KVXDIP_IOC_CLEAR_USER_RESOURCE failed: fd=" + fd +
             " err=-5(Input/output error)",
         0},
    };
    for (const auto& c : cases) {
        platform.fail(c.operation, c.error);
        EXPECT_EQ(c.call(*device), -c.error) << c.operation;
        expectEnding(c.line, c.reports);
        EXPECT_EQ(c.call(*device), 0) << c.operation << " is refused once";
    }
    close(fences[0]);

    platform.fail("unsubscribe_event", EIO);
    provider.release("user", device);
    expectEnding("[unsubscribe] Failed to VIDIOC_UNSUBSCRIBE_EVENT: -5", 1);
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
