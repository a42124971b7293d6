#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/ULog.h>
#include <corvane/sim/Engine.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/videodev2.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "vengine-desc.h"

namespace NSVista::NSCorvane::client {
namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr const char kModeProperty[] = "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode";

/** Sessions on a virtual engine; at the end nothing is left open and no error was logged. */
class SceneSessionTest : public testing::Test {
protected:
    SceneSessionTest() {
        Utils::ULog::ULogger::install(&mLog);
        Utils::setExceptionHandler([](const char*, const char*) {});
        Utils::setTerminateHandler([this] { ++mTerminations; });
    }
    ~SceneSessionTest() override {
        EXPECT_EQ(mEngine.openFiles(), 0U);
        EXPECT_THAT(takeErrors(), IsEmpty());
        Utils::setTerminateHandler({});
        Utils::setExceptionHandler({});
        Utils::ULog::ULogger::install(nullptr);
        Utils::Properties::property_set(kModeProperty, nullptr);
    }

    static SessionDesc describe(size_t ports, int buffers = 4) {
        SessionDesc desc{"test", {}, {}, buffers, {64, 64}};
        for (size_t i = 0; i < ports; ++i) {
            const vengine_port& port = vengine_ports[i];
            desc.ports.push_back({port.name, static_cast<int>(i), port.name, 0, 64, 16});
            SessionLink link{VENGINE_CORE_ENTITY, static_cast<uint32_t>(i), port.name, 0};
            if (V4L2_TYPE_IS_OUTPUT(port.buf_type))
                link = {port.name, 0, VENGINE_CORE_ENTITY, static_cast<uint32_t>(i)};
            desc.links.push_back(link);
        }
        return desc;
    }
    std::unique_ptr<SceneSession> open(const SessionDesc& desc, int& error) {
        return SceneSession::open(desc, IDeviceEnumerator::instance().search(VENGINE_MODEL),
                                  *makeMemoryFileSource(), error);
    }
    std::unique_ptr<SceneSession> openStarted(size_t ports) {
        int error = 0;
        auto session = open(describe(ports), error);
        EXPECT_EQ(error, 0);
        EXPECT_EQ(session->start(), 0);
        return session;
    }
    std::vector<std::string> takeErrors() {
        std::vector<std::string> errors;
        for (const auto& line : mLog.take())
            if (line.level == Utils::ULog::kError)
                errors.push_back(line.text);
        return errors;
    }

