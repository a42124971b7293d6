// SPDX-License-Identifier: Apache-2.0
#include <corvane/V4L2SubDevice.h>
#include <corvane/kvxdip.h>
#include <corvane/platform/TimeBomb.h>

#include <sys/mman.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <algorithm>
#include <cerrno>

#include "VirtualEngineTest.h"
#include "support/SubDeviceCalls.h"

namespace NSVista::NSCorvane {

namespace {

using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

/** Memory files that stand for dma-bufs. */
class Buffers {
public:
    explicit Buffers(size_t count) {
        while (fds.size() < count) {
            const int fd = memfd_create("buffer", MFD_CLOEXEC);
            EXPECT_EQ(ftruncate(fd, 4096), 0);
            fds.insert(fd);
        }
    }
    ~Buffers() {
        for (const int fd : fds)
            ::close(fd);
    }
    std::unordered_set<int> fds;
};

class SubDeviceTest : public VirtualEngineTest {
protected:
    SubDeviceTest() { EXPECT_EQ(mDev.openDevice(), 0); }
    ~SubDeviceTest() override { mDev.closeDevice(); }
    std::vector<test::SubDeviceCall> operations() {
        auto all = test::subDeviceCalls(mWith, mDev.getDeviceFd());
        const auto add = [&all](uint32_t code, const std::string& name, const char* operation,
                                int (V4L2SubDevice::*call)()) {
            const auto run = [call](auto& device, auto&) {
                return (static_cast<V4L2SubDevice&>(device).*call)();
            };
            all.push_back({code,
                           "",
                           "",
                           run,
                           {},
                           "[" + std::string(operation) + "] Failed to " + name + ": -5",
                           name + " err=-5(Input/output error)"});
        };
        add(VIDIOC_SUBSCRIBE_EVENT, "VIDIOC_SUBSCRIBE_EVENT", "subscribe",
            &V4L2SubDevice::subscribe);
        add(VIDIOC_UNSUBSCRIBE_EVENT, "VIDIOC_UNSUBSCRIBE_EVENT", "unsubscribe",
            &V4L2SubDevice::unsubscribe);
        return all;
    }
    std::vector<sim::IoctlRecord> takeRecords() { return mEngine.device().takeIoctlRecords(); }

