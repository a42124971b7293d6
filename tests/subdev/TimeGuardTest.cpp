#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/V4L2SubDevice.h>
#include <corvane/kvxdip.h>

#include <gmock/gmock.h>

#include <chrono>
#include <thread>

#include "EngineTest.h"

namespace NSVista::NSCorvane {

using namespace std::chrono_literals;

namespace {

class TimeGuardTest : public EngineTest {
protected:
    TimeGuardTest() : EngineTest("corvane-TimeGuard") {}

    /**
     * Makes @p call hang inside @p run. Expected are errors that carry @p text and their age: one
     * when 3 s are full (a busy machine may add a little), the next one second later, none after
     * the call has returned.
     */
    template <class Run>
    void expectReports(const sim::Call& call, const std::string& text, Run run) {
        const int hang = mEngine.faults().hang(call);
        std::thread thread(run);
        ASSERT_TRUE(mEngine.faults().waitUntilHung(hang, 2s));
        const auto hung = std::chrono::steady_clock::now();
        std::this_thread::sleep_until(hung + 2700ms);
        EXPECT_THAT(mLog.take(), testing::IsEmpty());
        std::this_thread::sleep_until(hung + 4500ms);
        EXPECT_THAT(mLog.take(),
                    testing::ElementsAre(
                        testing::MatchesRegex("E .*" + text + " \\((299|3[0-3].).? ms\\)"),
                        testing::MatchesRegex("E .*" + text + " \\((399|4[0-3].).? ms\\)")));
        mEngine.faults().remove(hang);
        thread.join();
        std::this_thread::sleep_until(hung + 5100ms);
        EXPECT_THAT(mLog.take(), testing::IsEmpty());
    }
};

}  // namespace

TEST_F(TimeGuardTest, ReportsAHungMemoryRequestUntilItReturns) {
    V4L2SubDevice subDevice(subDevicePath(), VENGINE_SUBDEV_ENTITY);
    ASSERT_EQ(subDevice.openDevice(), 0);
    expectReports(sim::Call::ioctl(KVXDIP_IOC_ALOC_BUF),
                  "KVXDIP_IOC_ALOC_BUF timed out.  is_smvr=0 is_capture=1", [&] {
                      EXPECT_EQ(subDevice.requestMemory({true, 0, 1}), 0);
                  });
    EXPECT_EQ(subDevice.closeDevice(), 0);
}

TEST_F(TimeGuardTest, ReportsAHungStreamOnUntilItReturns) {
    // Its link is enabled for good.
    const PortDesc port = {"tuning", 0, "vengine-tuning", true, false, false};
    const SceneDesc desc = {"hung", nullptr, 1, &port, 0, nullptr};
    const auto media = IDeviceEnumerator::instance().search(VENGINE_MODEL);
    ASSERT_EQ(media->acquire(), 0);
    Scene scene(nullptr, desc, media);
    ASSERT_EQ(scene.init(), 0);
    ASSERT_EQ(scene.acquire(), 0);
    ASSERT_EQ(scene.importBuffer(scene.queryPort(0), 1), 0);
    expectReports(sim::Call::ioctl(VIDIOC_STREAMON, "vengine-tuning"), "VIDIOC_STREAMON timed out.",
                  [&] { EXPECT_EQ(scene.start(), 0); });
    EXPECT_EQ(scene.stop(), 0);
    EXPECT_EQ(scene.release(), 0);
    scene.uninit();
    media->release();
}

}  // namespace NSVista::NSCorvane
