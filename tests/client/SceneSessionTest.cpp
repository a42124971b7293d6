// SPDX-License-Identifier: Apache-2.0
#include <corvane/IDeviceEnumerator.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Clock.h>
#include <corvane/platform/Properties.h>
#include <corvane/sim/Engine.h>
#include <linux/videodev2.h>
#include <poll.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <future>
#include <thread>

#include "support/Capture.h"
#include "support/DescriptorLimit.h"
#include "support/SceneDescs.h"

namespace NSVista::NSCorvane::client {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

constexpr const char kModeProperty[] = "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode";

/** The engine, with an eye on what the library asks of it. */
class SpiedEngine : public sim::VirtualEngine {
public:
    int ioctl(int fd, unsigned long request, void* arg) override {
        if (request == VIDIOC_S_FMT) {
            const auto& format = static_cast<v4l2_format*>(arg)->fmt.pix_mp;
            staleStrides = staleStrides || format.plane_fmt[0].bytesperline != 0;
        }
        if (request == VIDIOC_REQBUFS)
            wanted = std::max(wanted, static_cast<v4l2_requestbuffers*>(arg)->count);
        if (request == VIDIOC_DQBUF && dequeueDelay != 0ms)
            std::this_thread::sleep_for(dequeueDelay);
        const int result = VirtualEngine::ioctl(fd, request, arg);
        if (request != VIDIOC_DQBUF || result != 0)
            return result;
        auto& buffer = *static_cast<v4l2_buffer*>(arg);
        if (buffer.type == V4L2_BUF_TYPE_VIDEO_CAPTURE_MPLANE)
            buffer.m.planes[1].data_offset = kDataOffset;
        return V4L2_TYPE_IS_OUTPUT(buffer.type) && loses.exchange(false) ? -EIO : 0;
    }

    static constexpr uint32_t kDataOffset = 16;  ///< of second planes
    std::atomic<bool> loses{false};  ///< the next buffer dequeued from the input is gone
    bool staleStrides = false;
    uint32_t wanted = 0;  ///< the most buffers that a port asked for
    std::chrono::milliseconds dequeueDelay{0};
};

/** How requests come back. */
struct Way {
    const char* mode;
    bool direct;
    HandOver handOver;
};
constexpr Way kWays[] = {{"0", true, HandOver::WhenDequeued},
                         {"0", false, HandOver::WhenDequeued},
                         {"1", true, HandOver::WhenDequeued},
                         {"0", false, HandOver::WhenDone}};

/** Sessions on a virtual engine; at the end nothing is left open and no line was logged. */
class SceneSessionTest : public testing::Test {
protected:
    ~SceneSessionTest() override {
        EXPECT_EQ(mEngine.openFiles(), 0U);
        EXPECT_THAT(mLog.take(), IsEmpty());
        Utils::Properties::property_set(kModeProperty, nullptr);
    }

    static SessionDesc describe(unsigned ports, int buffers = 4) {
        SessionDesc desc = test::engineSession("test", ports);
        desc.buffers = buffers;
        desc.layout = {64, 64};
        return desc;
    }
    static SessionDesc describe(const Way& way, unsigned ports, int buffers = 4) {
        Utils::Properties::property_set(kModeProperty, way.mode);
        SessionDesc desc = describe(ports, buffers);
        desc.direct = way.direct;
        desc.handOver = way.handOver;
        return desc;
    }
    std::unique_ptr<SceneSession> open(const SessionDesc& desc, int expected = 0) {
        int error = 0;
        auto session =
            SceneSession::open(desc, mMedia = IDeviceEnumerator::instance().search("vengine"),
                               *makeMemoryFileSource(), error);
        EXPECT_EQ(error, expected);
        return session;
    }
    std::unique_ptr<SceneSession> openStarted(const SessionDesc& desc) {
        auto session = open(desc);
        EXPECT_EQ(session->start(), 0);
        return session;
    }
    std::unique_ptr<SceneSession> openStarted(unsigned ports) {
        return openStarted(describe(ports));
    }
    static void submit(SceneSession& session, int count = 1) {
        for (int i = 0; i < count; ++i)
            EXPECT_EQ(session.submit({}), 0);
    }
    static void take(SceneSession& session, const SceneSession::Visit& inspect = {}) {
        EXPECT_EQ(session.wait(5s, inspect), 0);
    }

