/**
 * @file
 * corvane-info: what media devices there are and how they are wired and set.
 */
#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IDeviceEnumerator.h>
#include <corvane/IMediaDevice.h>
#include <corvane/SceneManager.h>
#include <corvane/platform/Printer.h>
#include <corvane/sim/Engine.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <optional>
#include <set>

#include "Controls.h"
#include "Devices.h"
#include "Graph.h"
#include "Report.h"

namespace corvane::info {

namespace {

using namespace NSVista;
using namespace NSVista::NSCorvane;

enum Exit { kDone = 0, kFailed = 1, kUsage = 2 };

struct Options {
    std::string model, dot, svg, png, subDevice;
    std::vector<int> controls;
    bool sim = false, dump = false;
};

/** Ends a run with one line. */
int complain(Exit exit, const char* format, ...) __attribute__((format(printf, 2, 3)));
int complain(Exit exit, const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    fputs("corvane-info: ", stderr);
    vfprintf(stderr, format, arguments);
    fputc('\n', stderr);
    va_end(arguments);
    return exit;
}

int writeFile(const std::string& content, const std::string& path) {
    FILE* file = fopen(path.c_str(), "w");
    if (file == nullptr)
        return complain(kFailed, "cannot write %s: %s", path.c_str(), strerror(errno));
    const bool written = fwrite(content.data(), 1, content.size(), file) == content.size();
    if (fclose(file) != 0 || !written)
        return complain(kFailed, "cannot write %s: %s", path.c_str(), strerror(errno));
    printf("graph: %s\n", path.c_str());
    return kDone;
}

int draw(const std::string& graph, const char* format, const std::string& path) {
    std::string picture;
    const int r = drawGraph(graph, format, picture);
    if (r == -ENOEXEC)
        return complain(kFailed, "cannot draw %s: 'dot' of graphviz is not installed",
                        path.c_str());
    if (r < 0)
        return complain(kFailed, "cannot draw %s: %s", path.c_str(), strerror(-r));
    return writeFile(picture, path);
}

int writeGraphs(const Options& options, const std::vector<Device>& devices) {
    if (options.dot.empty() && options.svg.empty() && options.png.empty())
        return kDone;
    const std::string graph = makeGraph(devices);
    int exit = kDone;
    if (!options.dot.empty())
        exit = std::max(exit, writeFile(graph, options.dot));
    if (!options.svg.empty())
        exit = std::max(exit, draw(graph, "svg", options.svg));
    if (!options.png.empty())
        exit = std::max(exit, draw(graph, "png", options.png));
    return exit;
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
int checkControls(const Options& options, const std::vector<Device>& devices) {
    const auto controlled = [&](const Device& device) {
        return controlledEntity(options, device) != nullptr;
    };
    if (std::any_of(devices.begin(), devices.end(), controlled))
        return kDone;
    if (!options.subDevice.empty())
        return complain(kUsage, "no entity '%s' with a device node", options.subDevice.c_str());
    if (!options.controls.empty())
        return complain(kUsage, "--control needs --subdev: no sub-device is known");
    return kDone;
}

int showControls(const Options& options, const Device& device) {
    const Entity* entity = controlledEntity(options, device);
    const auto controls = chooseControls(options, knownControls(device.model));
    if (entity == nullptr || controls.empty())
        return kDone;
    std::vector<ControlValue> values;
    if (const int r = readControls(*entity, controls, values); r < 0)
        return complain(kFailed, "cannot open %s: %s", entity->devnode.c_str(), strerror(-r));
    printControls(*entity, values);
    return kDone;
}

int report(const Options& options, const std::vector<Device>& devices) {
    int exit = kDone;
    for (const Device& device : devices) {
        if (&device != &devices.front())
            printf("\n\n");
        printDevice(device);
        exit = std::max(exit, showControls(options, device));
    }
    return exit;
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

int run(const Options& options) {
    std::optional<sim::VirtualEngine> engine;
    std::optional<sim::ScopedKernel> kernel;
    if (options.sim)
        kernel.emplace(engine.emplace());

    const std::vector<Device> devices = findDevices(options.model);
    if (devices.empty() && !options.model.empty())
        return complain(kUsage, "no media device of model '%s'", options.model.c_str());
    if (devices.empty())
        return complain(kFailed, "no media device found (--sim shows the virtual engine)");
    if (options.dot == "-") {
        fputs(makeGraph(devices).c_str(), stdout);
        return kDone;
    }
    if (const int exit = checkControls(options, devices); exit != kDone)
        return exit;
    int exit = report(options, devices);
    if (options.dump)
        dumpState(devices);
    exit = std::max(exit, writeGraphs(options, devices));
    return exit;
}

}  // namespace

}  // namespace corvane::info

int main(int argc, char** argv) {
    corvane::info::Options options;
    CLI::App app("Shows media devices: topology, formats of their nodes, controls.",
                 "corvane-info");
    app.add_option("-m,--model", options.model, "only media devices of this model")
        ->type_name("NAME");
    app.add_flag("--sim", options.sim, "show the virtual engine in place of this machine");
    app.add_option("--dot", options.dot,
                   "write the graph for graphviz; - for standard output alone")
        ->type_name("FILE");
    app.add_option("--svg", options.svg, "draw the graph as SVG (needs graphviz)")
        ->type_name("FILE");
    app.add_option("--png", options.png, "draw the graph as PNG (needs graphviz)")
        ->type_name("FILE");
    app.add_option("--subdev", options.subDevice, "entity of the driver's sub-device")
        ->type_name("NAME");
    app.add_option("--control", options.controls, "ids of the sub-device's controls to read")
        ->type_name("ID");
    app.add_flag("--dump", options.dump, "print the library's state");
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return corvane::info::complain(corvane::info::kUsage, "%s", error.what());
    }
    corvane::info::setUpTerminal();
    return corvane::info::run(options);
}
