// SPDX-License-Identifier: Apache-2.0
#include <corvane/DequeuedBuffer.h>
#include <corvane/IPort.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/V4L2VideoDevice.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/TimeBomb.h>
#include <dlfcn.h>
#include <linux/videodev2.h>
#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <future>
#include <stdexcept>
#include <thread>

#include "support/Recorders.h"

namespace {
std::atomic<bool> sNoThreads{false};
std::atomic<int> sThreads{0};
}  // namespace

/** Stands before the C library's; visible, which not every C++ library's headers make it. */
extern "C" [[gnu::visibility("default")]] int pthread_create(pthread_t* thread,
                                                             const pthread_attr_t* attributes,
                                                             void* (*start)(void*),
                                                             void* argument) {
    static const auto next =
        reinterpret_cast<decltype(&pthread_create)>(dlsym(RTLD_NEXT, "pthread_create"));
    ++sThreads;
    return sNoThreads ? EAGAIN : next(thread, attributes, start, argument);
}

namespace NSVista::NSCorvane::test {
namespace {

using namespace std::chrono_literals;
using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::MatchesRegex;

constexpr char kTag[] = "corvane-SceneControl";

class SceneTest : public testing::Test {
protected:
    SceneTest() {
        mKernel.setCapabilities(V4L2_CAP_VIDEO_CAPTURE);
        for (const unsigned long request : {VIDIOC_REQBUFS, VIDIOC_QBUF, VIDIOC_STREAMON,
                                            VIDIOC_STREAMOFF, VIDIOC_G_FMT, VIDIOC_S_FMT})
            mKernel.answer(request, 0);
        mKernel.on<v4l2_buffer>(VIDIOC_DQBUF, [](int, v4l2_buffer& buffer) {
            buffer.flags = V4L2_BUF_FLAG_REQUEST_FD;
            buffer.request_fd = 200;
            return 0;
        });
    }
    ~SceneTest() override { close(); }
    /** A scene of nodes "v0" and so on, whose ports have these indexes. */
    void make(std::vector<int> indexes, std::vector<LinkDesc> links = {}) {
        static const char* const kNames[] = {"v0", "v1", "v2", "v3", "v4"};
        close();
        mPorts.clear();
        for (const int index : indexes) {
            const char* const name = kNames[mPorts.size()];
            mPorts.push_back({name, index, name, false, false, false});
        }
        mLinks = std::move(links);
        mDesc = {"scene",
                 nullptr,
                 static_cast<int32_t>(mPorts.size()),
                 mPorts.data(),
                 static_cast<int32_t>(mLinks.size()),
                 mLinks.data()};
        mScene = std::make_unique<Scene>(nullptr, mDesc, mMedia);
    }
    /** A scene that is initialised and acquired, with buffers. */
    void open(std::vector<int> indexes) {
        make(std::move(indexes));
        EXPECT_EQ(mScene->init(), 0);
        EXPECT_EQ(mScene->acquire(), 0);
        mScene->iteratePorts([this](const auto& port) {
            EXPECT_EQ(mScene->importBuffer(port, 2), 0);
            return true;
        });
        mKernel.takeCalls();
        mLog.take();
    }
    void close() {
        if (mScene != nullptr)
            mScene->uninit();
        mScene.reset();
    }
    void fill(IRequest& request, std::vector<int> ports) {
        for (const int port : ports)
            request.addBuffer(port, [](FrameBuffer& buffer) { buffer.planeCount = 1; });
    }
    void cycle(IRequest& request, std::vector<int> ports) {
        fill(request, std::move(ports));
        EXPECT_EQ(mScene->queueRequest(&request, 0), 0);
        mMedia->request->done();
    }
    /** The kernel's calls without the nodes' classing. */
    Lines calls() {
        Lines calls;
        for (auto& call : mKernel.takeCalls())
            if (call.find("VIDIOC_QUERYCAP") == std::string::npos)
                calls.push_back(std::move(call));
        return calls;
    }
    Lines stall() {
        LinePrinter printer;
        mScene->explainStall(&printer);
        return printer.lines;
    }
    /** The log with processor times cut off. */
    Lines log() {
        Lines lines = mLog.take();
        for (auto& line : lines)
            if (const size_t time = line.find(" (cputime "); time != std::string::npos)
                line.erase(time);
        return lines;
    }