    SpiedEngine mEngine;
    const sim::ScopedKernel mInstalled{mEngine};
    test::LogCapture mLog{nullptr, Utils::ULog::kWarning};
    test::ReportCapture mReports;
    std::shared_ptr<IMediaDevice> mMedia;  ///< of the last session, outlives it
};

TEST_F(SceneSessionTest, ARefusedCallWhileOpeningIsUndone) {
    openStarted(3).reset();  // the device is known
    const struct {
        sim::Call call;
        int error;
        unsigned nth;
        bool ends;
    } cases[] = {
        {{sim::Operation::OPEN, 0, "/dev/media0"}, EBUSY, 1, false},
        // A busy device is met before anything that ends the service when it is refused.
        {sim::Call::ioctl(VIDIOC_REQBUFS, "vengine-input"), EBUSY, 1, false},
        {sim::Call::ioctl(VIDIOC_G_FMT, "vengine-input"), EIO, 1, true},
        {sim::Call::ioctl(VIDIOC_S_FMT, "vengine-input"), EIO, 1, true},
        {sim::Call::ioctl(VIDIOC_REQBUFS, "vengine-input"), EIO, 3, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        mEngine.faults().fail(c.call, c.error, c.nth);
        EXPECT_EQ(open(describe(3), -c.error), nullptr);
        EXPECT_EQ(mReports.take().empty(), !c.ends);
        EXPECT_EQ(mEngine.openFiles(), 0U);
        EXPECT_THAT(mLog.take(), testing::Not(IsEmpty()));
    }
    {
        const test::DescriptorLimit none(0);
        EXPECT_EQ(open(describe(3), -EMFILE), nullptr);
    }
    EXPECT_THAT(mLog.take(), testing::Not(IsEmpty()));
    EXPECT_EQ(mEngine.wanted, 5U) << "one more than are queued";
    const auto all = open(describe(1, 32));
    ASSERT_NE(all, nullptr) << "what the engine has will do";
    all->scene()->release();
    EXPECT_EQ(all->start(), -1);
    EXPECT_THAT(mLog.take(), Contains(HasSubstr("acquire() comes first")));
    all->scene()->acquire();
}

TEST_F(SceneSessionTest, StopWaitsForEveryCompletionAndDequeue) {
    mEngine.device().setTiming({.latency = 2ms});
    for (const Way& way : kWays)
        for (const unsigned ports : {1U, 4U}) {
            SCOPED_TRACE(testing::Message() << ports << " ports, mode " << way.mode << way.direct);
            const sim::DeviceCounts before = mEngine.device().counts();
            SessionDesc desc = describe(way, ports);
            desc.times = true;
            const auto session = openStarted(desc);
            submit(*session, 3);
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
                const RequestTimes times = request.times();
                EXPECT_EQ(times.buffers + times.queue + times.driver + times.report, times.total);
                EXPECT_GE(std::min({times.buffers, times.queue, times.driver, times.report}), 0ns);
                EXPECT_GE(times.total, 2ms);
                EXPECT_LT(times.total, 5s);
            }) == 0) {
            }
            EXPECT_THAT(numbers, ElementsAre(0, 1, 2));
        }
    EXPECT_FALSE(mEngine.staleStrides);
}

