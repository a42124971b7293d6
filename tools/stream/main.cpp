// SPDX-License-Identifier: Apache-2.0
#include <corvane/IDeviceEnumerator.h>
#include <corvane/SceneManager.h>
#include <corvane/platform/Printer.h>
#include <corvane/platform/Properties.h>
#include <corvane/platform/Record.h>
#include <corvane/platform/Service.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Thread.h>
#include <corvane/platform/Trace.h>
#include <corvane/platform/ULog.h>
#include <corvane/replay/ReplayKernel.h>
#include <linux/videodev2.h>

#include <algorithm>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <optional>

#include "Console.h"
#include "Device.h"
#include "EngineContent.h"
#include "EventPrinter.h"
#include "Listing.h"
#include "Options.h"
#include "PortChoice.h"
#include "Report.h"
#include "Runner.h"
#include "Simulation.h"
#include "Snapshot.h"
#include "StreamPipe.h"

namespace NSVista::NSCorvane::tools {

namespace {

constexpr const char kSceneName[] = "corvane-stream";
constexpr const char kThreadName[] = "corvane-stream";
constexpr uint32_t kEngineOffset = 192;
constexpr uint32_t kGuard = 64;
constexpr std::chrono::seconds kDrain{5};

EndWish gWish;

void onSignal(int /*signal*/) {
    gWish.interrupted = true;
}

void handleSignals() {
    struct sigaction action {};
    action.sa_handler = onSignal;
    action.sa_flags = SA_RESETHAND;  // The second one ends the process whatever it hangs in.
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    StallWatch::takeSignal();
}

void configureLog(const Options& options) {
    auto& level = Utils::ULog::ULogger::sDetailsLevel;
    if (options.verbose > 0)
        level = std::max<uint32_t>(level, Utils::ULog::kWarning + std::min(options.verbose, 4U));
}

/** How the in-process engine completes requests. */
sim::Timing timingOf(const Options& options) {
    sim::Timing timing;
    timing.latency = std::chrono::microseconds(options.latencyUs);
    timing.seed = options.seed;
    timing.order = options.order == "reversed" ? sim::Order::REVERSED
                   : options.order == "random" ? sim::Order::RANDOM
                                               : sim::Order::IN_ORDER;
    timing.group = timing.order == sim::Order::IN_ORDER ? 1 : options.inFlight;
    return timing;
}

/** A record in the device's place, installed while it lives. */
class Replay {
public:
    /** @return null, with a line on stderr, for a record that cannot be replayed. */
    static std::unique_ptr<Replay> open(replay::Record record, const Options& options) {
        std::string problem;
        if (record.isWhole)  // as far as it goes: what was lost at its end is told
            for (const std::string& each : record.problems)
                say("%s: %s", options.replay.c_str(), each.c_str());
        auto kernel = replay::ReplayKernel::make(std::move(record), options.fast, problem);
        if (kernel != nullptr)
            return std::unique_ptr<Replay>(new Replay(std::move(kernel)));
        say("%s: %s", options.replay.c_str(), problem.c_str());
        return nullptr;
    }

    bool hasExports() const { return mKernel->hasExports(); }
    /** Tells how far the run was the record's. @return a code that tells it too. */
    ExitCode finish(ExitCode code) const {
        const uint64_t left = mKernel->callsLeft();
        if (mKernel->differences() == 0 && left == 0)
            return code;
        say("the run is not the recorded one: %" PRIu64 " calls differ, %" PRIu64
            " of the record were not made%s%s",
            mKernel->differences(), left, left != 0 ? ", the first is " : "",
            mKernel->nextCall().c_str());
        return kRunFailed;
    }

private:
    explicit Replay(std::unique_ptr<replay::ReplayKernel> kernel)
        : mKernel(std::move(kernel)), mInstalled(*mKernel) {}