    /** What the calls log that need an acquired scene, and are refused. */
    Lines refusals(const std::shared_ptr<IPort>& port) {
        PixelFormat format = {};
        EXPECT_EQ(mScene->start(), -1);
        EXPECT_EQ(mScene->getFormat(port, format), -1);
        EXPECT_EQ(mScene->setFormat(port, format), -1);
        EXPECT_EQ(mScene->importBuffer(port, 1), -1);
        return log();
    }
    static Lines refusalsOf(const Lines& reasons) {
        Lines lines = {"I [start] + Scene::start"};
        for (const char* call : {"start", "getFormat", "setFormat", "importBuffer"})
            for (const auto& reason : reasons)
                lines.push_back(std::string("E [") + call + "] " + reason);
        return lines;
    }

    FakeKernel mKernel;
    LogCapture mLog{kTag};
    ReportCapture mReports;
    std::shared_ptr<NotingMediaDevice> mMedia = std::make_shared<NotingMediaDevice>(mKernel);
    std::vector<PortDesc> mPorts;
    std::vector<LinkDesc> mLinks;
    SceneDesc mDesc = {};
    std::unique_ptr<Scene> mScene;
};

const std::vector<LinkDesc> kLinks = {{"a", 0, "b", 17}, {nullptr, 1, nullptr, 2}};

TEST_F(SceneTest, OpensPortsThenEnablesLinksAndUndoesBoth) {
    mLog.setLevel(Utils::ULog::kKeyEvent);
    make({0, 1}, kLinks);
    EXPECT_EQ(mScene->init(), 0);
    EXPECT_EQ(calls(), Lines({"open /dev/v0 0x802", "open /dev/v1 0x802", "link 1 a:0-b:17",
                              "link 1 :1-:2"}));
    mScene->uninit();
    Lines undone = calls();
    std::sort(undone.begin() + 2, undone.end());
    EXPECT_EQ(undone, Lines({"link 0 a:0-b:17", "link 0 :1-:2", "close 100", "close 101"}));
    EXPECT_EQ(log(),
              Lines({"K [init] Scene::init - scene ret:1", "K [uninit] Scene::uninit - scene"}));
    EXPECT_EQ(mScene->getNumOfPorts(), 2U) << "the ports stay in the table";
}

TEST_F(SceneTest, UndoesItsInitWhenAPortFails) {
    mKernel.openResults["/dev/v2"] = -ENODEV;
    mLog.setLevel(Utils::ULog::kKeyEvent);
    make({0, 1, 0x1a, 3, 4}, kLinks);
    EXPECT_EQ(mScene->init(), -1);
    Lines made = calls();
    std::sort(made.begin() + 5, made.end());
    EXPECT_EQ(made, Lines({"open /dev/v0 0x802", "open /dev/v1 0x802", "open /dev/v2 0x802",
                           "link 0 a:0-b:17", "link 0 :1-:2", "close 100", "close 101"}));
    EXPECT_EQ(log(),
              Lines({"E [init] v2: Failed to open port",
                     "E [initPorts] { .port_name=v2(1a) .device_name=v2 }: Port::init",
                     "K [uninit] Scene::uninit - scene", "K [init] Scene::init - scene ret:0"}));
}

TEST_F(SceneTest, UndoesItsInitWhenALinkFails) {
    mMedia->refusedLink = "link 1 a:0-b:17";
    make({0}, kLinks);
    EXPECT_EQ(mScene->init(), -1);
    EXPECT_EQ(calls(), Lines({"open /dev/v0 0x802", "link 1 a:0-b:17", "link 0 a:0-b:17",
                              "link 0 :1-:2", "close 100"}));
    mMedia->refusedLink = "link 1 :1-:2";
    make({0}, kLinks);
    EXPECT_EQ(mScene->init(), -1);
    EXPECT_EQ(log(), Lines({"E [initLinks] a(0)-b(11): Failed on enableLink",
                            "E [initLinks] (1)-(2): Failed on enableLink"}));
}

TEST_F(SceneTest, KeepsTheFirstPortOfAnIndexAndClosesTheOther) {
    make({7, 7});
    EXPECT_EQ(mScene->init(), 0);
    EXPECT_EQ(log(), Lines({"E [addPort] Port index 0x7 has already existed"}));
    EXPECT_EQ(calls(), Lines({"open /dev/v0 0x802", "open /dev/v1 0x802", "close 101"}));
    EXPECT_EQ(mScene->queryPort(7)->getName(), "v0");
    EXPECT_EQ(mScene->addPort(nullptr), 0);
    EXPECT_EQ(mScene->addPort(mScene->queryPort(7)), -1);

    make({0, 1, 2});
    mScene->init();
    int visited = 0;
    mScene->iteratePorts([&](const auto&) { return ++visited < 2; });
    EXPECT_EQ(visited, 2);
}

TEST_F(SceneTest, TakesNegativeCountsForNone) {
    make({1}, kLinks);
    mDesc.num_ports = -1;
    mDesc.num_links = -5;
    EXPECT_EQ(mScene->init(), 0);
    EXPECT_EQ(mScene->getNumOfPorts(), 0U);
    EXPECT_EQ(mScene->queryPort(31), nullptr);
    EXPECT_EQ(log(), Lines({"E [queryPort] Invalid port index: 0x1f"}));
    EXPECT_EQ(calls(), Lines());
}

TEST_F(SceneTest, PrintsPortDescriptions) {
    const struct {
        PortDesc desc;
        const char* text;
    } cases[] = {
        {{"dip", 26, "video3", true, true, false},
         "{ .port_name=dip(1a) .device_name=video3 .single_device }"},
        {{"dip", -1, "video3", false, false, true},
         "{ .port_name=dip(ffffffff) .device_name=video3 .ctrl_meta }"},
        {{nullptr, 26, "v", false, true, true}, "{(1a) .device_name=v .single_device .ctrl_meta }"},
        {{"dip", 0, nullptr, false, false, false}, "{ .port_name=dip(0) }"},
    };
    mKernel.openResults["/dev/video3"] = -EIO;
    for (const auto& c : cases) {
        const SceneDesc desc = {nullptr, nullptr, 1, &c.desc, 0, nullptr};
        Scene scene(nullptr, desc, mMedia);
        if (c.desc.port_name == nullptr || c.desc.device_name == nullptr) {
            expectFatal({{[&] { scene.init(); }, kTag, "initPorts",
                          std::string(c.text) + ": Bad port/device name"}});
            continue;
        }
        EXPECT_EQ(scene.init(), -1);
        EXPECT_EQ(log().at(1), std::string("E [initPorts] ") + c.text + ": Port::init");
    }
}

TEST_F(SceneTest, RefusesCallsInTheWrongState) {
    open({0});
    const std::shared_ptr<IPort> port = mScene->queryPort(0);
    const auto request = mScene->createRequest();
    EXPECT_EQ(mScene->stop(), -1);
    EXPECT_EQ(mScene->queueRequest(request.get(), 0), -1);
    EXPECT_EQ(mScene->release(), 0);
    const std::string first = "scene: it is ACQUIRED, start() comes first";
    EXPECT_EQ(log(),
              Lines({"I [stop] + Scene::stop", "E [stop] state 1 != STARTED", "E [stop] " + first,
                     "E [queueRequest] state 1 != STARTED", "E [queueRequest] " + first}));
    EXPECT_EQ(refusals(port),
              refusalsOf({"state 0 != ACQUIRED", "scene: it is IDLE, acquire() comes first"}));
}

TEST_F(SceneTest, IsRefusedEverythingAfterItsEnd) {
    open({0});
    const auto port = mScene->queryPort(0);
    const auto request = mScene->createRequest();
    mScene->uninit();
    mKernel.takeCalls();
    EXPECT_EQ(mScene->init(), 0) << "though the ports stay as they are";
    mKernel.takeCalls();
    mLog.take();
    EXPECT_EQ(refusals(port),
              refusalsOf({"scene: uninitialised, or its init() failed: build a new scene"}));
    PixelFormat format = {};
    EXPECT_EQ(port->getFormat(format), -ENODEV);
    EXPECT_EQ(port->setFormat(format), -ENODEV);
    EXPECT_EQ(port->importBuffer(1), -ENODEV);
    EXPECT_EQ(port->start(), -ENODEV);
    EXPECT_EQ(port->stop(), -ENODEV);
    EXPECT_EQ(port->setMonitor(nullptr), -ENODEV);
    EXPECT_EQ(log().at(0), "E [getFormat] v0: No video device before init() and after deinit()");
    EXPECT_EQ(port->getVideoDevice(), nullptr);
    EXPECT_EQ(mKernel.takeCalls(), Lines());
}

TEST_F(SceneTest, TellsWhyANodeCannotBeOpened) {
    const std::string denied = "E [init] v0: /dev/v0: permission denied";
    const struct {
        int error, stat;
        unsigned int group;
        std::string hint;
    } cases[] = {
        {-EACCES, 0, 0,
         denied + ": its group is root, its mode 0000; the process must be in that group"},
        {-EPERM, 0, 54321,
         denied + ": its group is 54321, its mode 0000; the process must be in that group"},
        {-EACCES, -EACCES, 0, denied + " on the way to it"},
        {-EBUSY, 0, 0, "E [init] v0: /dev/v0 is in use and takes one user at a time"},
        {-ENODEV, 0, 0, "E [initPorts] { .port_name=v0(0) .device_name=v0 }: Port::init"},
    };
    for (const auto& c : cases) {
        mKernel.openResults["/dev/v0"] = c.error;
        mKernel.group = c.group;
        mKernel.statResults["/dev/v0"] = c.stat;
        make({0});
        EXPECT_EQ(mScene->init(), -1);
        EXPECT_EQ(log().at(1), c.hint);
    }
}

TEST_F(SceneTest, ClosesAPortThatFailsAfterItsOpening) {
    mKernel.on<v4l2_capability>(VIDIOC_QUERYCAP, [](int, v4l2_capability&) { return 0; });
    make({0});
    EXPECT_EQ(mScene->init(), -1);
    EXPECT_EQ(calls(), Lines({"open /dev/v0 0x802", "close 100"})) << "it cannot stream";
}

TEST_F(SceneTest, NamesThePortWhoseDeviceRefuses) {
    open({0});
    const std::shared_ptr<IPort> port = mScene->queryPort(0);
    PixelFormat format = {};
    for (const unsigned long request : {VIDIOC_G_FMT, VIDIOC_S_FMT, VIDIOC_REQBUFS})
        mKernel.answer(request, -EIO);
    EXPECT_EQ(mScene->getFormat(port, format), -EIO);
    EXPECT_EQ(mScene->setFormat(port, format), -EIO);
    EXPECT_EQ(mScene->importBuffer(port, 2), -EIO);
    EXPECT_EQ(log(), Lines({"E [getFormat] v0: Failed to get format",
                            "E [setFormat] v0: Failed to set format",
                            "E [importBuffer] v0: Failed to import buffer"}));
}

TEST_F(SceneTest, StreamsRequests) {
    open({0, 1});
    EXPECT_EQ(mScene->start(), 0);
    EXPECT_EQ(calls(), Lines({"VIDIOC_STREAMON 101", "VIDIOC_STREAMON 100"}));
    EXPECT_EQ(log(), Lines({"I [start] + Scene::start", "I [start] - Scene::start"}));
    const auto info = mScene->getDebugInfo();
    EXPECT_NE(info->streamOnBegin.tv_sec, 0);
    EXPECT_NE(info->streamOnEnd.tv_sec, 0);
    EXPECT_EQ(info->streamOffBegin.tv_sec, 0);

    auto request = mScene->createRequest();
    cycle(*request, {1, 0});  // heard by nobody
    EXPECT_EQ(log(), Lines({"W [requestDone] Bad request done callback"}));
    IRequest* heard = nullptr;
    mScene->setRequestDoneCallback([&](IRequest* done) { heard = done; });
    cycle(*request, {1, 0});
    EXPECT_EQ(heard, request.get());
    mScene->requestDone(nullptr, nullptr, 0);
    EXPECT_EQ(log(), Lines({"W [requestDone] Bad request"}));
    Lines dump;
    while (dump.empty() || dump[1].find("#DQBUF=4 #ReqDone=4 #QBUF=4") == std::string::npos)
        dump = dumpOf(*mScene);
    EXPECT_EQ(dump[0], "<<Scene>> state=STARTED #Request(Queued,Done)=(2,2)");
    EXPECT_EQ(dump[2], "    mPortObserverMap[2]={ (0x1) (0) }");
    EXPECT_THAT(dump.back(), HasSubstr("V4L2VideoDevice: 100 -> /dev/v0 0x0(v0)"));
    ASSERT_EQ(dump.size(), 6U);

    mKernel.answer(VIDIOC_QBUF, -EINVAL);
    fill(*request, {1, 0});
    EXPECT_EQ(mScene->queueRequest(request.get(), 0), -EINVAL);
    EXPECT_EQ(log().back(),
              "E [queueRequest] Failed to queue request: { .requestFD=200 .state=0 }");
    EXPECT_THAT(stall(), Contains(HasSubstr("request 2 (fd 200): its queueing was refused")));
    request.reset();
    EXPECT_THAT(stall(), Each(Not(HasSubstr("request ")))) << "it is gone";
    EXPECT_EQ(mScene->stop(), 0);
    EXPECT_EQ(log(), Lines({"I [stop] + Scene::stop", "I [stop] - Scene::stop"})) << "all done";
    EXPECT_NE(info->streamOffEnd.tv_sec, 0);
    dump = dumpOf(*mScene);
    EXPECT_EQ(dump[0], "<<Scene>> state=ACQUIRED #Request(Queued,Done)=(2,2)");
    EXPECT_THAT(dump[1], HasSubstr(".mActive=0 }"));
}

TEST_F(SceneTest, StreamsAsItWasChosenBefore) {
    open({0, 1, 2});
    Lines told;
    EXPECT_EQ(mScene->setDirectDequeue(true), 0);
    EXPECT_EQ(mScene->setKeepIndexes(true), 0);
    const auto tell = [&](const DequeuedBuffer& buffer) {
        told.push_back(std::to_string(buffer.portIndex) + " " + std::to_string(buffer.result));
    };
    EXPECT_EQ(mScene->setBufferDequeuedCallback(tell), 0);
    EXPECT_EQ(mScene->start(), 0);
    mLog.take();
    EXPECT_EQ(mScene->setDirectDequeue(false), -1);
    EXPECT_EQ(mScene->setKeepIndexes(false), -1);
    EXPECT_EQ(mScene->setBufferDequeuedCallback(nullptr), -1);
    EXPECT_EQ(log().front(), "E [setDirectDequeue] Only before start()");
    Lines toldByThen;
    mScene->setRequestDoneCallback([&](IRequest*) { toldByThen = std::exchange(told, {}); });
    const auto request = mScene->createRequest();
    for (int cycle = 0; cycle < 3; ++cycle) {
        for (const int port : {1, 2, 0})
            request->addBuffer(port, [cycle](FrameBuffer& buffer) {
                buffer = {{{cycle, 0, 0}, {}, {}}, 1};
            });
        EXPECT_EQ(mScene->queueRequest(request.get(), 0), 0);
        mMedia->request->done();
        EXPECT_EQ(toldByThen, Lines({"1 0", "2 0", "0 0"})) << "in the order of addBuffer()";
    }
    EXPECT_THAT(dumpOf(*mScene)[1], HasSubstr("#DQBUF=9 #ReqDone=0 #QBUF=9"));
    mScene->iteratePorts([](const auto& port) {
        const auto device = std::static_pointer_cast<Port>(port)->getVideoDevice();
        EXPECT_EQ(std::static_pointer_cast<V4L2VideoDevice>(device)->remappedBuffers(), 1U)
            << "the third memory at two indexes";
        return true;
    });
}

TEST_F(SceneTest, TakesCallbacksThatAreBusyAllTheTimeForNoneThatHangs) {
    std::atomic<int> told{0};
    timeguard::TimeBomb::setExpiryHandler([&told](const auto&...) { ++told; });
    open({0});
    mScene->start();
    mScene->setRequestDoneCallback([](IRequest*) { std::this_thread::sleep_for(300ms); });
    const auto request = mScene->createRequest();
    for (int i = 0; i < 15; ++i) {  // a look each second meets one, the limit is three
        cycle(*request, {0});
    }
    EXPECT_EQ(told, 0);
    mScene->stop();
    timeguard::TimeBomb::setExpiryHandler(nullptr);
}

TEST_F(SceneTest, RequestsComeAndGoInTheirCallbacks) {
    open({0});
    mScene->start();
    auto request = mScene->createRequest();
    std::shared_ptr<IRequest> next;
    Lines inside;
    mScene->setRequestDoneCallback([&](IRequest*) {
        request.reset();
        next = mScene->createRequest();
        inside = stall();
    });
    fill(*request, {0});
    EXPECT_EQ(mScene->queueRequest(request.get(), 0), 0);
    const auto done = mMedia->request->done;
    done();
    EXPECT_EQ(request, nullptr);
    EXPECT_THAT(inside,
                Contains(HasSubstr("request 0 (fd 200): in its done callback, completed ")));
    EXPECT_THAT(stall(), Each(Not(HasSubstr("callback"))));
    mScene->stop();
}

TEST_F(SceneTest, HasItsWorkerBeforeItStreamsAndStopsOnlyThen) {
    open({0});
    timeguard::TimeBomb::make("first", 1000000000, 0, "makes the guards' thread");
    const int threads = sThreads;
    std::future<int> stopped;
    mKernel.on<uint32_t>(VIDIOC_STREAMON, [&](int, uint32_t&) {
        EXPECT_EQ(sThreads, threads + 1) << "its worker";
        stopped = std::async(std::launch::async, [this] { return mScene->stop(); });
        EXPECT_EQ(stopped.wait_for(50ms), std::future_status::timeout) << "it starts still";
        return 0;
    });
    EXPECT_EQ(mScene->start(), 0);
    EXPECT_EQ(stopped.get(), 0);
}

TEST_F(SceneTest, StartsAgainWithoutItsMonitor) {
    open({0});
    const auto request = mScene->createRequest();
    for (int round = 0; round < 2; ++round) {
        EXPECT_EQ(mScene->start(), 0);
        if (round == 1) {
            EXPECT_EQ(mScene->queueRequest(request.get(), 0), 0);
        }
        mLog.take();
        EXPECT_EQ(mScene->stop(), 0);
    }
    EXPECT_EQ(log().at(1),
              "W [stop] scene: 1 request(s) are with the driver: drain them, or take their event "
              "monitor away, before stop()");
    EXPECT_EQ(calls(), Lines({"VIDIOC_STREAMON 100", "VIDIOC_STREAMOFF 100", "VIDIOC_STREAMON 100",
                              "VIDIOC_STREAMOFF 100"}));
    EXPECT_EQ(dumpOf(*mScene)[2], "    mPortObserverMap[0]={ }");
}

TEST_F(SceneTest, TellsOfARequestWithAStatusButDequeuesNothing) {
    struct FailedRequest : Request {
        using Request::Request;
        int getStatus() const override { return -EIO; }
    };
    open({0});
    FailedRequest request(mMedia.get(), nullptr, nullptr);
    EXPECT_EQ(request.toString(), "{ .requestFD=200 .status=-5 .state=0 }");
    IRequest* heard = nullptr;
    mScene->setRequestDoneCallback([&](IRequest* done) { heard = done; });
    int port = 0;
    mScene->requestDone(&request, &port, 1);
    EXPECT_EQ(heard, &request);
    EXPECT_EQ(calls(), Lines());
    EXPECT_EQ(dumpOf(*mScene)[0], "<<Scene>> state=ACQUIRED #Request(Queued,Done)=(0,1)");
}

TEST_F(SceneTest, ReportsRefusedStreamsAndGoesOn) {
    open({0, 1});
    int refusal = -EIO;
    mKernel.on<uint32_t>(VIDIOC_STREAMON,
                         [&](int fd, uint32_t&) { return fd == 101 ? refusal : 0; });
    mKernel.answer(VIDIOC_STREAMOFF, -EPIPE);
    EXPECT_EQ(mScene->start(), 0);
    EXPECT_EQ(mReports.take(),
              ReportCapture::of("VIDIOC_STREAMON fail err=-5(Input/output error) <v1>"));
    EXPECT_EQ(calls().size(), 2U) << "the other port is streamed on";
    EXPECT_EQ(log(),
              Lines({"I [start] + Scene::start", "E [start] v1: Failed to start port (streamOn)",
                     "E [start] Failed to start port: v1", "I [start] - Scene::start"}));
    EXPECT_EQ(mScene->stop(), 0);
    EXPECT_EQ(log().at(1), "E [stop] v1: Failed to stop port (streamOff)");
    EXPECT_EQ(mReports.take().size(), 4U);
    mKernel.answer(VIDIOC_STREAMOFF, 0);
    const char* const noLink =
        "no enabled link leads to the port: name its link in the scene's descriptor";
    for (const auto& [error, cause] :
         {std::pair{-EPIPE, noLink},
          {-ENOLINK, noLink},
          {-EBUSY, "another process or scene streams the node or its pipeline"}}) {
        refusal = error;
        mScene->start();
        EXPECT_EQ(log().at(2), std::string("E [start] v1: ") + cause);
        mScene->stop();
        mLog.take();
    }
}

TEST_F(SceneTest, WarnsOfASlowStreamOnAndGuardsIt) {
    // Read when the library is loaded: the process of its own inherits the environment.
    // No level is above this one: it is not cut to 32 bits.
    setenv("persist.vendor.kvx.camera.ulog.detailslevel", "4294967296", 1);
    inOwnProcess([this] {
        open({0});
        const auto slowly = [](std::chrono::milliseconds time) {
            return [time](int, uint32_t&) {
                std::this_thread::sleep_for(time);
                return 0;
            };
        };
        mKernel.on<uint32_t>(VIDIOC_STREAMON, slowly(3500ms));
        mKernel.on<uint32_t>(VIDIOC_STREAMOFF, slowly(2100ms));  // within its limit
        Lines expired;  // the guards' thread's until the handler is gone
        timeguard::TimeBomb::setExpiryHandler([&](const timeguard::TimeBomb& guard, auto) {
            expired.push_back(std::string(guard.name()) + ": " + guard.message() + " " +
                              std::to_string(guard.limit()) + " " + std::to_string(guard.period()));
        });
        LogCapture log("corvane-V4L2VideoDevice", Utils::ULog::kWarning);
        Request request(mMedia.get(), nullptr, nullptr);
        request.queueRequest(0);
        std::thread refill([&request] { request.addBuffer(0, [](FrameBuffer&) {}); });
        mScene->start();
        mScene->stop();
        mMedia->request->done();
        refill.join();
        timeguard::TimeBomb::setExpiryHandler(nullptr);
        std::sort(expired.begin(), expired.end());
        EXPECT_EQ(expired.front(),
                  "Request: addBuffer: request 200 is still under way: wait for its done callback, "
                  "which must return, or use another request 2999000000 1000000000");
        EXPECT_EQ(expired.back(), "ZelsysKernel: VIDIOC_STREAMON timed out. 2999000000 1000000000");
        EXPECT_THAT(
            log.take(),
            ElementsAre(MatchesRegex("W .streamOn. v0: VIDIOC_STREAMON takes 3[0-9]{9} ns")));
    });
    unsetenv("persist.vendor.kvx.camera.ulog.detailslevel");
}

#if defined(CORVANE_CHECK_RELOCK)
TEST_F(SceneTest, EndsAHandlerThatStopsTheSceneThatCallsIt) {
    open({0});
    const auto stopTwice = [&] {
        Utils::setTerminateHandler([&] { mScene->stop(); });
        mKernel.answer(VIDIOC_STREAMOFF, -EIO);
        mScene->start();
        mScene->stop();
    };
    GTEST_FLAG_SET(death_test_style, "threadsafe");  // guards have a thread by now
    // To standard error, where the death test looks.
    EXPECT_EXIT((Utils::ULog::ULogger::install(nullptr), stopTwice()),
                testing::KilledBySignal(SIGABRT), "locks again what it holds");
}
#endif

TEST_F(SceneTest, EndsOnConsistencyErrors) {
    open({0});
    PixelFormat format = {};
    const auto throws = [](const auto&...) { throw std::runtime_error("of the client"); };
    const auto throwingFill = [&] { mScene->createRequest()->addBuffer(0, throws); };
    const auto throwingCallback = [&] {
        mScene->setRequestDoneCallback(throws);
        const auto request = mScene->createRequest();
        fill(*request, {0});
        request->queueRequest(0);
        mMedia->request->done();
    };
    const auto noThread = [&] {
        sNoThreads = true;
        mScene->start();
    };
    const auto withoutMedia = [&] {
        Scene scene(nullptr, mDesc, nullptr);
        scene.init();
    };
    expectFatal({
        {[&] { mScene->getFormat(nullptr, format); }, kTag, "getFormat", "port == nullptr"},
        {[&] { mScene->setFormat(nullptr, format); }, kTag, "setFormat", "port == nullptr"},
        {[&] { mScene->iteratePorts(nullptr); }, kTag, "iteratePorts", "Bad function"},
        {withoutMedia, kTag, "init", "IV4L2VideoDevice::make: v0"},
        {noThread, kTag, "start", "ThreadLoopHandler::make", {"No thread for P2Drv-BufferMon: "}},
        {throwingFill, kTag, "addBuffer", "exception: of the client"},
        {throwingCallback, kTag, "requestDone", "exception: of the client"},
    });
}

}  // namespace
}  // namespace NSVista::NSCorvane::test
