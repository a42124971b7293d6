// SPDX-License-Identifier: Apache-2.0
#include <corvane/IRequest.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/platform/ReqTrack.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <future>
#include <thread>

#include "support/Recorders.h"

namespace NSVista::NSCorvane::test {
namespace {

constexpr char kTag[] = "corvane-SceneControl";

class RequestTest : public testing::Test {
protected:
    RequestTest() {
        mKernel.setCapabilities(V4L2_CAP_VIDEO_CAPTURE);
        mKernel.answer(VIDIOC_REQBUFS, 0);
        mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [this](int fd, v4l2_buffer& buffer) {
            EXPECT_EQ(buffer.request_fd, 200);
            mQueued.push_back(mKernel.pathOf(fd) + " " + std::to_string(buffer.m.fd));
            return fd == mRefusing ? -EINVAL : 0;
        });
        for (const auto& port : {mA, mB}) {
            port->init();
            port->importBuffer(12);
        }
        mLog.take();
    }
    ~RequestTest() override {
        mA->deinit();
        mB->deinit();
    }
    void add(int port, int fd) {
        const auto fill = [fd](FrameBuffer& buffer) {
            buffer.planes[0] = {fd, 1, 2};
            buffer.planeCount = 1;
        };
        EXPECT_EQ(mRequest->addBuffer(port, fill), 0);
    }
    Lines takeQueued() {
        std::sort(mQueued.begin(), mQueued.end());
        return std::exchange(mQueued, {});
    }
    FakeMediaRequest& media() { return *mMedia.request; }

