// SPDX-License-Identifier: Apache-2.0
#include <corvane/IRequest.h>
#include <corvane/mc/MediaDevice.h>
#include <corvane/platform/ReqTrack.h>
#include <sys/epoll.h>

#include <stdexcept>

#include "support/Capture.h"
#include "support/FakeKernel.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-MediaDevice";
constexpr char kQueue[] = "MEDIA_REQUEST_IOC_QUEUE 200";
constexpr char kReinit[] = "MEDIA_REQUEST_IOC_REINIT 200";

/** Notes what it is asked between the kernel's calls. */
class NotingMonitor : public IEventMonitor {
public:
    NotingMonitor(FakeKernel& kernel, std::string name) : mKernel(kernel), mName(std::move(name)) {}
    void dumpState(IPrinter*) const override {}
    const char* getThreadName() const override { return "fake"; }
    int attachObserver(IEventObserver* o, uint32_t events) override {
        return note("attach", o, events, attachResult);
    }
    int rearmObserver(IEventObserver* o, uint32_t events) override {
        return note("rearm", o, events, rearmResult);
    }
    int detachObserver(IEventObserver* o) override { return note("detach", o, 0, -EINVAL); }

    int attachResult = 0;
    int rearmResult = 0;

private:
    int note(const char* what, const IEventObserver* observer, uint32_t events, int result) {
        char text[64];
        snprintf(text, sizeof(text), "%s %s %d %#x", mName.c_str(), what, observer->getEventFD(),
                 events);
        return mKernel.note(text), result;
    }
    FakeKernel& mKernel;
    std::string mName;
};

class MediaRequestTest : public testing::Test {
protected:
    MediaRequestTest() {
        mKernel.on<int>(MEDIA_IOC_REQUEST_ALLOC, [](int, int& fd) { return fd = 200, 0; });
        mKernel.answer(MEDIA_REQUEST_IOC_QUEUE, 0);
        mKernel.answer(MEDIA_REQUEST_IOC_REINIT, 0);
        mRequest = std::make_unique<mc::MediaRequest>(7);
        mRequest->setRequestDone([this] { mKernel.note("done"); });
        EXPECT_EQ(mRequest->setMonitor(mMonitor), 0);
        EXPECT_EQ(mKernel.takeCalls(),
                  Lines({"MEDIA_IOC_REQUEST_ALLOC 7", "m attach 200 0x40000002"}));
    }

    FakeKernel mKernel;
    LogCapture mLog{kTag};
    std::shared_ptr<NotingMonitor> mMonitor = std::make_shared<NotingMonitor>(mKernel, "m");
    std::unique_ptr<mc::MediaRequest> mRequest;
};

TEST_F(MediaRequestTest, RunsACycleAndIsIdleWhenTheCallbackRuns) {
    unsigned long track[reqtrack::kTrackBufferWords] = {};
    mRequest->setTrackBuffer(track);
    EXPECT_EQ(mRequest->getTrackBuffer(), track);
    mRequest->setRequestDone([this] {
        mKernel.note("done");
        mRequest->setTrackBuffer(nullptr);
        EXPECT_EQ(mRequest->queueRequest(), 0);
    });
    EXPECT_EQ(mRequest->queueRequest(), 0);
    const auto info = mRequest->getDebugInfo();
    EXPECT_EQ(info->done.tv_sec, 0);
    mRequest->onEvent({EPOLLPRI});
    EXPECT_EQ(mKernel.takeCalls(), Lines({kQueue, "m rearm 200 0x40000002", kReinit, "done", kQueue,
                                          "m rearm 200 0x40000002"}));
    for (const auto* stamp : {&info->queueStart, &info->queued, &info->done})
        EXPECT_NE(stamp->tv_sec, 0);
    for (const auto* stamp :
         {&info->created, &info->filled, &info->reported, &info->consumed, &info->released})
        EXPECT_EQ(stamp->tv_sec, 0);
    for (unsigned station = 0; station < reqtrack::kDone; ++station)
        EXPECT_NE(track[station], 0U) << station;
    EXPECT_EQ(track[reqtrack::kDone], 0U) << "the owner's to stamp";
    ASSERT_EQ(System::openFds().size(), 1U);
    EXPECT_EQ(System::openFds()[0].owner, reinterpret_cast<unsigned long>(mRequest.get()));
    mRequest.reset();
    EXPECT_EQ(System::openFds().size(), 0U);
    EXPECT_EQ(mKernel.takeCalls(), Lines({"m detach 200 0", "close 200"}));
    EXPECT_EQ(mLog.take(), Lines());
}