    sim::VirtualEngine mEngine;
    const sim::ScopedKernel mInstalled{mEngine};
    Utils::ULog::RingULogger mLog{1000};
    int mTerminations = 0;
};

TEST_F(SceneSessionTest, StopWaitsForEveryCompletionAndDequeue) {
    mEngine.device().setTiming({.latency = 2ms});
    for (const char* mode : {"0", "1"})
        for (const size_t ports : {1U, 4U}) {
            Utils::Properties::property_set(kModeProperty, mode);
            SCOPED_TRACE(testing::Message() << ports << " ports, mode " << mode);
            const sim::DeviceCounts before = mEngine.device().counts();
            const auto session = openStarted(ports);
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(session->submit({}), 0);
            EXPECT_EQ(session->stop(5s), 0);
            EXPECT_EQ(mEngine.device().counts().completed - before.completed, 3U);
            EXPECT_EQ(mEngine.device().counts().cancelled - before.cancelled, 0U);
            for (const PortStatistics& port : session->statistics()) {
                EXPECT_EQ(port.queued, 3U) << port.name;
                EXPECT_EQ(port.dequeued, 3U) << port.name;
            }
            std::vector<uint64_t> numbers;
            while (session->wait(0ms, [&numbers](SessionRequest& request) {
                numbers.push_back(request.number());
                EXPECT_GE(request.times().total, 2ms);
            }) == 0) {
            }
            EXPECT_THAT(numbers, ElementsAre(0, 1, 2));
        }
}

TEST_F(SceneSessionTest, StopWithRequestsInFlightLosesThemAndANewSessionStreams) {
    for (const size_t ports : {1U, 4U}) {
        mEngine.device().hold();
        {
            const auto session = openStarted(ports);
            for (int i = 0; i < 3; ++i)
                EXPECT_EQ(session->submit({}), 0);
            mEngine.device().completeNext();
            EXPECT_EQ(session->wait(5s, {}), 0);
            EXPECT_EQ(session->stop(20ms), -ETIMEDOUT);
            for (const PortStatistics& port : session->statistics())
                EXPECT_EQ(port.dequeued, 1U) << port.name;
            EXPECT_EQ(session->stop(0ms), -EPIPE);
            EXPECT_EQ(session->start(), -EBUSY) << "a session starts once";
        }
        mEngine.device().resume();
        const auto next = openStarted(ports);
        EXPECT_EQ(next->submit({}), 0);
        EXPECT_EQ(next->wait(5s, {}), 0);
    }
}

TEST_F(SceneSessionTest, TakesNoMoreRequestsThanBuffers) {
    int error = 0;
    const auto session = open(describe(2, 3), error);
    ASSERT_NE(session, nullptr);
    EXPECT_EQ(session->submit({}), -EPIPE) << "not started";
    EXPECT_EQ(session->start(), 0);
    EXPECT_EQ(session->wait(0ms, {}), -ENOENT);
    mEngine.device().hold();
    for (int i = 0; i < 3; ++i)
        EXPECT_EQ(session->submit({}), 0);
    EXPECT_EQ(session->submit({}), -EAGAIN);
    EXPECT_EQ(session->inFlight(), 3U);
    EXPECT_EQ(session->wait(10ms, {}), -ETIMEDOUT);
    mEngine.device().completeNext();
    EXPECT_EQ(session->wait(5s,
                            [&](SessionRequest&) {
                                EXPECT_EQ(session->submit({}), -EAGAIN) << "still being inspected";
                            }),
              0);
    EXPECT_EQ(session->submit({}), 0);
    mEngine.device().resume();
    EXPECT_EQ(session->drain(5s), 0);
}

TEST_F(SceneSessionTest, AfterARefusedRequestOnlyTheStopIsLeft) {
    {
        const auto session = openStarted(3);
        EXPECT_EQ(session->submit({}), 0);
        mEngine.faults().fail(sim::Call::ioctl(VIDIOC_QBUF, "vengine-input"), EIO);
        EXPECT_EQ(session->submit({}), -EIO);
        EXPECT_EQ(session->submit({}), -EPIPE);
        EXPECT_EQ(session->wait(5s, {}), 0) << "the first one is not lost";
        EXPECT_EQ(session->stop(5s), 0);
    }
    EXPECT_THAT(takeErrors(), testing::Contains("[queueBuffer] Failed to queue buffer "
                                                "vengine-input: -5"));
    const auto next = openStarted(3);
    EXPECT_EQ(next->submit({}), 0);
    EXPECT_EQ(next->wait(5s, {}), 0);
}

TEST_F(SceneSessionTest, FailedOpenLeavesNothingBehind) {
    const auto refuses = [this](const SessionDesc& desc, int expected, const char* what) {
        int error = 0;
        EXPECT_EQ(open(desc, error), nullptr) << what;
        EXPECT_EQ(error, expected) << what;
        EXPECT_EQ(mEngine.openFiles(), 0U) << what;
        EXPECT_EQ(mEngine.device().linkFlags(VENGINE_CORE_ENTITY, 0, "vengine-main", 0), 0) << what;
        EXPECT_THAT(takeErrors(), testing::Not(IsEmpty())) << what;
    };
    refuses({}, -EINVAL, "no ports");
    refuses(describe(1, 0), -EINVAL, "no buffers");
    refuses(describe(1, 65), -EINVAL, "65 buffers");
    refuses(describe(1, 33), -ENOMEM, "more than the device grants");
    SessionDesc twice = describe(2);
    twice.ports[1].index = 0;
    refuses(twice, -EINVAL, "an index twice");
    SessionDesc unknown = describe(2);
    unknown.ports[1].entity = "nobody";
    refuses(unknown, -1, "an unknown entity");
    for (const auto& [code, expected] : {std::pair{VIDIOC_S_FMT, -EIO}, {VIDIOC_REQBUFS, -EIO}}) {
        mEngine.faults().fail(sim::Call::ioctl(code, "vengine-input"), EIO);
        refuses(describe(3), expected, "a refused ioctl");
    }
    EXPECT_EQ(mTerminations, 2);
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