TEST_F(SceneSessionTest, TheEndOfTheLastRequestWakesAllWhoWait) {
    const auto session = openStarted(2);
    mEngine.device().hold();
    submit(*session);
    const auto wait = [&session] { return session->wait(600s, {}); };
    auto one = std::async(std::launch::async, wait);
    auto other = std::async(std::launch::async, wait);
    EXPECT_EQ(one.wait_for(50ms), std::future_status::timeout);
    mEngine.device().resume();
    EXPECT_EQ(one.get() + other.get(), -ENOENT) << "the one gets it, the other nothing";

    sim::Faults& faults = mEngine.faults();
    const int hung = faults.hang(sim::Call::ioctl(VIDIOC_QBUF));
    auto refused = std::async(std::launch::async, [&session] { return session->submit({}); });
    EXPECT_TRUE(faults.waitUntilHung(hung, 5s));
    one = std::async(std::launch::async, [&session] { return session->wait(5s, {}); });
    EXPECT_EQ(one.wait_for(50ms), std::future_status::timeout);
    faults.fail(sim::Call::ioctl(VIDIOC_QBUF), ENOMEM);  // of the other port
    faults.remove(hung);
    EXPECT_EQ(refused.get(), -ENOMEM);
    EXPECT_EQ(one.get(), -ENOENT) << "of a refused one nothing is to come";
    EXPECT_THAT(mLog.take(), testing::Not(IsEmpty()));
}

TEST_F(SceneSessionTest, FramesTellWhatTheDriverSaid) {
    const auto session = openStarted(4);
    mEngine.device().failBuffer("vengine-stats", 2);
    std::chrono::nanoseconds last{0};
    for (uint32_t i = 0; i < 3; ++i) {
        const std::chrono::nanoseconds before{monotonicInNs()};
        submit(*session);
        take(*session, [&](SessionRequest& request) {
            Frame& main = request.frame(0);
            EXPECT_EQ(main.result(), 0);
            EXPECT_EQ(main.sequence(), i);
            EXPECT_GT(main.timestamp(), last);
            last = main.timestamp();
            EXPECT_GE(last, before - 1us);
            EXPECT_LE(last.count(), monotonicInNs());
            EXPECT_EQ(main.dataOffset(0), 0U);
            EXPECT_EQ(main.dataOffset(1), SpiedEngine::kDataOffset);
            EXPECT_EQ(main.dataOffset(2), 0U);
            EXPECT_GT(request.descriptor(), 0);
            EXPECT_EQ(main.bytesUsed(0), main.format().planes[0].size);
            EXPECT_EQ(main.bytesUsed(1), main.format().planes[1].size);
            EXPECT_EQ(main.bytesUsed(2), 0U);
            EXPECT_EQ(main.field(), V4L2_FIELD_NONE);
            EXPECT_EQ(main.flags() & V4L2_BUF_FLAG_ERROR, 0U);
            EXPECT_EQ(request.frame(3).isGood(), i != 1);
            EXPECT_EQ(request.frame(3).result(), i == 1 ? DequeuedBuffer::kBroken : 0);
        });
    }
    EXPECT_EQ(session->statistics()[3].broken, 1U);
    EXPECT_EQ(session->statistics()[3].dequeued, 3U);
    EXPECT_EQ(session->statistics()[0].broken, 0U);
}

TEST_F(SceneSessionTest, WaitHandsOverWhenDequeuedOrAlreadyWhenDone) {
    mEngine.dequeueDelay = 20ms;
    for (const Way& way : {kWays[1], kWays[3]}) {
        const auto session = openStarted(describe(way, 2, 1));
        submit(*session);
        const bool early = way.handOver == HandOver::WhenDone;
        take(*session, [early](SessionRequest& request) {
            EXPECT_EQ(request.frame(0).result() == -EINPROGRESS, early);
        });
        EXPECT_EQ(session->submit({}), early ? -EAGAIN : 0) << "its buffers are not back";
        EXPECT_EQ(session->drain(5s), 0);
    }
}

