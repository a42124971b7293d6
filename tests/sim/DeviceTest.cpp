#include <corvane/kvxdip.h>

#include <sys/stat.h>

#include <cstring>
#include <future>

#include "Client.h"

namespace NSVista::NSCorvane::sim {

using DeviceTest = Client;

TEST_F(DeviceTest, ShowsItsNodesInDirectoriesAndSysfs) {
    DeviceDesc odd;
    odd.setNames("odd", std::string(40, 'm'));
    odd.mediaNode = "media";
    EntityDesc& capture = odd.addVideoNode("capture", {V4L2_BUF_TYPE_VIDEO_CAPTURE, 1, 0});
    capture.video->deviceCaps = 0;
    Device* second = mEngine.addDevice(odd);
    ASSERT_NE(second, nullptr);
    EXPECT_EQ(mEngine.addDevice(odd), nullptr) << "the media node's name is taken";
    odd.mediaNode.clear();
    odd.links.push_back({"capture", 1, "capture", 0, 0});
    EXPECT_EQ(mEngine.addDevice(odd), nullptr) << "no such pad";

    for (DirectoryOrder order : {DirectoryOrder::NEWEST_FIRST, DirectoryOrder::OLDEST_FIRST}) {
        mEngine.setDirectoryOrder(order);
        std::vector<std::string> media;
        DIR* dir = System::OpenDir("/dev");
        while (dirent* entry = System::ReadDir(dir)) {
            if (strncmp(entry->d_name, "media", 5) == 0)
                media.push_back(entry->d_name);
        }
        System::CloseDir(dir);
        if (order == DirectoryOrder::NEWEST_FIRST)
            EXPECT_EQ(media, (std::vector<std::string>{"media", "media0"}));
        else
            EXPECT_EQ(media, (std::vector<std::string>{"media0", "media"}));
    }

    media_entity_desc entity = {};
    entity.id = entityId("vengine-flip");
    ASSERT_EQ(call(mMedia, MEDIA_IOC_ENUM_ENTITIES, &entity), 0);
    std::string sysfs = "/sys/dev/char/" + std::to_string(entity.dev.major) + ":" +
                        std::to_string(entity.dev.minor);
    char target[256] = {};
    ASSERT_GT(System::ReadLink(sysfs.c_str(), target, sizeof(target)), 0);
    std::string path = "/dev/" + std::string(strrchr(target, '/') + 1);
    EXPECT_EQ(path, device().nodePath("vengine-flip"));
    struct stat info;
    EXPECT_EQ(System::Stat(path.c_str(), &info), 0);
    EXPECT_TRUE(S_ISCHR(info.st_mode));
    EXPECT_EQ(System::ReadLink(sysfs.c_str(), target, 5), 5);
    for (const char* missing : {"/dev/media7", "/dev/video99", "/dev/v4l-subdev9"}) {
        EXPECT_EQ(System::Open(missing, O_RDWR, 0), -ENOENT);
        EXPECT_EQ(System::Stat(missing, &info), -ENOENT);
    }
    EXPECT_EQ(System::Stat("/dev/null", &info), 0) << "what is not the engine's goes on";
    EXPECT_EQ(System::Close(-1, 0), -EBADF);
}

TEST_F(DeviceTest, SetsUpLinksAsTheKernelDoes) {
    const std::string main = "vengine-main", tuning = "vengine-tuning";
    constexpr uint32_t kFixed = MEDIA_LNK_FL_ENABLED | MEDIA_LNK_FL_IMMUTABLE;
    EXPECT_EQ(setLink(main, MEDIA_LNK_FL_ENABLED), 0);
    EXPECT_EQ(device().linkFlags(VENGINE_CORE_ENTITY, 0, "vengine-main", 0), MEDIA_LNK_FL_ENABLED);
    EXPECT_EQ(setLink(main, kFixed), -EINVAL);
    EXPECT_EQ(setLink(tuning, kFixed), 0) << "no change of an immutable link";
    EXPECT_EQ(setLink(tuning, MEDIA_LNK_FL_IMMUTABLE), -EINVAL);
    media_link_desc none = {};
    EXPECT_EQ(call(mMedia, MEDIA_IOC_SETUP_LINK, &none), -EINVAL);
    media_entity_desc entity = {};
    entity.id = entityId("vengine-core");
    ASSERT_EQ(call(mMedia, MEDIA_IOC_ENUM_ENTITIES, &entity), 0);
    EXPECT_EQ(entity.pads, VENGINE_PORTS + 1);
    std::vector<media_link_desc> links(entity.links);
    std::vector<media_pad_desc> pads(entity.pads);
    media_links_enum all = {};
    all.entity = entity.id;
    all.links = links.data();
    all.pads = pads.data();
    ASSERT_EQ(call(mMedia, MEDIA_IOC_ENUM_LINKS, &all), 0);
    EXPECT_EQ(links.size(), 6u) << "only those that begin here: the captures'";
    EXPECT_EQ(links[1].source.index, 2);
    EXPECT_EQ(links[1].sink.entity, entityId("vengine-mirror"));
    EXPECT_EQ(pads[1].flags, MEDIA_PAD_FL_SINK);
}

TEST_F(DeviceTest, FailsTheCallsItIsToldTo) {
    Faults& faults = mEngine.faults();
    const Node &main = node("vengine-main"), &grey = node("vengine-grey");
    uint64_t before = faults.calls(Call::ioctl(VIDIOC_REQBUFS));
    faults.fail(Call::ioctl(VIDIOC_REQBUFS, "vengine-main"), ENOMEM, 2);
    std::vector<int> results;
    for (const Node* node : {&main, &grey, &main, &main})
        results.push_back(node->requestBuffers(1));
    EXPECT_EQ(results, (std::vector<int>{1, 1, -ENOMEM, 1}));
    EXPECT_EQ(faults.calls(Call::ioctl(VIDIOC_REQBUFS)) - before, 4u);
    EXPECT_EQ(faults.calls(Call::ioctl(VIDIOC_REQBUFS, "vengine-main")), 3u);

    int id = faults.fail(Call::ioctl(0, "request"), EIO, 1, Repeat::FOR_GOOD);
    int fd = request();
    EXPECT_EQ(System::QueueMediaRequest(fd), -EIO);
    EXPECT_EQ(System::ReinitMediaRequest(fd), -EIO);
    faults.remove(id);
    EXPECT_EQ(System::ReinitMediaRequest(fd), 0);

    faults.fail({Operation::OPEN, 0, "/dev/media0"}, EACCES);
    EXPECT_EQ(System::Open("/dev/media0", O_RDWR, 0), -EACCES);
    size_t open = mEngine.openFiles();
    int media = System::Open("/dev/media0", O_RDWR, 0);
    faults.fail({Operation::CLOSE, 0, "/dev/media0"}, EIO);
    EXPECT_EQ(System::Close(media, 0), -EIO);
    EXPECT_EQ(mEngine.openFiles(), open) << "the descriptor is gone";
    struct stat info;
    faults.fail({Operation::STAT, 0, "/dev/media0"}, ENOENT);
    EXPECT_EQ(System::Stat("/dev/media0", &info), -ENOENT);
    EXPECT_EQ(System::Stat("/dev/media0", &info), 0);
    faults.fail({Operation::OPEN_DIR}, EMFILE);
    EXPECT_EQ(System::OpenDir("/dev"), nullptr);
}

TEST_F(DeviceTest, HangingStreamOnHoldsUpOtherNodesRequests) {
    using namespace std::chrono_literals;
    const Node &main = node("vengine-main"), &grey = streaming("vengine-grey");
    ASSERT_EQ(main.requestBuffers(1), 1);
    Memory memory(65536);
    int fd = request();
    int id = mEngine.faults().hang(Call::ioctl(VIDIOC_STREAMON, "vengine-main"));
    auto hung = std::async(std::launch::async, [&] { return main.stream(true); });
    ASSERT_TRUE(mEngine.faults().waitUntilHung(id, 5000ms));
    EXPECT_EQ(queue({grey, 0, fd, &memory}, grey), 0) << "not serialised";
    auto queued = std::async(std::launch::async, [&] { return System::QueueMediaRequest(fd); });
    EXPECT_EQ(queued.wait_for(30ms), std::future_status::timeout);
    mEngine.faults().remove(id);
    EXPECT_EQ(hung.get(), 0);
    EXPECT_EQ(queued.get(), 0);
}

class SubDeviceNodeTest : public Client {
protected:
    SubDeviceNodeTest()
        : mFd(System::Open(device().nodePath(VENGINE_SUBDEV_ENTITY).c_str(), O_RDWR | O_NONBLOCK,
                           0)) {}
    ~SubDeviceNodeTest() override { System::Close(mFd, 0); }

