// SPDX-License-Identifier: Apache-2.0
// What a new user of the library does wrong, and the line that says so.
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/IRequest.h>
#include <corvane/SceneControl.h>
#include <corvane/SceneDesc.h>
#include <corvane/client/EpollEventMonitor.h>
#include <corvane/client/SceneSession.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/ULog.h>
#include <corvane/sim/Engine.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/media.h>
#include <linux/videodev2.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

namespace NSVista::NSCorvane::client {
namespace {

enum Step { kNew, kOpen, kInit, kAcquired, kImported, kStarted };

/** A scene of one port that went some steps of its way. */
struct Client {
    explicit Client(Step step = kNew) {
        if (step >= kOpen)
            media->acquire();
        if (step >= kInit)
            scene.init();
        if (step >= kAcquired)
            scene.acquire();
        if (step >= kImported)
            scene.importBuffer(scene.queryPort(0), 2);
        if (step >= kStarted)
            scene.start();
    }
    ~Client() {
        events.reset();
        request.reset();
        scene.stop();
        scene.uninit();
        media->release();
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    /** A request, filled for a port. */
    void fill(int port, int descriptor = 0) {
        if (request == nullptr) {
            request = scene.createRequest();
            request->setMonitor(events);
        }
        request->addBuffer(port, [descriptor](FrameBuffer& buffer) {
            buffer.planeCount = 2;
            buffer.planes[0] = buffer.planes[1] = {descriptor, 0, 115200};
        });
    }
    int queue() { return scene.queueRequest(request.get(), 0); }
    int format() {
        PixelFormat format{};
        return scene.getFormat(scene.queryPort(0), format);
    }

    sim::VirtualEngine engine;
    const sim::ScopedKernel installed{engine};
    const std::shared_ptr<IMediaDevice> media = IDeviceEnumerator::instance().search("vengine");
    PortDesc ports[1] = {{"main", 0, "vengine-main", true, false, false}};
    LinkDesc links[1] = {{"vengine-core", 0, "vengine-main", 0}};
    const SceneDesc desc{"wrong", nullptr, 1, ports, 1, links};
    Scene scene{nullptr, desc, media};
    std::shared_ptr<EpollEventMonitor> events = EpollEventMonitor::make();
    std::shared_ptr<IRequest> request;
};

struct Mistake {
    const char* what;
    void (*make)();
    const char* line;  ///< a part of what is logged, or of what the process ends with
};

const Mistake kSurvived[] = {
    {"init, media device not open", [] { Client(kNew).scene.init(); },
     "/dev/media0 is not acquired: acquire it before"},
    {"entity that is not there",
     [] {
         Client client(kOpen);
         client.ports[0].device_name = "nobody";
         client.scene.init();
     },
     "main: the media device has no entity \"nobody\" with a node"},
    {"pads that have no link",
     [] {
         Client client(kOpen);
         client.links[0].source_pad = 90;
         client.scene.init();
     },
     "Not found link(vengine-core:90-vengine-main:0)"},
    {"no permission",
     [] {
         Client client(kOpen);
         client.engine.faults().fail({sim::Operation::OPEN, 0, "/dev/video0"}, EACCES);
         client.scene.init();
     },
     "/dev/video0: permission denied: its group is "},
    {"format before acquire", [] { Client(kInit).format(); },
     "wrong: it is IDLE, acquire() comes first"},
    {"format while streaming", [] { Client(kStarted).format(); },
     "wrong: it is STARTED, stop() comes first"},
    {"import before acquire",
     [] {
         Client client(kInit);
         client.scene.importBuffer(client.scene.queryPort(0), 2);
     },
     "wrong: it is IDLE, acquire() comes first"},
    {"a negative count",
     [] {
         Client client(kAcquired);
         client.scene.importBuffer(client.scene.queryPort(0), -1);
     },
     "Bad count=-1"},
    {"more than the driver grants",
     [] {
         Client client(kAcquired);
         client.scene.importBuffer(client.scene.queryPort(0), 33);
     },
     "Not enough buffer count: 33"},
    {"start before acquire", [] { Client(kInit).scene.start(); },
     "wrong: it is IDLE, acquire() comes first"},
    {"start without its link",
     [] {
         Client client(kImported);
         client.media->enableLink(false, "vengine-core", 0, "vengine-main", 0);
         client.scene.start();
     },
     "main: no enabled link leads to the port: name its link in the scene's descriptor"},
    {"start twice", [] { Client(kStarted).scene.start(); },
     "wrong: it is STARTED, stop() comes first"},
    {"a choice while streaming", [] { Client(kStarted).scene.setDirectDequeue(true); },
     "Only before start()"},
    {"stop before start", [] { Client(kImported).scene.stop(); },
     "wrong: it is ACQUIRED, start() comes first"},
    {"queue before start",
     [] {
         Client client(kImported);
         client.fill(0);
         client.queue();
     },
     "wrong: it is ACQUIRED, start() comes first"},
    {"after uninit",
     [] {
         Client client(kAcquired);
         client.scene.uninit();
         client.format();
     },
     "wrong: uninitialised, or its init() failed: build a new scene"},
    {"a port index that is not there", [] { Client(kInit).scene.queryPort(5); },
     "Invalid port index: 0x5"},
    {"stop with requests in flight",
     [] {
         Client client(kStarted);
         DmaBuf memory;
         makeMemoryFileSource()->allocate(115200, memory);
         client.engine.device().hold();
         client.fill(0, memory.fd());
         client.queue();
         client.events.reset();
         client.scene.stop();
     },
     "1 request(s) are with the driver: drain them"},
    {"a busy device",
     [] {
         Client busy(kImported);
         SessionDesc desc{"second", {{"main", 0, "vengine-main", 0, 0, 0}}, {}, 2, {}};
         int error = 0;
         SceneSession::open(desc, IDeviceEnumerator::instance().search("vengine"),
                            *makeMemoryFileSource(), error);
     },
     "second: main cannot be asked for buffers: Device or resource busy"},
    {"a property that is no number",
     [] {
         setenv("PERSIST_WRONG", "four", 1);
         Utils::Properties::property_get_int32("persist.wrong", 4);
     },
     "persist.wrong: bad value 'four'"},
};

const Mistake kFatal[] = {
    {"a model that is not there",
     [] {
         const Client client;
         IDeviceEnumerator::instance().search("nothing");
     },
     "Bad MediaDevice"},
    {"acquire twice", [] { Client(kAcquired).scene.acquire(); },
     "Bad state transition: 1 -> ACQUIRED"},
    {"release twice", [] { Client(kInit).scene.release(); }, "Bad state transition: 0 -> IDLE"},
    {"import of no port", [] { Client(kAcquired).scene.importBuffer(nullptr, 2); },
     "port == nullptr"},
    {"more buffers than indexes",
     [] {
         Client client(kAcquired);
         client.scene.importBuffer(client.scene.queryPort(0), 65);
     },
     "Not support count=65 > 64"},
    {"request, media device not open", [] { Client(kNew).scene.createRequest(); },
     "Bad request fd < 0"},
    {"no function to fill",
     [] {
         Client client(kStarted);
         client.scene.createRequest()->addBuffer(0, {});
     },
     "Bad buffer fill"},
    {"a port twice in a cycle",
     [] {
         Client client(kStarted);
         client.fill(0);
         client.fill(0);
     },
     "has existed"},
    {"a port that is not there",
     [] {
         Client client(kStarted);
         client.fill(9);
         client.queue();
     },
     "Bad port index:0x9"},
    {"no event monitor",
     [] {
         Client client(kStarted);
         DmaBuf memory;
         makeMemoryFileSource()->allocate(115200, memory);
         client.fill(0, memory.fd());
         client.request->setMonitor(nullptr);
         client.queue();
     },
     "Bad monitor"},
    {"a descriptor that is closed",
     [] {
         Client client(kStarted);
         client.fill(0, 999);
         client.queue();
     },
     "Failed to queue media request"},
    {"no request", [] { Client(kStarted).scene.queueRequest(nullptr, 0); }, "Bad request"},
    {"the sub-device twice",
     [] {
         const Client client;
         const DefaultMediaConfigs configs{"vengine", "vengine-subdev"};
         registerDefaultMediaConfigs(&configs);
         IDefaultSubDeviceProvider::instance()->acquire("TWICE");
         IDefaultSubDeviceProvider::instance()->acquire("TWICE");
     },
     "TWICE"},
};

TEST(MistakesTest, HaveALineThatSaysSo) {
    Utils::setTerminateHandler([] {});
    for (const Mistake& mistake : kSurvived) {
        Utils::ULog::RingULogger log(1000);
        Utils::ULog::ULogger* const before = Utils::ULog::ULogger::install(&log);
        mistake.make();
        Utils::ULog::ULogger::install(before);
        std::string text;
        for (const auto& line : log.take())
            if (line.level <= Utils::ULog::kWarning)
                text += line.text + "\n";
        EXPECT_THAT(text, testing::HasSubstr(mistake.line)) << mistake.what;
    }
    Utils::setTerminateHandler({});
}

TEST(MistakesDeathTest, ThatNothingSurvivesSaySo) {
    for (const Mistake& mistake : kFatal) {
        SCOPED_TRACE(mistake.what);
        EXPECT_DEATH(mistake.make(), testing::HasSubstr(mistake.line));
    }
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