    std::unique_ptr<replay::ReplayKernel> mKernel;
    sim::ScopedKernel mInstalled;
};

/** The one that runs; null for none. */
const Replay* gReplay = nullptr;

/** A file that is written at the end is worth nothing if it cannot be: find out first. */
bool prepareFile(const std::string& path) {
    if (path.empty())
        return true;
    FILE* const file = fopen(path.c_str(), "we");
    if (file == nullptr) {
        say("%s: %s", path.c_str(), strerror(errno));
        return false;
    }
    fclose(file);
    return true;
}

/** vivid shows an output buffer until the next one comes. */
unsigned requestsKept(const Device& device, const std::vector<NodePort>& ports) {
    const bool showsOutput = std::any_of(ports.begin(), ports.end(), [](const NodePort& port) {
        return port.node.isOutput() && !port.node.isMeta();
    });
    return device.driver == "vivid" && showsOutput ? 1 : 0;
}

std::unique_ptr<client::IDmaBufSource> makeSource(const Options& options,
                                                  const std::vector<NodePort>& ports) {
    const bool fromNode = gReplay != nullptr && gReplay->hasExports();
    if (options.sim || (gReplay != nullptr && !fromNode))
        return client::makeMemoryFileSource();
    if (fromNode)
        return client::makeVideoNodeSource(ports.front().nodePath);
    if (auto heap = client::openDmaHeapSource())
        return heap;
    return client::makeVideoNodeSource(ports.front().nodePath);
}

/** A port with what is wished for it; metadata has one format only. */
client::SessionPort sessionPort(const Options& options, const NodePort& port) {
    client::SessionPort result{port.entity, port.index, port.entity, 0, 0, 0};
    for (const FormatWish& wish : options.formats) {
        if ((wish.entity.empty() && port.node.isMeta()) ||
            (!wish.entity.empty() && wish.entity != port.entity))
            continue;
        if (wish.format != 0)
            result.format = wish.format;
        if (wish.width != 0) {
            result.width = wish.width;
            result.height = wish.height;
        }
    }
    return result;
}

/** Whether the ports that formats and inputs are for are there. */
bool checkNames(const Options& options, const std::vector<NodePort>& ports) {
    const auto isKnown = [&](const std::string& entity, bool asOutput) {
        const auto found = std::find_if(ports.begin(), ports.end(), [&](const NodePort& port) {
            return port.entity == entity && (!asOutput || port.node.isOutput());
        });
        if (found == ports.end())
            say("no %sport \"%s\" takes part", asOutput ? "output " : "", entity.c_str());
        return found != ports.end();
    };
    return std::all_of(options.formats.begin(), options.formats.end(),
                       [&](const FormatWish& wish) {
                           return wish.entity.empty() || isKnown(wish.entity, false);
                       }) &&
           std::all_of(options.inputs.begin(), options.inputs.end(),
                       [&](const auto& input) { return isKnown(input.first, true); });
}

/** Keeps the numbers of requests and buffers to what every port's device grants. */
void limitToGranted(Options& options, const std::vector<NodePort>& ports) {
    const unsigned wanted = options.buffers;
    for (const NodePort& port : ports) {
        uint32_t granted = 0;
        if (client::queryGrantedBuffers(port.nodePath, options.buffers, granted) == 0 &&
            granted != 0)
            options.buffers = std::min(options.buffers, granted);
    }
    options.inFlight = std::min(options.inFlight, options.buffers);
    if (options.buffers < wanted && !options.quiet)
        say("the device grants %u buffers a port, not %u", options.buffers, wanted);
}

bool openInputs(const Options& options, const std::vector<NodePort>& ports,
                const client::SceneSession& session, Content& content) {
    for (const auto& [entity, file] : options.inputs)
        for (size_t port = 0; port < ports.size(); ++port) {
            FrameReader reader;
            if (ports[port].entity != entity)
                continue;
            if (!reader.open(file, ports[port], session.format(port)))
                return false;
            content.setInput(port, std::move(reader));
        }
    return true;
}

Plan makePlan(const Options& options, const Device& device, const std::vector<NodePort>& ports) {
    Plan plan{options.model, {}, makeSource(options, ports)};
    plan.session.name = kSceneName;
    for (const NodePort& port : ports)
        plan.session.ports.push_back(sessionPort(options, port));
    plan.session.links = device.linksOf(ports);
    plan.session.buffers = static_cast<int>(options.buffers);
    plan.session.times = true;
    const uint32_t offset = EngineContent::isFor(device) ? kEngineOffset : 0;
    plan.session.layout = {options.offset.value_or(offset), kGuard};
    return plan;
}

std::unique_ptr<Content> makeContent(const Device& device, const std::vector<NodePort>& ports,
                                     client::SceneSession& session) {
    if (!EngineContent::isFor(device) && gReplay != nullptr)
        return std::make_unique<ReplayedContent>(ports, session);
    if (!EngineContent::isFor(device))
        return std::make_unique<PlainContent>(ports, session);
    const std::string strange = EngineContent::findStrangeFormat(ports, session);
    if (strange.empty() && gReplay != nullptr)
        return std::make_unique<ReplayedContent>(ports, session);
    if (strange.empty())
        return std::make_unique<EngineContent>(ports, session);
    say("%s lays its format out as the engine should not", strange.c_str());
    return nullptr;
}

/** A driver may make another size of the wanted one, but a format that a port was asked for by name
 * holds. */
bool checkFormats(const Options& options, const std::vector<NodePort>& ports,
                  const client::SceneSession& session) {
    for (size_t port = 0; port < ports.size(); ++port) {
        const uint32_t wanted = session.desc().ports[port].format;
        const uint32_t made = session.format(port).format;
        const bool byName =
            std::any_of(options.formats.begin(), options.formats.end(),
                        [&](const FormatWish& wish) { return wish.entity == ports[port].entity; });
        if (wanted == 0 || made == wanted || !byName)
            continue;
        say("%s has no format %s: the driver made %s of it (--list shows those it has)",
            ports[port].entity.c_str(), v4l2::formatName(wanted).c_str(),
            v4l2::formatName(made).c_str());
        return false;
    }
    return true;
}

void noteOtherFormats(const Options& options, const std::vector<NodePort>& ports,
                      const client::SceneSession& session) {
    for (size_t port = 0; port < ports.size() && !options.quiet; ++port) {
        const PixelFormat& format = session.format(port);
        const client::SessionPort& wish = session.desc().ports[port];
        const bool asWished =
            (wish.format == 0 || format.format == wish.format) &&
            (wish.width == 0 || (format.width == wish.width && format.height == wish.height));
        if (!asWished && !ports[port].node.isMeta())
            say("%s made %s %ux%u of the wanted format", ports[port].entity.c_str(),
                v4l2::formatName(format.format).c_str(), format.width, format.height);
    }
}

void setFrameRates(const Options& options, const std::vector<NodePort>& ports) {
    for (const NodePort& port : ports) {
        if (options.frameRate == 0 || port.node.isOutput() || port.node.isMeta())
            continue;
        const int result =
            client::setFrameRate(port.nodePath, port.node.bufferType, options.frameRate);
        if (result != 0 && !options.quiet)
            say("%s takes no frame rate: %s", port.entity.c_str(), strerror(-result));
    }
}

void dumpAll(const SceneManager& manager) {
    FilePrinter printer(stdout);
    manager.dumpState(&printer);
    System::dumpState(&printer);
}

/** Streams on a session that is set up. @return an exit code. */
int streamOn(const Options& options, const Device& device, const std::vector<NodePort>& ports,
             const SceneManager& manager, StallWatch& watch, client::SceneSession& session) {
    if (!checkFormats(options, ports, session))
        return kBadUse;
    noteOtherFormats(options, ports, session);
    setFrameRates(options, ports);
    const std::unique_ptr<Content> content = makeContent(device, ports, session);
    ControlPlan controls;
    if (EngineContent::isFor(device))
        controls.learn(V4L2_CID_BRIGHTNESS, ports);
    FrameSaver saver;
    if (!content || !openInputs(options, ports, session, *content) ||
        !controls.prepare(options.controls, ports) ||
        (!options.save.empty() && !saver.open(options.save, options.split, ports, session)))
        return kBadUse;
    content->setControls(&controls);
    std::unique_ptr<EventPrinter> events;
    if (options.events && !(events = EventPrinter::start()))
        return kRunFailed;
    if (session.start() != 0 || gWish.terminated) {
        return complain(kRunFailed, "streaming cannot be started (see the log)");
    }

    Snapshot snapshot;
    RunResult result;
    const unsigned kept = requestsKept(device, ports);
    Runner(options, ports, session, *content, gWish, watch, kept,
           options.snapshot.empty() ? nullptr : &snapshot, options.save.empty() ? nullptr : &saver,
           controls)
        .run(result);
    if (options.dump)
        dumpAll(manager);
    const bool drains = result.lost == 0 && kept == 0;
    const int stopped = session.stop(drains ? kDrain : std::chrono::seconds(0));
    events.reset();
    if (drains && stopped != 0 && result.trouble.empty())
        result.trouble = "the scene did not stop cleanly (see the log)";

    printReport(options, ports, session, *content, result);
    if (kept != 0 && !options.json)
        printf("\n  The device keeps its last output buffer, and %u request with it.\n", kept);
    if (!result.trouble.empty())
        say("%s", result.trouble.c_str());
    const bool drawn = options.snapshot.empty() || result.completed == 0 ||
                       snapshot.write(options.snapshot, options.model);
    const bool saved = saver.finish();
    return result.isGood() && drawn && saved ? kSuccess : kRunFailed;
}

/** The first device of a model. @return empty, with a line on stderr, when there is none. */
std::optional<Device> findDevice(const std::string& model) {
    std::vector<Device> devices = findDevices(model);
    if (!devices.empty())
        return std::move(devices.front());
    std::string others;
    for (const std::string& other : findModels())
        others += (others.empty() ? "" : ", ") + other;
    say("no media device of model \"%s\" (there is %s)", model.c_str(),
        others.empty() ? "none at all" : others.c_str());
    return std::nullopt;
}

int stream(Options& options) {
    const std::optional<Device> device = findDevice(options.model);
    if (!device)
        return kBadUse;
    const std::vector<NodePort> ports = choosePorts(*device, options.ports);
    if (ports.empty() || !checkNames(options, ports))
        return kBadUse;
    limitToGranted(options, ports);
    if (options.inFlight <= requestsKept(*device, ports))
        return complain(kBadUse, "this device's output needs --in-flight 2 or more");
    const Entity* const subDevice = device->subDevice();
    if (options.events && subDevice == nullptr)
        return complain(kBadUse, "%s has no sub-device", options.model.c_str());
    const DefaultMediaConfigs defaults{options.model,
                                       subDevice != nullptr ? subDevice->name : std::string()};
    registerDefaultMediaConfigs(&defaults);

    Plan plan = makePlan(options, *device, ports);
    std::shared_ptr<StreamPipe> pipe;
    PipeFactory::Instance().Register(kSceneName, [&](SceneManager& manager) {
        return pipe = std::make_shared<StreamPipe>(manager, plan);
    });
    SceneManager manager;
    StallWatch watch(manager, std::chrono::seconds(options.stallAfter));
    const int code = manager.init() == 0 && !gWish.terminated
                         ? streamOn(options, *device, ports, manager, watch, pipe->session())
                         : kRunFailed;
    manager.uninit();
    if (code == kSuccess && gWish.terminated)
        return complain(kRunFailed, "the driver refused a call at the end (see the log)");
    return code;
}

/** Begins the files that go along with a run. @return success, else a line on stderr tells. */
bool startFiles(const Options& options, const std::string& note) {
    if (!prepareFile(options.snapshot) || !prepareFile(options.trace))
        return false;
    const auto isStarted = [](const std::string& path, int result) {
        if (result != 0)
            say("%s: %s", path.c_str(), strerror(-result));
        return result == 0;
    };
    // Without the option what the property asked for goes on.
    return (options.trace.empty() ||
            isStarted(options.trace, trace::start(options.trace.c_str()))) &&
           (options.record.empty() ||
            isStarted(options.record, record::start(options.record.c_str(), note.c_str())));
}

/** @param note this run's options, for a record. @param recorded what is to answer, if anything. */
int run(Options& options, std::string note, replay::Record recorded) {
    configureLog(options);
    handleSignals();
    Utils::setTerminateHandler([] { gWish.terminated = true; });
    if (options.worker)
        Utils::Properties::property_set(
            "persist.vendor.camera.corvane.V4L2BufferMonitor.configmode", "1");
    std::unique_ptr<Simulation> simulation;
    std::unique_ptr<Replay> replayed;
    if (!options.replay.empty() && !(replayed = Replay::open(std::move(recorded), options)))
        return kBadUse;
    gReplay = replayed.get();
    if (options.sim && replayed == nullptr) {
        simulation = Simulation::start(*options.sim);
        if (simulation == nullptr)
            return kBadUse;
        simulation->device().setTiming(timingOf(options));
    }
    if (options.model.empty() && simulation != nullptr && !options.sim->empty()) {
        options.model = simulation->model();
        note += "--model\n" + options.model + "\n";  // A replay does without the description.
    }
    if (options.model.empty())
        options.model = VENGINE_MODEL;
    if (options.list) {
        printDevices(findDevices({}));
        return kSuccess;
    }
    if (!startFiles(options, note))
        return kBadUse;
    customizeThreadReadyToRun(kThreadName, strlen(kThreadName));
    const int code = stream(options);
    trace::stop();
    record::stop();
    return replayed != nullptr ? replayed->finish(static_cast<ExitCode>(code)) : code;
}

}  // namespace

}  // namespace NSVista::NSCorvane::tools

int main(int argc, char** argv) {
    using namespace NSVista::NSCorvane;
    using namespace NSVista::NSCorvane::tools;
    setProgramName(kSceneName);
    setUpTerminal();
    Options options;
    if (const std::optional<int> code = parseOptions(argc, argv, options))
        return *code;
    replay::Record recorded;
    if (!options.replay.empty()) {
        const std::string file = options.replay;
        recorded = replay::loadRecord(file);
        const bool isOurs = recorded.program == kSceneName;
        if (const std::optional<int> code =
                parseReplayOptions(isOurs ? recorded.note : std::string(), argc, argv, options))
            return *code;
    }
    return finishOutput(
        static_cast<ExitCode>(run(options, noteOf(argc, argv), std::move(recorded))));
}