    V4L2SubDevice mDev{subDevicePath(), VENGINE_SUBDEV_ENTITY};
    const Buffers mBuffer{1};
    test::SubDeviceArguments mWith{*mBuffer.fds.begin()};
};

}  // namespace

TEST_F(SubDeviceTest, SendsEveryRecordByteForByte) {
    for (const test::SubDeviceCall& operation : operations()) {
        EXPECT_EQ(operation.run(mDev, mWith), 0) << operation.line;
        std::vector<sim::IoctlRecord> expected;
        if (!operation.record.empty())
            expected.push_back({operation.code, operation.record});
        EXPECT_EQ(takeRecords(), expected) << operation.line;
    }
    EXPECT_EQ(mWith.value, -3) << "the driver's answer";
    EXPECT_EQ(mDev.getControl(VENGINE_CTRL_USER, nullptr), 0);
    EXPECT_THAT(mWith.fences, Each(testing::Ge(0)));
    EXPECT_THAT(mReports.take(), IsEmpty());
}

TEST_F(SubDeviceTest, EndsRefusalsAsEachIoctlAsks) {
    for (const test::SubDeviceCall& operation : operations()) {
        mEngine.faults().fail(sim::Call::ioctl(operation.code), EIO);
        EXPECT_EQ(operation.run(mDev, mWith), -EIO) << operation.line;
        EXPECT_THAT(mLog.take(), ElementsAre("E " + operation.line));
        const auto reports =
            operation.report.empty() ? test::Lines() : test::ReportCapture::of(operation.report);
        EXPECT_EQ(mReports.take(), reports) << operation.line;
    }
    EXPECT_EQ(mWith.value, 0) << "left alone";
}

TEST_F(SubDeviceTest, PrintsErrnoOfARefusedMappingBesideTheResult) {
    /** Answers one thing and leaves another in errno, so that a reader of either shows. */
    class TwoErrors : public sim::VirtualEngine {
        int ioctl(int fd, unsigned long request, void* arg) override {
            if (static_cast<uint32_t>(request) != KVXDIP_IOC_ACQUIRE_IOVA)
                return VirtualEngine::ioctl(fd, request, arg);
            errno = EFAULT;
            return -ENOMEM;
        }
    } engine;
    const sim::ScopedKernel kernel(engine);
    EXPECT_EQ(mDev.mapIOVA(3, false), -ENOMEM);
    EXPECT_THAT(mLog.take(), ElementsAre(HasSubstr(":-12 err:14(Bad address)")));
}

TEST_F(SubDeviceTest, SendsMappingsInBatchesOf32AndStopsAtARefusal) {
    for (const size_t count : {0u, 1u, 32u, 33u, 64u, 65u}) {
        SCOPED_TRACE(count);
        const Buffers buffers(count);
        std::vector<sim::IoctlRecord> maps, unmaps;
        auto fd = buffers.fds.begin();
        for (size_t left = count; left != 0;) {
            const size_t batch = std::min<size_t>(left, 32);
            test::Record record(385);
            record.put(0, batch, 1);
            for (size_t i = 0; i < batch; i++, left--)
                record.put(1 + 4 * i, *fd++, 4);
            maps.push_back({0x418156C8, record});
            unmaps.push_back({0x418156C9, record});
        }
        EXPECT_EQ(mDev.mapKVA(buffers.fds), 0);
        EXPECT_EQ(takeRecords(), maps);
        EXPECT_EQ(mDev.unmapKVA(buffers.fds), 0);
        EXPECT_EQ(takeRecords(), unmaps);
    }
    const uint64_t before = ioctls(KVXDIP_IOC_ADD_KVA);
    mEngine.faults().fail(sim::Call::ioctl(KVXDIP_IOC_ADD_KVA), ENOMEM, 2);
    EXPECT_EQ(mDev.mapKVA(Buffers(65).fds), -ENOMEM);
    EXPECT_EQ(ioctls(KVXDIP_IOC_ADD_KVA), before + 2);
    EXPECT_EQ(mEngine.device().subDeviceCounts().kva, 32u) << "the batch before it stays";
    EXPECT_EQ(mReports.take().size(), 2u) << "one report and its end";
}

TEST_F(SubDeviceTest, GuardsAMemoryRequestThatHangs) {
    test::Lines expired;  // the guards' thread's until the handler is gone
    timeguard::TimeBomb::setExpiryHandler([&](const timeguard::TimeBomb& guard, auto) {
        expired.push_back(std::string(guard.name()) + " " + guard.message() + " " +
                          std::to_string(guard.limit()) + " " + std::to_string(guard.period()));
        mEngine.faults().clear();
    });
    mEngine.faults().hang(sim::Call::ioctl(KVXDIP_IOC_FREE_BUF));
    EXPECT_EQ(mDev.requestMemory({true, 0, 1}), 0);
    EXPECT_EQ(mDev.requestMemory({false, 0, 1}), 0);
    timeguard::TimeBomb::setExpiryHandler(nullptr);
    EXPECT_THAT(expired, ElementsAre("ZelsysKernel KVXDIP_IOC_FREE_BUF timed out.  is_smvr=0 "
                                     "is_capture=1 2999000000 1000000000"));
}

TEST_F(SubDeviceTest, CountsFencesInAByte) {
    std::vector<int> fences(300, -1);
    EXPECT_EQ(mDev.acquireFenceFd(fences), 0);
    EXPECT_EQ(mDev.releaseFenceFd(fences), 0);
    for (size_t i = 0; i < fences.size(); i++)
        EXPECT_EQ(::close(fences[i]), i < 44 ? 0 : -1) << i;
    EXPECT_EQ(takeRecords().back().bytes.at(0), 44) << "the count wraps";
}

TEST_F(SubDeviceTest, OpensAndClosesOnce) {
    const std::string path = subDevicePath();
    const std::string fd = std::to_string(mDev.getDeviceFd());
    v4l2_event event = {};
    EXPECT_EQ(mDev.queryEvent(event), -ENOENT);
    EXPECT_EQ(mDev.openDevice(), -EEXIST);
    EXPECT_THAT(mLog.take(), ElementsAre("W [openDevice] " + path + " " + fd + " was opened"));
    EXPECT_THAT(test::dumpOf(mDev), ElementsAre("V4L2SubDevice: " + fd + " -> " + path +
                                                " (vengine-subdev) flags=0x802"));
    EXPECT_EQ(mDev.closeDevice(), 0);
    EXPECT_EQ(mDev.closeDevice(), -EINVAL);

    mEngine.faults().fail({sim::Operation::OPEN}, EACCES);
    EXPECT_EQ(mDev.openDevice(), -EACCES);
    EXPECT_THAT(mLog.take(), ElementsAre("W [openDevice] Failed to open " + path + " ret=-13",
                                         "W [openDevice] " + path +
                                             ": permission denied: its group is root, its mode "
                                             "0660; the process must be in that group"));
    EXPECT_EQ(mDev.getDeviceFd(), -1);

    EXPECT_EQ(mDev.openDevice(), 0);
    mEngine.faults().fail({sim::Operation::CLOSE}, EIO);
    EXPECT_EQ(mDev.closeDevice(), -EIO);
    EXPECT_GE(mDev.getDeviceFd(), 0) << "it still counts as open";
    EXPECT_THAT(mLog.take(), ElementsAre(HasSubstr("E [closeDevice] Failed to close " + path)));
    EXPECT_THAT(mReports.take(), IsEmpty());
}

}  // namespace NSVista::NSCorvane