TEST_F(SceneSessionTest, FramesKeepTheirIndexes) {
    for (const Way& way : kWays)
        for (const unsigned ports : {1U, 3U, 8U})
            for (const int inFlight : {1, 3, 8})
                for (const sim::Order order : {sim::Order::IN_ORDER, sim::Order::RANDOM}) {
                    mEngine.device().setTiming({.order = order, .group = 3U, .patience = 1ms});
                    const auto session = openStarted(describe(way, ports, inFlight));
                    uint64_t first = 0;
                    for (int cycle = 0; cycle < 12; ++cycle) {
                        while (session->submit({}) == 0) {
                        }
                        while (session->wait(5s, {}) == 0) {
                        }
                        if (cycle == 0)
                            first = mEngine.device().counts().remaps;
                    }
                    EXPECT_EQ(session->drain(5s), 0);
                    EXPECT_EQ(mEngine.device().counts().remaps, first)
                        << ports << " ports, " << inFlight << " in flight";
                    for (const PortStatistics& port : session->statistics())
                        EXPECT_EQ(port.remapped, 0U) << port.name;
                }
}

TEST_F(SceneSessionTest, PortsMayHaveAnyIndexes) {
    SessionDesc desc = describe(3);
    desc.ports[0].index = 40;
    desc.ports[2].index = 0;
    const auto session = openStarted(desc);
    for (uint64_t count = 1; count <= 2; ++count) {
        submit(*session);
        take(*session, [](const SessionRequest& request) {
            for (size_t port = 0; port < 3; ++port)
                EXPECT_TRUE(request.frame(port).isGood()) << port;
        });
        for (const PortStatistics& port : session->statistics())
            EXPECT_EQ(port.dequeued, count) << port.name;
    }
}

TEST_F(SceneSessionTest, AWidthAloneKeepsTheDriversSize) {
    SessionDesc desc = describe(1);
    desc.ports[0].width = desc.ports[0].height = 0;
    const auto drivers = openStarted(desc)->format(0);
    desc.ports[0].width = 320;
    desc.ports[0].format = V4L2_PIX_FMT_YUV420M;
    const auto session = openStarted(desc);
    EXPECT_EQ(session->format(0).format, V4L2_PIX_FMT_YUV420M);
    EXPECT_EQ(session->format(0).width, drivers.width);
    EXPECT_EQ(session->format(0).height, drivers.height);
}

TEST_F(SceneSessionTest, ACallbackDrivesIt) {
    for (Way way : kWays) {
        way.handOver = HandOver::WhenDequeued;
        const auto session = open(describe(way, 3, 2));
        std::atomic<int> calls{0};
        session->setDoneCallback([&](SessionRequest& request) {
            EXPECT_TRUE(request.frame(2).isGood());
            if (calls.fetch_add(1) >= 100)
                return;
            uint64_t filled = 0;
            EXPECT_EQ(session->submitAgain(request, [&](auto& next) { filled = next.number(); }),
                      0);
            EXPECT_GT(filled, 0U);
        });
        EXPECT_EQ(session->start(), 0);
        submit(*session, 2);
        EXPECT_EQ(session->drain(10s), 0);
        EXPECT_EQ(calls, 102);
        EXPECT_EQ(session->wait(0ms, {}), -ENOENT);
        EXPECT_EQ(session->submit({}), 0) << "what was not queued again is free";
        EXPECT_EQ(session->stop(5s), 0);
        EXPECT_EQ(session->statistics()[1].dequeued, 103U);
    }
}

TEST_F(SceneSessionTest, StopEndsACallbackThatGoesOnAndOn) {
    const auto session = open(describe(2));
    int last = 0;
    session->setDoneCallback([&](auto& request) { last = session->submitAgain(request); });
    EXPECT_EQ(session->start(), 0);
    submit(*session);
    EXPECT_EQ(test::dumpOf(*session).size(), 5U) << "the monitor and four requests";
    EXPECT_EQ(session->stop(5s), 0);
    EXPECT_EQ(last, -EPIPE);
    EXPECT_EQ(test::dumpOf(*session).size(), 0U);
}