TEST_F(MediaRequestTest, LetsErrorsAndUnwantedEventsPass) {
    mRequest->onEvent({EPOLLERR | EPOLLPRI});
    mRequest->onEvent({EPOLLIN});
    mRequest->queueRequest();
    mRequest->onEvent({EPOLLERR | EPOLLPRI});
    EXPECT_EQ(mKernel.takeCalls(), Lines({kQueue, "m rearm 200 0x40000002"}));
    EXPECT_EQ(mLog.take(),
              Lines({"I [onEvent] Unwanted events: fd=200 events(wanted/reported)="
                     "(0x40000002/0x1)",
                     "E [onEvent] EPOLLERR: fd=200 with originally-set events=0x40000002 is "
                     "reporting events=0xa with EPOLLERR."}));
}

TEST_F(MediaRequestTest, ARefusedQueueIsUndoneByReinitAlone) {
    mKernel.answer(MEDIA_REQUEST_IOC_QUEUE, -EINVAL);
    EXPECT_TRUE(mRequest->reinit());  // idle: no call
    EXPECT_EQ(mRequest->queueRequest(), -EINVAL);
    EXPECT_EQ(mLog.take(), Lines({"E [queueRequest] Failed to queue media request(200): -22"}));
    expectFatal({{[this] { mRequest->queueRequest(); }, kTag, "queueRequest",
                  "Bad media request state:4 -> QUEUING"}});
    EXPECT_TRUE(mRequest->reinit());
    EXPECT_EQ(mRequest->queueRequest(), -EINVAL);
    EXPECT_EQ(mKernel.takeCalls(), Lines({kQueue, kReinit, kQueue}));
}

TEST_F(MediaRequestTest, TellsOfAMonitorThatCannotWatchIt) {
    const auto other = std::make_shared<NotingMonitor>(mKernel, "n");
    other->attachResult = -EBADF;
    EXPECT_EQ(mRequest->setMonitor(other), -EBADF);
    EXPECT_EQ(mRequest->queueRequest(), -EBADF);
    EXPECT_EQ(mLog.take(), Lines({"E [setMonitor] fake cannot watch request fd=200, so it cannot "
                                  "be queued: -9(Bad file descriptor)",
                                  "E [queueRequest] Failed to queue media request(200): -9"}));
    EXPECT_EQ(mKernel.takeCalls(), Lines({"m detach 200 0", "n attach 200 0x40000002"}));

    EXPECT_EQ(mRequest->setMonitor(nullptr), 0);
    EXPECT_EQ(mRequest->setMonitor(mMonitor), 0);
    mRequest->reinit();
    mMonitor->rearmResult = -ENOMEM;
    EXPECT_EQ(mRequest->queueRequest(), 0) << "the driver has it";
    EXPECT_EQ(mLog.take(),
              Lines({"E [queueRequest] Request fd=200 is queued, but fake cannot watch it: its "
                     "completion will not be reported: -12(Cannot allocate memory)"}));
}

TEST_F(MediaRequestTest, EndsOnConsistencyErrorsAndExceptions) {
    const auto complete = [this](std::function<void()> done) {
        return [this, done] {
            mRequest->setRequestDone(done);
            mRequest->onEvent({EPOLLPRI});
        };
    };
    const auto queueTwice = [this] {
        mRequest->queueRequest();
        mRequest->queueRequest();
    };
    const auto loseMonitor = [this] {
        mMonitor.reset();
        mRequest->queueRequest();
    };
    const auto failReinit = [this] {
        mKernel.answer(MEDIA_REQUEST_IOC_REINIT, -EBUSY);
        mRequest->onEvent({EPOLLPRI});
    };
    expectFatal({
        {queueTwice, kTag, "queueRequest", "Bad media request state:2 -> QUEUING"},
        {loseMonitor, kTag, "queueRequest", "Bad monitor"},
        {complete(nullptr), kTag, "onEvent", "No request done callback"},
        {complete([] { throw std::runtime_error("thrown"); }), kTag, "onEvent",
         "exception: thrown"},
        {failReinit, kTag, "reinit", "Failed to reinit media request: -16"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
