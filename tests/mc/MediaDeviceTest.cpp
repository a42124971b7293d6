// SPDX-License-Identifier: Apache-2.0
#include <corvane/mc/MediaDevice.h>

#include <atomic>
#include <thread>

#include "MediaGraph.h"
#include "support/Capture.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-MediaDevice";

std::shared_ptr<mc::MediaTopology> makeTopology() {
    auto topology = std::make_shared<mc::MediaTopology>("t");
    const auto link = [&](uint16_t sourcePad, uint16_t sinkPad, uint32_t flags) {
        topology->insertLinkDesc(linkOf(padOf(1, sourcePad, 2), padOf(2, sinkPad, 1), flags));
    };
    link(0, 3, 4);
    link(1, 0, MEDIA_LNK_FL_IMMUTABLE | MEDIA_LNK_FL_ENABLED);
    link(0, 3, MEDIA_LNK_FL_IMMUTABLE);  // shadowed by the first of these pads
    return topology;
}

class MediaDeviceTest : public testing::Test {
protected:
    MediaDeviceTest() {
        mKernel.on<media_link_desc>(MEDIA_IOC_SETUP_LINK, [this](int, media_link_desc& sent) {
            mSent.emplace_back(reinterpret_cast<const uint32_t*>(&sent),
                               reinterpret_cast<const uint32_t*>(&sent + 1));
            return mSetupResult;
        });
    }

    FakeKernel mKernel;
    LogCapture mLog{kTag};
    ReportCapture mReports;
    std::shared_ptr<mc::MediaTopology> mTopology = makeTopology();
    std::shared_ptr<media_device_info> mInfo = std::make_shared<media_device_info>(infoOf("m"));
    mc::MediaDevice mDevice{"/dev/media0", mInfo, mTopology};
    int mSetupResult = 0;
    std::vector<std::vector<uint32_t>> mSent;  ///< link descriptors, as 32-bit words
};

TEST_F(MediaDeviceTest, OpensOnceAndClosesAtTheFirstRelease) {
    mKernel.openResults["/dev/media0"] = -EBUSY;
    EXPECT_EQ(mDevice.acquire(), -EBUSY);
    EXPECT_EQ(mLog.take(), Lines({"E [open] Failed to open /dev/media0: -16",
                                  "E [open] /dev/media0 is in use and takes one user at a time"}));
    mKernel.openResults.clear();
    EXPECT_EQ(mDevice.acquire(), 0);
    EXPECT_EQ(mDevice.acquire(), 0);
    const std::string info = infoText("m");
    EXPECT_EQ(dumpOf(mDevice, 'I'), Lines({"<<MediaDevice>> fd=100 '/dev/media0' " + info}));
    mKernel.closeResult = -EIO;
    EXPECT_EQ(mDevice.release(), -EIO);
    EXPECT_EQ(mDevice.release(), 0);
    EXPECT_EQ(dumpOf(mDevice, 'V'), Lines({"<<MediaDevice>> fd=-1 '/dev/media0' " + info}));
    EXPECT_EQ(mKernel.takeCalls(),
              Lines({"open /dev/media0 0x2", "open /dev/media0 0x2", "close 100"}));
    mc::MediaDevice("/dev/media1", mInfo, nullptr).acquire();
    EXPECT_EQ(mKernel.takeCalls(), Lines({"open /dev/media1 0x2", "close 101"}));
}

TEST_F(MediaDeviceTest, SetsLinksByTheirPadsAlone) {
    mDevice.acquire();
    EXPECT_TRUE(mDevice.enableLink(true, "any", 0, "other", 3));
    EXPECT_TRUE(mDevice.enableLink(false, nullptr, 0, nullptr, 3));
    EXPECT_TRUE(mDevice.enableLink(true, "a", 1, "b", 0));
    EXPECT_TRUE(mDevice.enableLink(true, "a", 3, nullptr, 0));
    EXPECT_EQ(mSent, (std::vector<std::vector<uint32_t>>{{1, 0, 2, 0, 0, 2, 3, 1, 0, 0, 5, 0, 0},
                                                         {1, 0, 2, 0, 0, 2, 3, 1, 0, 0, 4, 0, 0}}));
    EXPECT_EQ(mKernel.takeCalls(), Lines({"open /dev/media0 0x2", "MEDIA_IOC_SETUP_LINK 100",
                                          "MEDIA_IOC_SETUP_LINK 100"}));
    EXPECT_EQ(mLog.take(), Lines({"W [enableLink] Not found link(a:3-:0) to enable:1"}));
    EXPECT_EQ(mTopology->linkDescs()[0].flags, 4U);
}

TEST_F(MediaDeviceTest, IsReadBesideOpenAndClose) {
    std::atomic<bool> ends{false};
    std::thread reader([&] {
        while (!ends)
            EXPECT_EQ(dumpOf(mDevice, 'I').size(), 1U);
    });
    for (int i = 0; i < 200; ++i)
        EXPECT_EQ(mDevice.acquire() + mDevice.release(), 0);
    ends = true;
    reader.join();
}

TEST_F(MediaDeviceTest, ReportsARefusedLinkWithItsCause) {
    const std::string fail = "MEDIA_IOC_SETUP_LINK fail err=";
    mSetupResult = -EBADF;
    EXPECT_FALSE(mDevice.enableLink(true, "a", 0, "b", 3));
    EXPECT_EQ(mLog.take(), Lines({"E [enableLink] " + fail + "-9",
                                  "E [enableLink] /dev/media0 is not acquired: acquire it before "
                                  "links are set and scenes run on it"}));
    EXPECT_EQ(mReports.take(), ReportCapture::of(fail + "-9(Bad file descriptor)"));
    mDevice.acquire();
    mSetupResult = -EBUSY;
    EXPECT_FALSE(mDevice.enableLink(true, "a", 0, "b", 3));
    EXPECT_EQ(mLog.take(), Lines({"E [enableLink] " + fail + "-16",
                                  "E [enableLink] /dev/media0: link(a:0-b:3) is in use: links "
                                  "change while nothing streams"}));
    ASSERT_EQ(mSent.size(), 2U);
    EXPECT_EQ(mSent[1], mSent[0]) << "asked for again";
    EXPECT_EQ(mSent[1][10], 5U);
}

TEST_F(MediaDeviceTest, EndsOnConsistencyErrors) {
    mKernel.answer(MEDIA_IOC_REQUEST_ALLOC, -EBADF);
    expectFatal({
        {[&] { mc::MediaDevice("", mInfo, mTopology); }, kTag, "MediaDevice", "Bad device path"},
        {[&] { mc::MediaDevice("/dev/m", nullptr, mTopology); }, kTag, "MediaDevice",
         "Bad device info"},
        {[&] { mDevice.makeRequest(); }, kTag, "MediaRequest", "Bad request fd < 0"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
