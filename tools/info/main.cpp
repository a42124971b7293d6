// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * corvane-info: what media devices there are and how they are wired and set.
 */
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneManager.h>
#include <corvane/platform/Printer.h>
#include <corvane/sim/DescriptionFile.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>

#include "Capture.h"
#include "Console.h"
#include "Controls.h"
#include "Device.h"
#include "Graph.h"
#include "JsonReport.h"
#include "Listing.h"
#include "Settings.h"
#include "Simulation.h"
#include "Version.h"
#include "Watch.h"

namespace NSVista::NSCorvane::tools {

namespace {

struct Options {
    std::string model, dot, subDevice, capture;
    std::optional<std::string> sim;  ///< a description, empty for the virtual engine
    std::vector<int> controls;
    std::vector<std::string> links, formats;
    bool withIdentity = false, dump = false, json = false, watch = false;
};

ExitCode writeText(const std::string& text, const std::string& path) {
    if (path == "-") {
        fputs(text.c_str(), stdout);
        return kSuccess;
    }
    FILE* const file = fopen(path.c_str(), "we");
    if (file == nullptr)
        return complain(kRunFailed, "cannot write %s: %s", path.c_str(), strerror(errno));
    const bool written = fputs(text.c_str(), file) >= 0;
    if (fclose(file) != 0 || !written)
        return complain(kRunFailed, "cannot write %s: %s", path.c_str(), strerror(errno));
    return kSuccess;
}

/** The controls to read: the asked ones, with what is known of them, else all known. */
std::vector<ControlId> chooseControls(const Options& options, const KnownControls& known) {
    if (options.controls.empty())
        return known.controls;
    std::vector<ControlId> chosen;
    for (const int id : options.controls) {
        const auto same = [id](const ControlId& control) { return control.id == id; };
        const auto found = std::find_if(known.controls.begin(), known.controls.end(), same);
        chosen.push_back(found != known.controls.end() ? *found : ControlId{id, {}, {}});
    }
    return chosen;
}

/** The sub-device whose controls are shown; null for none. */
const Entity* controlledEntity(const Options& options, const Device& device) {
    const std::string name =
        options.subDevice.empty() ? knownControls(device.model).entity : options.subDevice;
    const Entity* entity = device.find(name);
    return entity != nullptr && !entity->devnode.empty() ? entity : nullptr;
}

/** Tests that the wishes about controls can be met. */
ExitCode checkControls(const Options& options, const std::vector<Device>& devices) {
    const auto controlled = [&](const Device& device) {
        return controlledEntity(options, device) != nullptr;
    };
    if (std::any_of(devices.begin(), devices.end(), controlled))
        return kSuccess;
    if (!options.subDevice.empty())
        return complain(kBadUse, "no entity '%s' with a device node", options.subDevice.c_str());
    if (!options.controls.empty())
        return complain(kBadUse, "--control needs --subdev: no sub-device is known");
    return kSuccess;
}

ExitCode showControls(const Options& options, const Device& device) {
    const Entity* entity = controlledEntity(options, device);
    const auto controls = chooseControls(options, knownControls(device.model));
    if (entity == nullptr || controls.empty())
        return kSuccess;
    std::vector<ControlValue> values;
    if (const int r = readControls(*entity, controls, values); r < 0)
        return complain(kRunFailed, "cannot open %s: %s", entity->devnode.c_str(), strerror(-r));
    printControls(*entity, values);
    return kSuccess;
}

ExitCode writeCapture(const Options& options, const std::vector<Device>& devices) {
    if (devices.size() != 1)
        return complain(kBadUse, "there are %zu devices: --model names the one to capture",
                        devices.size());
    const Device& device = devices.front();
    const Entity* const entity = controlledEntity(options, device);
    if (const ExitCode code = checkControls(options, devices); code != kSuccess)
        return code;
    std::vector<std::string> remarks;
    const sim::DeviceDesc captured = captureDevice(
        device,
        {options.withIdentity, entity, chooseControls(options, knownControls(device.model))},
        remarks);
    for (const std::string& remark : remarks)
        say("%s", remark.c_str());
    return writeText(sim::writeDescription(captured), options.capture);
}

/** Prints the library's state with every device searched for, so that its caches show. */
void dumpState(const std::vector<Device>& devices) {
    std::set<std::string> models;
    std::vector<std::shared_ptr<IMediaDevice>> found;
    for (const Device& device : devices) {
        if (models.insert(device.model).second)
            found.push_back(IDeviceEnumerator::instance().search(device.model));
    }
    printf("\nState\n");
    FilePrinter printer(stdout);
    SceneManager().dumpState(&printer);
    for (const auto& device : found)
        device->dumpState(&printer, 'V');
    IDefaultSubDeviceProvider::instance()->dumpState(&printer);
}

/** Carries the wished changes out and reads the devices anew. */
ExitCode change(const Options& options, std::vector<Device>& devices) {
    if (options.links.empty() && options.formats.empty())
        return kSuccess;
    if (devices.size() != 1)
        return complain(kBadUse, "there are %zu devices: --model names the one to change",
                        devices.size());
    ExitCode code = kSuccess;
    for (const std::string& wish : options.links)
        code = std::max(code, setLink(devices.front(), wish));
    for (const std::string& wish : options.formats)
        code = std::max(code, setFormat(devices.front(), wish));
    devices = findDevices(options.model);
    return code;
}

ExitCode run(const Options& options) {
    std::unique_ptr<Simulation> simulation;
    if (options.sim && !(simulation = Simulation::start(*options.sim)))
        return kBadUse;
    if (options.watch)
        return watchDevices();
    std::vector<Device> devices = findDevices(options.model);
    if (devices.empty() && !options.model.empty())
        return complain(kBadUse, "no media device of model \"%s\"", options.model.c_str());
    if (devices.empty())
        return complain(kRunFailed, "no media device found (--sim shows the virtual engine)");
    if (const ExitCode code = change(options, devices); code != kSuccess)
        return code;
    if (!options.capture.empty())
        return writeCapture(options, devices);
    if (options.json) {
        puts(makeJson(devices).c_str());
        return kSuccess;
    }
    if (!options.dot.empty())
        return writeText(makeGraph(devices), options.dot);
    if (const ExitCode code = checkControls(options, devices); code != kSuccess)
        return code;
    printDevices(devices);
    ExitCode code = kSuccess;
    for (const Device& device : devices)
        code = std::max(code, showControls(options, device));
    if (options.dump)
        dumpState(devices);
    return code;
}

}  // namespace

}  // namespace NSVista::NSCorvane::tools