TEST_F(SceneSessionTest, AnEventDescriptorServesALoop) {
    const auto session = open(describe(2));
    pollfd watched{session->eventFd(), POLLIN, 0};
    EXPECT_EQ(session->eventFd(), watched.fd);
    EXPECT_EQ(session->start(), 0);
    mEngine.device().hold();
    submit(*session, 3);
    EXPECT_EQ(poll(&watched, 1, 10), 0);
    mEngine.device().resume();
    for (int taken = 0; taken < 3;) {
        ASSERT_EQ(poll(&watched, 1, 5000), 1);
        while (session->wait(0ms, {}) == 0)
            ++taken;
    }
    submit(*session);
    EXPECT_EQ(poll(&watched, 1, 5000), 1) << "for one alone as well";
    take(*session);
    EXPECT_EQ(poll(&watched, 1, 0), 0) << "nothing is left to be taken";
}

TEST_F(SceneSessionTest, AFailedDequeueLosesItsFrameAndNothingHangs) {
    for (const Way& way : kWays) {
        SCOPED_TRACE(testing::Message() << "mode " << way.mode << way.direct);
        {
            const auto session = openStarted(describe(way, 3, 2));
            for (uint64_t lost = 1; lost <= 2; ++lost) {
                mEngine.faults().fail(sim::Call::ioctl(VIDIOC_DQBUF, "vengine-input"), EIO);
                submit(*session);
                int result = 0;
                take(*session, [&](auto& request) { result = request.frame(1).result(); });
                EXPECT_EQ(session->drain(5s), 0);
                EXPECT_TRUE(result == -EIO || way.handOver == HandOver::WhenDone) << result;
                EXPECT_EQ(session->statistics()[1].lost, lost);
                EXPECT_EQ(session->statistics()[0].dequeued, lost);
            }
            EXPECT_EQ(session->submit({}), -ENOBUFS);
            EXPECT_EQ(session->stop(5s), 0);
        }
        EXPECT_THAT(mLog.take(), Contains(HasSubstr("vengine-input lost a frame, its dequeue "
                                                    "failed: Input/output error"))
                                     .Times(2));
    }
}

TEST_F(SceneSessionTest, ALossIsTheOldestRequests) {
    mEngine.dequeueDelay = 20ms;  // both requests are done when the first one's dequeue fails
    mEngine.loses = true;
    auto session = openStarted(describe(kWays[1], 2, 2));
    submit(*session, 2);
    std::vector<int> results(2);
    for (int i = 0; i < 2; ++i)
        take(*session, [&](auto& request) {
            results.at(request.number()) = request.frame(1).result();
            EXPECT_EQ(request.frame(1).dequeued().result, request.frame(1).result());
        });
    EXPECT_THAT(results, ElementsAre(-EIO, 0));
    session.reset();
    EXPECT_THAT(mLog.take(), Contains(HasSubstr("vengine-input lost a frame")));
}

TEST_F(SceneSessionTest, ALostFrameThatComesBackFreesItsRequest) {
    for (const char* port : {"vengine-main", "vengine-input"}) {
        {
            const auto session = openStarted(describe(2, 2));
            for (int round = 0; round < 2; ++round) {
                mEngine.faults().fail(sim::Call::ioctl(VIDIOC_DQBUF, port), EIO);
                submit(*session);
                take(*session);
                mEngine.device().hold();
                submit(*session);
                EXPECT_EQ(session->submit({}), -EAGAIN) << "one is lost, not both";
                mEngine.device().resume();
                take(*session);
            }
            mEngine.device().hold();
            submit(*session, 2);
            mEngine.device().resume();
            EXPECT_EQ(session->drain(5s), 0);
        }
        EXPECT_THAT(mLog.take(), Contains(HasSubstr("lost a frame")));
    }
}

