#include "Options.h"

#include <corvane/V4L2.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstdio>

#include "Console.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::tools {

namespace {

constexpr unsigned kMaxBuffers = 64;
/** What most kernels grant a node. */
constexpr unsigned kUsualBuffers = 32;

/** "WxH", or an error text. */
std::string readSize(const std::string& text, Options& options) {
    char rest = 0;
    unsigned width = 0;
    unsigned height = 0;
    if (sscanf(text.c_str(), "%5ux%5u%c", &width, &height, &rest) != 2 || width == 0 || height == 0)
        return "a size is WIDTHxHEIGHT, not \"" + text + "\"";
    options.width = width;
    options.height = height;
    return {};
}

std::string readFormat(const std::string& text, Options& options) {
    options.format = v4l2::fourccOf(text);
    return options.format != 0 ? std::string()
                               : "a format is NV12M, NM12 and the like, not \"" + text + "\"";
}

using Check = std::string (*)(const std::string&, Options&);

/** An option whose value is read by a function that tells what is wrong with it. */
CLI::Option* addRead(CLI::App& app, const char* name, Options& options, Check read,
                     const char* help) {
    return app.add_option_function<std::string>(
        name,
        [&options, read](const std::string& text) {
            if (const std::string wrong = read(text, options); !wrong.empty())
                throw CLI::ValidationError(wrong);
        },
        help);
}

void addStreamOptions(CLI::App& app, Options& options) {
    app.add_flag("--list", options.list, "List media devices as corvane-info does, then end");
    app.add_option("--model", options.model, "Model name of the media device")
        ->default_str(VENGINE_MODEL);
    app.add_option("--ports", options.ports,
                   "Ports: a list of entity names or indexes, how many of the first, or \"all\"")
        ->capture_default_str();
    app.add_option("--requests", options.requests, "Requests to stream; 0: until interrupted")
        ->check(CLI::NonNegativeNumber)
        ->capture_default_str();
    app.add_option("--in-flight", options.inFlight, "Requests under way at a time")
        ->check(CLI::Range(1U, kMaxBuffers))
        ->capture_default_str();
    app.add_option("--buffers", options.buffers, "Buffers per port")
        ->check(CLI::Range(1U, kMaxBuffers))
        ->default_str("twice those in flight");
    addRead(app, "--size", options, readSize, "Size of pictures, WIDTHxHEIGHT")
        ->default_str("the driver's");
    addRead(app, "--format", options, readFormat, "Format of the video ports, as --list names it")
        ->default_str("the driver's");
    app.add_option("--fps", options.frameRate, "Frames per second of video captures")
        ->check(CLI::Range(1U, 1000U))
        ->default_str("the driver's");
    app.add_option("--offset", options.offset,
                   "Bytes before the first plane; above 0 all planes of a buffer share one dma-buf")
        ->check(CLI::Range(0U, 1U << 24))
        ->default_str("192 on the virtual engine, else 0");
    app.add_flag("--worker", options.worker, "Dequeue on the buffer monitor's thread always");
}

void addEngineOptions(CLI::App& app, Options& options) {
    const char* const group = "Virtual engine";
    CLI::Option* const sim =
        app.add_flag("--sim", options.sim, "Use the virtual engine in this process")->group(group);
    app.add_option("--latency-us", options.latencyUs, "Time that a request takes")
        ->check(CLI::NonNegativeNumber)
        ->default_val(500)
        ->needs(sim)
        ->group(group);
    app.add_option("--order", options.order, "Order of completion")
        ->check(CLI::IsMember({"in-order", "reversed", "random"}))
        ->default_val("in-order")
        ->needs(sim)
        ->group(group);
    app.add_option("--seed", options.seed, "Seed of the random order")
        ->check(CLI::NonNegativeNumber)
        ->default_val(1)
        ->needs(sim)
        ->group(group);
}

void addOutputOptions(CLI::App& app, Options& options) {
    const char* const group = "Output";
    app.add_option("--snapshot", options.snapshot, "Write the last request's pictures to a PNG")
        ->group(group);
    app.add_option("--trace", options.trace,
                   "Write a timeline in the Chrome trace event format (Perfetto's viewer opens it)")
        ->group(group);
    app.add_flag("--dump", options.dump, "Print the whole state at the end, still streaming")
        ->group(group);
    app.add_flag("--events", options.events, "Print frame-sync events of the default sub-device")
        ->group(group);
    app.add_flag("-v,--verbose", options.verbose, "Log more: warnings, info, key events, debug")
        ->group(group);
    app.add_flag("-q,--quiet", options.quiet, "No progress")->group(group);
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    options = {};
    CLI::App app("Streams requests through a media device and checks every frame.\n",
                 "corvane-stream");
    app.footer("Exit codes: 0 success, 1 the run failed, 2 bad use.");
    addStreamOptions(app, options);
    addEngineOptions(app, options);
    addOutputOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp& help) {
        return app.exit(help);
    } catch (const CLI::ParseError& error) {
        return complain(kBadUse, "%s; --help tells more", error.what());
    }
    if (options.model.empty())
        options.model = VENGINE_MODEL;
    // Spare buffers, so that queueing does not wait for dequeues, which come after completions.
    if (options.buffers == 0)
        options.buffers = std::max(options.inFlight, std::min(2 * options.inFlight, kUsualBuffers));
    if (options.buffers < options.inFlight)
        return complain(kBadUse, "--buffers %u are fewer than the %u requests in flight",
                        options.buffers, options.inFlight);
    return std::nullopt;
}

}  // namespace NSVista::NSCorvane::tools