int main(int argc, char** argv) {
    using namespace NSVista::NSCorvane::tools;
    setProgramName("corvane-info");
    Options options;
    CLI::App app("Shows media devices: topology, formats of their nodes, controls.",
                 "corvane-info");
    app.footer("Exit codes: 0 success, 1 a device could not be read, 2 bad use.");
    addVersion(app);
    app.add_option("-m,--model", options.model, "Only media devices of this model")
        ->type_name("NAME");
    app.add_option(
           "--sim", options.sim,
           "Show the virtual engine in place of this machine, or what it poses as: a device "
           "from --capture")
        ->expected(0, 1)
        ->default_str("")
        ->type_name("[FILE]");
    CLI::Option* const capture =
        app.add_option(
               "--capture", options.capture,
               "Write all that the device tells to a file, or to standard output for -, and "
               "end; the device is left as it was")
            ->type_name("FILE");
    app.add_flag("--with-identity", options.withIdentity, "Let the capture hold the serial number")
        ->needs(capture);
    app.add_option("--dot", options.dot,
                   "Write the graph for graphviz to a file, else to standard output, and end")
        ->expected(0, 1)
        ->default_str("-")
        ->type_name("[FILE]");
    app.add_option("--subdev", options.subDevice, "Entity of the driver's sub-device")
        ->type_name("NAME");
    app.add_option("--control", options.controls, "Ids of the sub-device's controls to read")
        ->type_name("ID");
    app.add_option("--set-link", options.links,
                   "Enable or disable a link: SOURCE:PAD,SINK:PAD=on or =off")
        ->type_name("LINK");
    app.add_option("--set-format", options.formats,
                   "Set ENTITY=FORMAT, ENTITY=WIDTHxHEIGHT or ENTITY=FORMAT,WIDTHxHEIGHT")
        ->type_name("FORMAT");
    app.add_flag("--json", options.json, "Print everything for machines");
    app.add_flag("--watch", options.watch, "Tell of devices that come and go, until interrupted");
    app.add_flag("--dump", options.dump, "Print the library's state");
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& end) {
        return app.exit(end);
    } catch (const CLI::ParseError& error) {
        return complain(kBadUse, "%s; --help tells more", error.what());
    }
    setUpTerminal();
    return finishOutput(run(options));
}