TEST_F(SceneSessionTest, LossesAmongManyCompletionsAreCountedAndHangNothing) {
    mEngine.device().setTiming({.order = sim::Order::RANDOM, .group = 4U, .patience = 1ms});
    for (const Way& way : kWays)
        for (const unsigned nth : {1U, 5U, 7U}) {
            const auto session = openStarted(describe(way, 3, 8));
            // Of two ports at once, while others complete and are handed over.
            uint64_t lost = 0;
            for (int round = 0; round < 12; ++round) {
                for (const char* port : {"vengine-main", "vengine-mirror"})
                    if (round % 4 == 0 || way.direct)
                        mEngine.faults().fail(sim::Call::ioctl(VIDIOC_DQBUF, port), EIO, nth);
                int refused = 0;
                while ((refused = session->submit({})) == 0) {
                }
                EXPECT_EQ(refused, -EAGAIN) << "what was lost came back";
                while (session->wait(5s, [&lost](SessionRequest& request) {
                    for (size_t i = 0; i < request.frameCount(); ++i)
                        lost += request.frame(i).result() == -EIO ? 1 : 0;
                }) == 0) {
                }
            }
            EXPECT_EQ(session->drain(5s), 0);
            const auto statistics = session->statistics();
            EXPECT_GT(statistics[0].lost, 0U);
            const uint64_t told =
                way.handOver == HandOver::WhenDone ? lost : statistics[0].lost + statistics[2].lost;
            EXPECT_EQ(lost, told);
            // The engine gives the buffers of failed dequeues later: at most the last one's is out.
            EXPECT_GE(statistics[0].queued, 12U * 6);
            EXPECT_EQ(statistics[1].queued, statistics[1].dequeued);
            EXPECT_LE(statistics[0].queued - statistics[0].dequeued, 1U);
            mEngine.faults().clear();
        }
    // Some from the buffer monitor, which expects every dequeue to succeed.
    EXPECT_THAT(mLog.take(),
                Each(testing::AnyOf(HasSubstr("lost a frame"), HasSubstr("Failed to dequeue"),
                                    HasSubstr("After DQBUF"), HasSubstr("needToDQBUF()"))));
}

TEST_F(SceneSessionTest, StopWithRequestsInFlightLosesThemAndANewSessionStreams) {
    for (const unsigned ports : {1U, 4U}) {
        mEngine.device().hold();
        {
            // Handed over when done, with slow dequeues still to come: the stop waits for those.
            SessionDesc desc = describe(ports);
            desc.direct = ports == 1;
            desc.handOver = HandOver::WhenDone;
            mEngine.dequeueDelay = 30ms;
            const auto session = openStarted(desc);
            submit(*session, 3);
            if (ports == 4)  // what is lost is not with the driver
                mEngine.faults().fail(sim::Call::ioctl(VIDIOC_DQBUF, "vengine-main"), EIO);
            mEngine.device().completeNext();
            take(*session);
            EXPECT_EQ(session->stop(20ms), -ETIMEDOUT);
            mEngine.dequeueDelay = 0ms;
            for (const PortStatistics& port : session->statistics())
                EXPECT_EQ(port.dequeued + port.lost, 1U) << port.name;
            EXPECT_EQ(session->stop(0ms), -EPIPE);
            EXPECT_EQ(session->start(), -EBUSY) << "a session starts once";
        }
        EXPECT_THAT(mLog.take(),
                    Contains(HasSubstr("frames still with the driver: vengine-main 2")));
        mEngine.device().resume();
        const auto next = openStarted(ports);
        submit(*next);
        take(*next);
    }
}

TEST_F(SceneSessionTest, TakesNoMoreRequestsThanBuffers) {
    const auto session = open(describe(2, 3));
    EXPECT_EQ(session->submit({}), -EPIPE) << "not started";
    EXPECT_EQ(session->start(), 0);
    EXPECT_EQ(session->wait(0ms, {}), -ENOENT);
    mEngine.device().hold();
    submit(*session, 3);
    EXPECT_EQ(session->submit({}), -EAGAIN);
    EXPECT_EQ(session->inFlight(), 3U);
    EXPECT_EQ(session->wait(10ms, {}), -ETIMEDOUT);
    mEngine.device().completeNext();
    take(*session, [&](SessionRequest&) {
        EXPECT_EQ(session->submit({}), -EAGAIN) << "still being inspected";
    });
    submit(*session);
    mEngine.device().resume();
    EXPECT_EQ(session->drain(5s), 0);
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
