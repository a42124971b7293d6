// SPDX-License-Identifier: Apache-2.0
// What a new user of the library and its tools does wrong, and the line that says so.
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
#include <sys/wait.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "support/SceneDescs.h"

namespace NSVista::NSCorvane::client {
namespace {

using testing::HasSubstr;

enum Step { kNew, kOpen, kInit, kAcquired, kImported, kStarted };

/** A scene of one port that went some steps of its way. */
struct Client {
    explicit Client(Step step) {
        makeMemoryFileSource()->allocate(115200, memory);
        if (step >= kOpen)
            media->acquire();
        if (step >= kInit)
            scene.init();
        if (step >= kAcquired)
            scene.acquire();
        if (step >= kImported)
            import(2);
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

    /** A request, filled for a port with memory unless told otherwise. */
    void fill(int port, int descriptor = -1) {
        if (request == nullptr) {
            request = scene.createRequest();
            request->setMonitor(events);
        }
        request->addBuffer(port, [fd = descriptor < 0 ? memory.fd() : descriptor](auto& buffer) {
            buffer.planeCount = 2;
            buffer.planes[0] = buffer.planes[1] = {fd, 0, 115200};
        });
    }
    void queue() { scene.queueRequest(request.get(), 0); }
    void import(int count) { scene.importBuffer(scene.queryPort(0), count); }
    void askFormat() {
        PixelFormat format{};
        scene.getFormat(scene.queryPort(0), format);
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
    DmaBuf memory;
};

enum class Ending {
    Line,     ///< there is a warning or an error with the line
    OneLine,  ///< and it is the only one
    Death,    ///< by a fatal line
    Code2,    ///< of a tool, which says nothing else
};

using enum Ending;

struct Mistake {
    Mistake(const char* name, Ending end, std::function<void()> act, const char* said)
        : what(name), ending(end), make(std::move(act)), line(said) {}
    /** Made by a client that went some steps of its way. */
    Mistake(const char* name, Ending end, Step step, void (*act)(Client&), const char* said)
        : Mistake(
              name, end,
              [step, act] {
                  Client client(step);
                  act(client);
              },
              said) {}

    const char* what;
    Ending ending;
    std::function<void()> make;
    const char* line;  ///< a part of what is said
};

/** A memory file of less than what was asked for. */
class MeanSource : public IDmaBufSource {
public:
    int allocate(size_t size, DmaBuf& buffer) override {
        return makeMemoryFileSource()->allocate(size - 1, buffer);
    }
    std::string toString() const override { return "a mean source"; }
};

struct SessionArguments {
    SessionDesc desc = test::engineSession("session", 2);
    std::shared_ptr<IMediaDevice> media = IDeviceEnumerator::instance().search("twin-pads");
    std::unique_ptr<IDmaBufSource> source = makeMemoryFileSource();
};

/** Opening a session, which is refused: nothing stays open, no link is set. */
Mistake session(const char* what, int error, void (*change)(SessionArguments&), const char* line,
                Ending ending = OneLine) {
    const auto open = [error, change] {
        sim::DeviceDesc device = sim::describeVirtualEngine("twin-pads");
        device.mediaNode = "media1";  // what was found at media0 is remembered
        device.links.push_back({"vengine-core", 0, "vengine-mirror", 0});  // pads as of main's
        sim::VirtualEngine engine(device);
        const sim::ScopedKernel installed(engine);
        SessionArguments wrong;
        change(wrong);
        int result = 0;
        EXPECT_EQ(SceneSession::open(wrong.desc, wrong.media, *wrong.source, result), nullptr);
        EXPECT_EQ(result, error);
        EXPECT_EQ(engine.openFiles(), 0U);
        EXPECT_EQ(engine.device().linkFlags("vengine-core", 0, "vengine-main", 0), 0);
    };
    return {what, ending, open, line};
}

#if defined(CORVANE_STREAM)
/** A tool's command line, which is refused with exit code 2. */
Mistake tool(const char* path, const char* arguments, const char* line) {
    const auto run = [path, arguments] {
        exit(WEXITSTATUS(system((path + (' ' + std::string(arguments))).c_str())));
    };
    return {arguments, Code2, run, line};
}
Mistake stream(const char* arguments, const char* line) {
    return tool(CORVANE_STREAM, arguments, line);
}
Mistake info(const char* arguments, const char* line) {
    return tool(CORVANE_INFO, arguments, line);
}
#endif

const Mistake kMistakes[] = {
    // The library.
    {"init, media device not open", Line, kNew, [](Client& c) { c.scene.init(); },
     "/dev/media0 is not acquired: acquire it before"},
    {"entity that is not there", Line, kOpen,
     [](Client& c) {
         c.ports[0].device_name = "nobody";
         c.scene.init();
     },
     "main: the media device has no entity \"nobody\" with a node"},
    {"pads that have no link", Line, kOpen,
     [](Client& c) {
         c.links[0].source_pad = 90;
         c.scene.init();
     },
     "Not found link(vengine-core:90-vengine-main:0)"},
    {"no permission", Line, kOpen,
     [](Client& c) {
         c.engine.faults().fail({sim::Operation::OPEN, 0, "/dev/video0"}, EACCES);
         c.scene.init();
     },
     "/dev/video0: permission denied: its group is "},
    {"format before acquire", Line, kInit, [](Client& c) { c.askFormat(); },
     "wrong: it is IDLE, acquire() comes first"},
    {"format while streaming", Line, kStarted, [](Client& c) { c.askFormat(); },
     "wrong: it is STARTED, stop() comes first"},
    {"import before acquire", Line, kInit, [](Client& c) { c.import(2); },
     "wrong: it is IDLE, acquire() comes first"},
    {"a negative count", Line, kAcquired, [](Client& c) { c.import(-1); }, "Bad count=-1"},
    {"more than the driver grants", Line, kAcquired, [](Client& c) { c.import(33); },
     "Not enough buffer count: 33"},
    {"start before acquire", Line, kInit, [](Client& c) { c.scene.start(); },
     "wrong: it is IDLE, acquire() comes first"},
    {"start without its link", Line, kImported,
     [](Client& c) {
         c.media->enableLink(false, "vengine-core", 0, "vengine-main", 0);
         c.scene.start();
     },
     "main: no enabled link leads to the port: name its link in the scene's descriptor"},
    {"start twice", Line, kStarted, [](Client& c) { c.scene.start(); },
     "wrong: it is STARTED, stop() comes first"},
    {"a choice while streaming", Line, kStarted, [](Client& c) { c.scene.setDirectDequeue(true); },
     "Only before start()"},
    {"stop before start", Line, kImported, [](Client& c) { c.scene.stop(); },
     "wrong: it is ACQUIRED, start() comes first"},
    {"queue before start", Line, kImported,
     [](Client& c) {
         c.fill(0);
         c.queue();
     },
     "wrong: it is ACQUIRED, start() comes first"},
    {"queue again without a buffer", Line, kStarted,
     [](Client& c) {
         c.fill(0);
         c.queue();
         c.queue();
     },
     "port 0(main): no planes: addBuffer() fills the buffer anew before each queueing"},
    {"after uninit", Line, kAcquired,
     [](Client& c) {
         c.scene.uninit();
         c.askFormat();
     },
     "wrong: uninitialised, or its init() failed: build a new scene"},
    {"a port index that is not there", Line, kInit, [](Client& c) { c.scene.queryPort(5); },
     "Invalid port index: 0x5"},
    {"stop with requests in flight", Line, kStarted,
     [](Client& c) {
         c.engine.device().hold();
         c.fill(0);
         c.queue();
         c.events.reset();
         c.scene.stop();
     },
     "1 request(s) are with the driver: drain them"},
    {"a busy device", Line, kImported,
     [](Client& c) {
         const SessionDesc desc{"second", {{"main", 0, "vengine-main", 0, 0, 0}}, {}, 2, {}};
         int error = 0;
         SceneSession::open(desc, c.media, *makeMemoryFileSource(), error);
     },
     "second: main cannot be asked for buffers: Device or resource busy"},
    {"a property that is no number", Line,
     [] {
         setenv("PERSIST_WRONG", "four", 1);
         Utils::Properties::property_get_int32("persist.wrong", 4);
     },
     "persist.wrong: bad value 'four'"},
    {"a model that is not there", Death, kNew,
     [](Client&) { IDeviceEnumerator::instance().search("nothing"); }, "Bad MediaDevice"},
    {"acquire twice", Death, kAcquired, [](Client& c) { c.scene.acquire(); },
     "Bad state transition: 1 -> ACQUIRED"},
    {"release twice", Death, kInit, [](Client& c) { c.scene.release(); },
     "Bad state transition: 0 -> IDLE"},
    {"import of no port", Death, kAcquired, [](Client& c) { c.scene.importBuffer(nullptr, 2); },
     "port == nullptr"},
    {"more buffers than indexes", Death, kAcquired, [](Client& c) { c.import(65); },
     "Not support count=65 > 64"},
    {"request, media device not open", Death, kNew, [](Client& c) { c.scene.createRequest(); },
     "Bad request fd < 0"},
    {"no function to fill", Death, kStarted,
     [](Client& c) { c.scene.createRequest()->addBuffer(0, {}); }, "Bad buffer fill: index=0"},
    {"a port twice in a cycle", Death, kStarted,
     [](Client& c) {
         c.fill(0);
         c.fill(0);
     },
     "has existed"},
    {"a port that is not there", Death, kStarted,
     [](Client& c) {
         c.fill(9);
         c.queue();
     },
     "Bad port index:0x9"},
    {"no event monitor", Death, kStarted,
     [](Client& c) {
         c.fill(0);
         c.request->setMonitor(nullptr);
         c.queue();
     },
     "Bad monitor"},
    {"a descriptor that is closed", Death, kStarted,
     [](Client& c) {
         c.fill(0, 999);
         c.queue();
     },
     "port 0(main): plane 0 fd 999 (not open) offset 0 size 115200, the format asks for 76800"},
    {"no request", Death, kStarted, [](Client& c) { c.scene.queueRequest(nullptr, 0); },
     "Bad request"},
    {"the sub-device twice", Death, kNew,
     [](Client&) {
         const DefaultMediaConfigs configs{"vengine", "vengine-subdev"};
         registerDefaultMediaConfigs(&configs);
         IDefaultSubDeviceProvider::instance()->acquire("TWICE");
         IDefaultSubDeviceProvider::instance()->acquire("TWICE");
     },
     "A same user id TWICE has existed."},
    // A session's description.
    session(
        "no media device", -EINVAL, [](auto& a) { a.media = nullptr; }, "there is no media device"),
    session(
        "no ports", -EINVAL, [](auto& a) { a.desc.ports.clear(); }, "1 to 60 ports, not 0"),
    session(
        "no buffers", -EINVAL, [](auto& a) { a.desc.buffers = 0; },
        "1 to 64 buffers a port, not 0"),
    session(
        "65 buffers", -EINVAL, [](auto& a) { a.desc.buffers = 65; },
        "1 to 64 buffers a port, not 65"),
    session(
        "too many buffers", -ENOMEM, [](auto& a) { a.desc.buffers = 33; },
        "main grants 32 buffers, not 33"),
    session(
        "index twice", -EINVAL, [](auto& a) { a.desc.ports[1].index = 0; },
        "ports \"vengine-main\" and \"vengine-input\" have the same index 0"),
    session(
        "entity twice", -EINVAL, [](auto& a) { a.desc.ports[1].entity = "vengine-main"; },
        "ports \"vengine-main\" and \"vengine-input\" use the same entity \"vengine-main\""),
    session(
        "no such entity", -EINVAL, [](auto& a) { a.desc.ports[1].entity = "nobody"; },
        "port \"vengine-input\": the device has no entity \"nobody\""),
    session(
        "link to nobody", -EINVAL, [](auto& a) { a.desc.links[0].sinkEntity = "nobody"; },
        "link vengine-core:0 to nobody:0: the device has no such sink entity"),
    session(
        "link from nobody", -EINVAL, [](auto& a) { a.desc.links[0].sourceEntity = "nobody"; },
        "link nobody:0 to vengine-main:0: the device has no such source entity"),
    session(
        "no such pads", -EINVAL, [](auto& a) { a.desc.links[0].sinkPad = 7; },
        "link vengine-core:0 to vengine-main:7: the device has no link between these pads"),
    session(
        "no such link, another's pads", -EINVAL,
        [](auto& a) { a.desc.links[0].sourceEntity = "vengine-input"; },
        "link vengine-input:0 to vengine-main:0: the device has no link between these pads"),
    session(
        "a second link with its pads", -EINVAL,
        [](auto& a) { a.desc.links[0].sinkEntity = "vengine-mirror"; },
        "link vengine-core:0 to vengine-mirror:0: another link of the device has the same two pad"),
    session(
        "wrapping layout", -EOVERFLOW, [](auto& a) { a.desc.layout.guard = ~0U; },
        "Value too large"),
    session(
        "small buffers", -EINVAL, [](auto& a) { a.source = std::make_unique<MeanSource>(); },
        "a mean source has 1023 bytes, the format asks for 1024", Line),
#if defined(CORVANE_STREAM)
    // The tools.
    stream("--bogus", "not expected: --bogus"),
    stream("--model nothing", "no media device of model \"nothing\""),
    stream("--sim --model nothing", "\"nothing\" (there is vengine)"),
    stream("--sim --ports nobody", "no port \"nobody\" (--list shows"),
    stream("--sim --ports 10", "has 1 to 9 ports, not 10"),
    stream("--sim --ports 3,3", "twice the port \"3\""),
    stream("--sim --requests -3", "a number from 0 on, not \"-3\""),
    stream("--sim --in-flight 65", "--in-flight: it takes a number from 1 to 64, not \"65\""),
    stream("--sim --size 5", "a size is WIDTHxHEIGHT, not \"5\""),
    stream("--sim --format NV120", "NM12 and the like, not \"NV120\""),
    stream("--sim --format vengine-main=XYZW", "vengine-main has no format XYZW"),
    stream("--sim --buffers 2", "--buffers 2 are fewer than the 4 requests"),
    stream("--latency-us 5", "--latency-us requires --sim"),
    stream("--sim --trace /dev/null/none.json", "/dev/null/none.json: Not a directory"),
    stream("--sim --snapshot no/folder.png", "no/folder.png: No such file"),
    stream("--sim --ports 2 --format nobody=NV12", "no port \"nobody\" takes part"),
    stream("--sim --ports 2 --input vengine-main=x", "no output port \"vengine-main\""),
    stream("--sim --ports 2 --input vengine-input=/dev/null",
           "0 bytes are no whole frames of vengine-input"),
    stream("--sim --control nothing=1", "no port has a control \"nothing\""),
    stream("--sim --control brightness=65", "Brightness is -64 to 64, not 65"),
    stream("--sim --control brightness", "a control is [ENTITY:]CONTROL=NUMBER"),
    stream("--sim --save no/such", "no/such: No such file"),
    stream("--sim --split", "--split requires --save"),
    info("--bogus", "not expected: --bogus"),
    info("--sim --model nothing", "no media device of model \"nothing\""),
    info("--sim --subdev nobody", "no entity 'nobody' with a device node"),
    info("--sim --set-link a:0,b:0=on", "has no link \"a:0,b:0\""),
    info("--sim --set-link vengine-core:0,vengine-main:0", "=on or =off, not"),
    info("--sim --set-format nobody=NV12", "no video node \"nobody\""),
    info("--sim --set-format vengine-main=NV12,64", "WIDTHxHEIGHT or both with a comma"),
    info("--sim --set-format vengine-main=XYZW", "vengine-main has no format XYZW"),
    info("--sim --set-format vengine-stats=64x64",
         "vengine-stats holds metadata, which has no size"),
    stream("--sim=no/such", "no/such"),
    info("--sim=/dev/null", "/dev/null"),
    info("--sim --with-identity", "--with-identity"),
    info("--sim --capture x --subdev nobody", "no entity 'nobody'"),
#endif
};

TEST(MistakesTest, HaveALineThatSaysSo) {
    Utils::setTerminateHandler([] {});
    for (const Mistake& mistake : kMistakes) {
        if (mistake.ending != Line && mistake.ending != OneLine)
            continue;
        SCOPED_TRACE(mistake.what);
        Utils::ULog::RingULogger log(1000);
        Utils::ULog::ULogger* const before = Utils::ULog::ULogger::install(&log);
        mistake.make();
        Utils::ULog::ULogger::install(before);
        std::vector<std::string> lines;
        for (const auto& line : log.take())
            if (line.level <= Utils::ULog::kWarning)
                lines.push_back(line.text);
        EXPECT_THAT(lines, Contains(HasSubstr(mistake.line)));
        EXPECT_TRUE(mistake.ending == Line || lines.size() == 1);
    }
    Utils::setTerminateHandler({});
}

TEST(MistakesDeathTest, ThatNothingSurvivesSaySo) {
    for (const Mistake& mistake : kMistakes) {
        SCOPED_TRACE(mistake.what);
        if (mistake.ending == Death) {
            EXPECT_DEATH(mistake.make(), HasSubstr(mistake.line));
        } else if (mistake.ending == Code2) {
            EXPECT_EXIT(mistake.make(), testing::ExitedWithCode(2),
                        AllOf(HasSubstr(mistake.line),
                              testing::ContainsRegex("^corvane-[a-z]+: [^\n]*\n$")));
        }
    }
}

}  // namespace
}  // namespace NSVista::NSCorvane::client
