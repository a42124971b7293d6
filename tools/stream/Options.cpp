// SPDX-License-Identifier: Apache-2.0
#include "Options.h"

#include <corvane/V4L2.h>
#include <corvane/V4L2VideoDevice.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <charconv>
#include <cstdio>

#include "Console.h"
#include "Version.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::tools {

namespace {

using Read = std::string (*)(const std::string&, Options&);

/** Splits "ENTITY=VALUE"; without an entity that one is empty. */
std::pair<std::string, std::string> split(const std::string& text) {
    const size_t equals = text.find('=');
    if (equals == std::string::npos)
        return {{}, text};
    return {text.substr(0, equals), text.substr(equals + 1)};
}

/** These return what is wrong with a text, empty for nothing. */
std::string readSize(const std::string& text, Options& options) {
    const auto [entity, size] = split(text);
    char rest = 0;
    unsigned width = 0;
    unsigned height = 0;
    if (sscanf(size.c_str(), "%5ux%5u%c", &width, &height, &rest) != 2 || width == 0 || height == 0)
        return "a size is WIDTHxHEIGHT, not \"" + size + "\"";
    options.formats.push_back({entity, 0, width, height});
    return {};
}

std::string readFormat(const std::string& text, Options& options) {
    const auto [entity, name] = split(text);
    const uint32_t fourcc = v4l2::fourccOf(name);
    if (fourcc == 0)
        return "a format is NV12M, NM12 and the like, not \"" + name + "\"";
    options.formats.push_back({entity, fourcc, 0, 0});
    return {};
}

std::string readControl(const std::string& text, Options& options) {
    const std::optional<ControlWish> wish = ControlWish::parse(text);
    if (!wish)
        return "a control is [ENTITY:]CONTROL=NUMBER[@REQUEST], not \"" + text + "\"";
    options.controls.push_back(*wish);
    return {};
}

std::string readInput(const std::string& text, Options& options) {
    options.inputs.push_back(split(text));
    const auto& [entity, file] = options.inputs.back();
    return entity.empty() || file.empty() ? "an input is ENTITY=FILE, not \"" + text + "\""
                                          : std::string();
}

/** An option, given once or more, whose values a function reads. */
CLI::Option* addRead(CLI::App& app, const char* name, Options& options, Read read,
                     const char* help) {
    return app
        .add_option_function<std::vector<std::string>>(
            name,
            [&options, read](const std::vector<std::string>& texts) {
                for (const std::string& text : texts)
                    if (const std::string wrong = read(text, options); !wrong.empty())
                        throw CLI::ValidationError(wrong);
            },
            help)
        ->multi_option_policy(CLI::MultiOptionPolicy::TakeAll);
}

/** A number of a range, which an error names in words. */
CLI::Validator between(uint64_t least, uint64_t most) {
    return CLI::Validator(
        [least, most](const std::string& text) {
            uint64_t value = 0;
            const char* const end = text.data() + text.size();
            const auto parsed = std::from_chars(text.data(), end, value);
            const bool isRead = parsed.ec == std::errc() && parsed.ptr == end;
            if (isRead && value >= least && value <= most)
                return std::string();
            return "it takes a number from " + std::to_string(least) +
                   (most == UINT64_MAX ? " on" : " to " + std::to_string(most)) + ", not \"" +
                   text + "\"";
        },
        std::to_string(least) + (most == UINT64_MAX ? "..." : ".." + std::to_string(most)));
}

void addStreamOptions(CLI::App& app, Options& options) {
    app.add_flag("--list", options.list, "List media devices as corvane-info does, then end");
    app.add_option("--model", options.model, "Model name of the media device")
        ->default_str(VENGINE_MODEL ", or the one that --sim poses as");
    app.add_option("--ports", options.ports,
                   "Ports: a list of entity names or indexes, how many of the first, or \"all\"")
        ->capture_default_str();
    app.add_option("--requests", options.requests, "Requests to stream; 0: until interrupted")
        ->check(between(0, UINT64_MAX))
        ->capture_default_str();
    app.add_option("--in-flight", options.inFlight, "Requests under way at a time")
        ->check(between(1, V4L2VideoDevice::kMaxBuffers))
        ->capture_default_str();
    app.add_option("--buffers", options.buffers, "Buffers per port")
        ->check(between(1, V4L2VideoDevice::kMaxBuffers))
        ->default_str("those in flight");
    addRead(app, "--size", options, readSize,
            "Size of pictures, [ENTITY=]WIDTHxHEIGHT; more than once for several ports")
        ->default_str("the driver's");
    addRead(app, "--format", options, readFormat,
            "Format of pictures, [ENTITY=]FORMAT, as --list names them")
        ->default_str("the driver's");
    app.add_option("--fps", options.frameRate, "Frames per second of video captures")
        ->check(between(1, 1000))
        ->default_str("the driver's");
    app.add_option("--offset", options.offset,
                   "Bytes before the first plane; above 0 all planes of a buffer share one dma-buf")
        ->check(between(0, 1U << 24))
        ->default_str("192 on the virtual engine, else 0");
    addRead(app, "--control", options, readControl,
            "Set [ENTITY:]CONTROL=NUMBER at once, or with a request: ...@REQUEST");
    addRead(app, "--input", options, readInput,
            "Raw frames for an output port, ENTITY=FILE; they begin anew at the file's end");
    app.add_option("--skip", options.skip,
                   "Requests at the beginning that are neither checked nor saved nor timed")
        ->check(between(0, UINT64_MAX))
        ->capture_default_str();
    app.add_option("--stall-after", options.stallAfter,
                   "Seconds without a completed request after which the run says why, and ends; "
                   "SIGQUIT asks it at any time")
        ->check(between(1, 1'000'000))
        ->capture_default_str();
    app.add_flag("--worker", options.worker, "Dequeue on the buffer monitor's thread always");
}

void addEngineOptions(CLI::App& app, Options& options) {
    const char* const group = "Virtual engine";
    CLI::Option* const sim =
        app.add_option("--sim", options.sim,
                       "Use the virtual engine in this process, or have it pose as another device: "
                       "a file from corvane-info --capture")
            ->expected(0, 1)
            ->default_str("")
            ->type_name("[FILE]")
            ->group(group);
    app.add_option("--latency-us", options.latencyUs, "Time that a request takes")
        ->check(between(0, UINT64_MAX))
        ->default_val(500)
        ->needs(sim)
        ->group(group);
    app.add_option("--order", options.order, "Order of completion")
        ->check(CLI::IsMember({"in-order", "reversed", "random"}))
        ->default_val("in-order")
        ->needs(sim)
        ->group(group);
    app.add_option("--seed", options.seed, "Seed of the random order")
        ->check(between(0, UINT64_MAX))
        ->default_val(1)
        ->needs(sim)
        ->group(group);
}

void addOutputOptions(CLI::App& app, Options& options) {
    const char* const group = "Output";
    app.add_option("--snapshot", options.snapshot, "Write the last request's pictures to a PNG")
        ->group(group);
    CLI::Option* const save =
        app.add_option("--save", options.save,
                       "Write every captured frame to this folder: a raw file a port, and a text "
                       "file that describes it")
            ->group(group);
    app.add_flag("--split", options.split, "With --save: a raw file a frame, ENTITY-NUMBER.raw")
        ->needs(save)
        ->group(group);
    app.add_flag("--json", options.json, "Print the result for machines")->group(group);
    app.add_option("--trace", options.trace,
                   "Write a timeline in the Chrome trace event format (Perfetto's viewer opens it)")
        ->group(group);
    app.add_option("--record", options.record,
                   "Record every call of the kernel into this file; corvane-trace shows it")
        ->group(group);
    app.add_flag("--dump", options.dump, "Print the whole state at the end, still streaming")
        ->group(group);
    app.add_flag("--events", options.events, "Print frame-sync events of the default sub-device")
        ->group(group);
    app.add_flag("-v,--verbose", options.verbose, "Log more: info, key events, debug")
        ->group(group);
    app.add_flag("-q,--quiet", options.quiet, "No progress")->group(group);
}

void addReplayOptions(CLI::App& app, Options& options) {
    const char* const group = "Replay";
    CLI::Option* const replay =
        app.add_option("--replay", options.replay,
                       "Let this record answer in the device's place; options given here replace "
                       "those of the recorded run. Pictures are not checked: a record has none")
            ->group(group);
    app.add_flag("--fast", options.fast, "Leave the record's delays out, but for those of a second")
        ->needs(replay)
        ->group(group);
}

/** @param again an option may come twice: the later one counts. */
std::optional<int> parse(int argc, char** argv, bool again, Options& options) {
    options = {};
    CLI::App app("Streams requests through a media device and checks every frame.\n",
                 "corvane-stream");
    if (again)
        app.option_defaults()->multi_option_policy(CLI::MultiOptionPolicy::TakeLast);
    app.footer("Exit codes: 0 success, 1 the run failed, 2 bad use.");
    addVersion(app);
    addStreamOptions(app, options);
    addEngineOptions(app, options);
    addReplayOptions(app, options);
    addOutputOptions(app, options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& end) {
        return app.exit(end);
    } catch (const CLI::ParseError& error) {
        return complain(kBadUse, "%s; --help tells more", error.what());
    }
    if (options.buffers == 0)
        options.buffers = options.inFlight;
    if (options.buffers < options.inFlight)
        return complain(kBadUse, "--buffers %u are fewer than the %u requests in flight",
                        options.buffers, options.inFlight);
    return std::nullopt;
}

}  // namespace

std::optional<int> parseOptions(int argc, char** argv, Options& options) {
    return parse(argc, argv, false, options);
}

std::string noteOf(int argc, char** argv) {
    constexpr std::string_view kRecord = "--record";
    std::string note;
    for (int i = 1; i < argc; ++i) {
        const std::string_view argument = argv[i];
        if (argument == kRecord)
            ++i;
        else if (!argument.starts_with(std::string(kRecord) + "="))
            note.append(argument).append("\n");
    }
    return note;
}

std::optional<int> parseReplayOptions(const std::string& note, int argc, char** argv,
                                      Options& options) {
    std::vector<std::string> words = {argv[0]};
    for (size_t begin = 0, end = 0; (end = note.find('\n', begin)) != std::string::npos;
         begin = end + 1)
        words.push_back(note.substr(begin, end - begin));
    words.insert(words.end(), argv + 1, argv + argc);
    std::vector<char*> pointers(words.size());
    std::transform(words.begin(), words.end(), pointers.begin(),
                   [](std::string& word) { return word.data(); });
    return parse(static_cast<int>(pointers.size()), pointers.data(), true, options);
}

}  // namespace NSVista::NSCorvane::tools