    static constexpr PortDesc kA = {"a", 1, "va", true, true, false};
    static constexpr PortDesc kB = {"b", 0x1a, "vb", false, false, true};
    FakeKernel mKernel;
    LogCapture mLog{kTag};
    NotingMediaDevice mMedia{mKernel};
    std::shared_ptr<Port> mA = std::make_shared<Port>(kA, &mMedia);
    std::shared_ptr<Port> mB = std::make_shared<Port>(kB, &mMedia);
    std::vector<int> mDone;  ///< the ports of the last completion
    Request::QueryPort mQuery = [this](int index) {
        return index == 0x1a ? mB : index != 99 ? mA : nullptr;
    };
    std::shared_ptr<Request> mRequest = std::make_shared<Request>(
        &mMedia, mQuery,
        [this](Request*, int* ports, size_t count) { mDone.assign(ports, ports + count); });
    int mRefusing = -1;
    Lines mQueued;
};

TEST_F(RequestTest, RunsCyclesAndRemembersItsPorts) {
    unsigned long track[reqtrack::kTrackBufferWords] = {};
    mRequest->setTrackBuffer(track);
    add(0x1a, 5);
    add(1, 6);
    EXPECT_EQ(mRequest->queueRequest(0), 0);
    EXPECT_EQ(takeQueued(), Lines({"/dev/va 6", "/dev/vb 5"}));
    EXPECT_EQ(mRequest->toString(), "{ .requestFD=200 .state=2 }");
    media().done();
    EXPECT_EQ(mDone, std::vector<int>({0x1a, 1}));
    EXPECT_NE(reqtrack::stamp(track, reqtrack::kDone), 0U);
    add(1, 7);
    EXPECT_EQ(mRequest->queueRequest(0), 0);
    EXPECT_EQ(takeQueued(), Lines({"/dev/va 7", "/dev/vb 5"})) << "a port once added is queued";
    media().done();
    EXPECT_EQ(mDone, std::vector<int>({1}));
    EXPECT_EQ(mRequest->getStatus(), 0);
}

TEST_F(RequestTest, PrintsItsTimesAndTakesARefusedMonitor) {
    EXPECT_EQ(mRequest->setMonitor(nullptr), 0);
    EXPECT_EQ(mRequest->toString(), "{ .requestFD=200 .state=0 }");
    media().debugInfo = std::make_shared<RequestDebugInfo>();
    EXPECT_EQ(mRequest->toString(), "{ .requestFD=200 .state=0 #A=-#B=-#C=-#D=-#E=-#F=-#G=-#H=- }");
    EXPECT_EQ(mA->toString(), " 0x1(a) type=0 singledev");
    EXPECT_EQ(mB->toString(), " 0x1a(b) type=2");
}

TEST_F(RequestTest, MayBeRefilledAndDestroyedByItsDoneHandler) {
    const auto fillAndQueue = [this] {
        for (const auto& port : {mA, mB})
            port->importBuffer(64);
        for (int port = 2; port < 67; ++port)  // but for one all are port a; more than fit in place
            add(port, port);
        EXPECT_EQ(mRequest->queueRequest(0), 0);
    };
    int rounds = 0;
    mRequest = std::make_shared<Request>(&mMedia, mQuery, [&](Request*, int* ports, size_t count) {
        EXPECT_EQ(count, 65U);
        EXPECT_EQ(ports[count - 1], 66);
        ++rounds == 1 ? fillAndQueue() : mRequest.reset();
    });
    fillAndQueue();
    const auto done = media().done;
    done();
    done();
    EXPECT_EQ(rounds, 2);
    EXPECT_EQ(mRequest, nullptr);

    Request unheard(&mMedia, mQuery, nullptr);
    EXPECT_EQ(unheard.queueRequest(0), 0);
    media().done();
    EXPECT_EQ(unheard.toString(), "{ .requestFD=200 .state=0 }");
}

TEST_F(RequestTest, CompletesOnlyOnceItIsQueued) {
    std::thread completion;
    mRequest->addBuffer(1, [](FrameBuffer&) {});
    mKernel.on<v4l2_buffer>(VIDIOC_QBUF, [&](int, v4l2_buffer&) {
        completion = std::thread([this] { media().done(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        EXPECT_TRUE(mDone.empty());
        return 0;
    });
    mRequest->queueRequest(0);
    add(1, 8);  // waits for the completion
    completion.join();
    EXPECT_EQ(mDone, std::vector<int>({1}));
}

TEST_F(RequestTest, ReturnsARefusedBufferAndStaysIdle) {
    add(1, 5);
    mRefusing = FakeKernel::kFirstFd;
    EXPECT_EQ(mRequest->queueRequest(0), -EINVAL);
    EXPECT_EQ(mLog.take(), Lines({"E [queueBuffers] Failed to queue buffer to port a",
                                  "E [queueRequest] Failed to queue request's buffers"}));
    EXPECT_EQ(mRequest->toString(), "{ .requestFD=200 .state=0 }");
    mRefusing = -1;
    EXPECT_EQ(mRequest->queueRequest(0), 0) << "the buffer is still filled";
    EXPECT_EQ(takeQueued(), Lines({"/dev/va 5", "/dev/va 5"}));
}

TEST_F(RequestTest, EndsOnConsistencyErrors) {
    const auto addTwice = [this](FrameBuffer filled) {
        return [=, this] {
            for (int i = 0; i < 2; ++i)
                mRequest->addBuffer(0x1a, [&filled](FrameBuffer& buffer) { buffer = filled; });
        };
    };
    const auto noDevice = [this] {
        mA->deinit();
        add(1, 1);
        mRequest->queueRequest(0);
    };
    const auto noQuery = [this] {
        Request request(&mMedia, nullptr, nullptr);
        request.addBuffer(1, [](FrameBuffer&) {});
        request.queueRequest(0);
    };
    const auto refusal = [](const std::string& buffer) {
        return Lines{"[addBuffer] (0x1a, " + buffer + ") has existed\n",
                     "[addBuffer] Something wrong - Request={ .requestFD=200 .state=0 }",
                     "[addBuffer] Existed (0x1a, " + buffer + ")\n"};
    };
    const std::string none = " .fd=0 .offset=0 .bufsize=0";
    expectFatal({
        {addTwice({{{5, 6, 7}, {8, 9, 10}, {}}, 2}), kTag, "addBuffer", "FATAL",
         refusal("{ .planes[2]={ .fd=5 .offset=6 .bufsize=7 .fd=8 .offset=9 .bufsize=10 } }")},
        {addTwice({{}, 4}), kTag, "addBuffer", "FATAL",
         refusal("{ .planes[4]={" + none + none + none + " } }")},
        {noDevice, kTag, "queueBuffers", "Bad VideoDevice"},
        {noQuery, kTag, "queueBuffers", "Bad function"},
    });
    EXPECT_EXIT(Request(nullptr, mQuery, nullptr), testing::KilledBySignal(SIGABRT),
                InOrder(Lines{"[Request] 0x", ": Bad MediaRequest - mediaDev=(nil) (Request){#"}));
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