    bool pending() {
        pollfd poll = {mFd, POLLPRI, 0};
        return ::poll(&poll, 1, 0) == 1;
    }
    /** Runs single requests through the engine. */
    void run(int count) {
        const Node& node = streaming("vengine-stats", 1);
        Memory memory(VENGINE_META_SIZE);
        int fd = request();
        for (int i = 0; i < count; ++i) {
            ASSERT_EQ(queue({node, 0, fd, &memory}, node), 0);
            ASSERT_EQ(System::QueueMediaRequest(fd), 0);
            ASSERT_TRUE(done(fd));
            ASSERT_EQ(System::ReinitMediaRequest(fd), 0);
            Buffer buffer(node, 0);
            ASSERT_EQ(System::DQueueVideoNodeBuf(node.fd, &buffer.buf), 0);
        }
        ASSERT_EQ(node.stream(false), 0);
    }

    int mFd;
};

TEST_F(SubDeviceNodeTest, KeepsTheNewestFrameEventsOfASubscription) {
    v4l2_event_subscription subscription = {};
    v4l2_event event = {};
    EXPECT_EQ(call(mFd, VIDIOC_SUBSCRIBE_EVENT, &subscription), -EINVAL);
    subscription.type = V4L2_EVENT_FRAME_SYNC;
    EXPECT_EQ(call(mFd, VIDIOC_SUBSCRIBE_EVENT, &subscription), 0);
    EXPECT_EQ(System::DQueueEvent(mFd, &event), -ENOENT);
    run(VENGINE_EVENTS + 2);
    EXPECT_EQ(device().subDeviceCounts().eventsDropped, 2u);
    for (uint32_t i = 0; i < VENGINE_EVENTS; ++i) {
        EXPECT_TRUE(pending());
        ASSERT_EQ(System::DQueueEvent(mFd, &event), 0);
        EXPECT_EQ(event.type, static_cast<uint32_t>(V4L2_EVENT_FRAME_SYNC));
        EXPECT_EQ(event.u.frame_sync.frame_sequence, i + 2);
        EXPECT_EQ(event.sequence, i + 2);
        EXPECT_EQ(event.pending, VENGINE_EVENTS - 1 - i);
    }
    EXPECT_FALSE(pending());
    run(1);
    EXPECT_TRUE(pending());
    EXPECT_EQ(call(mFd, VIDIOC_UNSUBSCRIBE_EVENT, &subscription), 0);
    EXPECT_FALSE(pending());
    run(1);
    EXPECT_EQ(System::DQueueEvent(mFd, &event), -ENOENT);
    EXPECT_EQ(device().subDeviceCounts().subscriptions, 0u);
}

TEST_F(SubDeviceNodeTest, FencesBecomeReadableWithTheNextRequest) {
    auto readable = [](int fd) {
        pollfd poll = {fd, POLLIN, 0};
        return ::poll(&poll, 1, 0) == 1;
    };
    int32_t fences[3] = {-1, -1, -1};
    kvxdip_fence list = {2, reinterpret_cast<uint64_t>(fences)};
    ASSERT_EQ(call(mFd, KVXDIP_IOC_ADD_FENCE, &list), 0);
    EXPECT_EQ(fences[2], -1);
    EXPECT_FALSE(readable(fences[0]) || readable(fences[1]));
    run(1);
    EXPECT_TRUE(readable(fences[0]) && readable(fences[1]));
    kvxdip_fence late = {1, reinterpret_cast<uint64_t>(fences + 2)};
    ASSERT_EQ(call(mFd, KVXDIP_IOC_ADD_FENCE, &late), 0);
    EXPECT_FALSE(readable(fences[2]));
    list.count = 3;
    EXPECT_EQ(call(mFd, KVXDIP_IOC_DEL_FENCE, &list), 0);
    EXPECT_TRUE(readable(fences[2])) << "given back while pending";
    EXPECT_EQ(call(mFd, KVXDIP_IOC_DEL_FENCE, &list), -EINVAL);
    EXPECT_EQ(device().subDeviceCounts().fences, 0u);
    for (int fence : fences)
        ::close(fence);
}

TEST_F(SubDeviceNodeTest, HoldsWhatItWasGivenAndNothingOfARefusedCall) {
    Memory one(4096), two(4096);
    constexpr int kClosed = 1000000;
    auto kva = [&](unsigned long code, const std::vector<int>& fds, int count = -1) {
        kvxdip_kva list = {};
        list.count = static_cast<uint8_t>(count < 0 ? static_cast<int>(fds.size()) : count);
        memcpy(reinterpret_cast<char*>(&list) + 1, fds.data(), fds.size() * sizeof(int));
        return call(mFd, code, &list);
    };
    auto iova = [&](unsigned long code, int fd, uint8_t coherence, uint32_t count = 1) {
        kvxdip_iova record = {};
        record.fd = fd;
        record.coherence = coherence;
        record.count = count;
        return call(mFd, code, &record);
    };
    auto memory = [&](unsigned long code, uint8_t capture) {
        kvxdip_memory record = {0, capture};
        return call(mFd, code, &record);
    };
    constexpr unsigned long kAdd = KVXDIP_IOC_ADD_KVA, kDelete = KVXDIP_IOC_DEL_KVA;
    constexpr unsigned long kMap = KVXDIP_IOC_ACQUIRE_IOVA, kUnmap = KVXDIP_IOC_RELEASE_IOVA;
    const std::vector<std::pair<int, int>> answers = {
        {kva(kAdd, {one.fd, two.fd, one.fd}), 0},
        {kva(kAdd, {two.fd, kClosed}), -EBADF},
        {kva(kAdd, {mFd}), -EINVAL},
        {kva(kAdd, {one.fd}, 0), -EINVAL},
        {kva(kAdd, {one.fd}, 33), -EINVAL},
        {kva(kDelete, {two.fd, two.fd}), -ENOENT},
        {kva(kDelete, {one.fd, one.fd}), 0},
        {iova(kMap, one.fd, 1), 0},
        {iova(kMap, one.fd, 2), -EINVAL},
        {iova(kMap, one.fd, 0, 2), -EINVAL},
        {iova(kUnmap, one.fd, 0), -ENOENT},
        {memory(KVXDIP_IOC_ALOC_BUF, 1), 0},
        {memory(KVXDIP_IOC_FREE_BUF, 0), -ENOENT},
    };
    for (size_t i = 0; i < answers.size(); ++i)
        EXPECT_EQ(answers[i].first, answers[i].second) << "call " << i;
    SubDeviceCounts held = device().subDeviceCounts();
    EXPECT_EQ(held.kva, 1u);
    EXPECT_EQ(held.iova, 1u);
    EXPECT_EQ(held.memory, 1u);
    EXPECT_EQ(device().takeIoctlRecords().size(), answers.size());

    kvxdip_user_resource user = {7, 8};
    EXPECT_EQ(call(mFd, KVXDIP_IOC_CLEAR_USER_RESOURCE, &user), 0);
    EXPECT_EQ(device().subDeviceCounts().kva + device().subDeviceCounts().memory, 0u);
    EXPECT_EQ(kva(kAdd, {one.fd}), 0);
    System::Close(std::exchange(mFd, -1), 0);
    EXPECT_EQ(device().subDeviceCounts().leftAtClose, 1u);
}

}  // namespace NSVista::NSCorvane::sim
