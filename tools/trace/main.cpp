// SPDX-License-Identifier: Apache-2.0
#include <corvane/replay/RecordReader.h>
#include <corvane/replay/Story.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>

#include "Console.h"
#include "Prints.h"
#include "Version.h"

namespace NSVista::NSCorvane::tools {

namespace {

struct Options {
    std::string file;
    std::string output;
    Selection selection;
};

void addSelection(CLI::App& command, Selection& selection) {
    command.add_option("--port", selection.ports, "Calls on this entity's node, or on this path");
    command.add_option("--request", selection.requests,
                       "Calls on and for the request of this descriptor");
    command.add_option("--call", selection.calls, "Calls with this in their name");
    command.add_option("--thread", selection.threads, "Calls of the threads of this name");
    command.add_option("--from", selection.from, "Calls from this second of the record on");
    command.add_option("--to", selection.to, "Calls until this second of the record");
    command.add_option("--slower", selection.slowerUs, "Calls that took this many us or more");
    command.add_flag("--failed", selection.failed, "Calls that failed or never returned");
}

CLI::App* addCommand(CLI::App& app, const char* name, const char* help, Options& options) {
    CLI::App* const command = app.add_subcommand(name, help);
    command->add_option("FILE", options.file, "The record")->required();
    command->add_option("-o,--output", options.output, "Write to this file, not to stdout");
    return command;
}

int run(const CLI::App& app, const Options& options) {
    Evidence evidence{replay::loadRecord(options.file), {}};
    const replay::Record& record = evidence.record;
    for (const std::string& problem : record.problems)
        say("%s: %s", options.file.c_str(), problem.c_str());
    if (!record.isRecord && record.program.empty())
        return kBadUse;
    evidence.story = replay::tellStory(record);
    const auto close = [](FILE* file) {
        if (file != stdout)
            fclose(file);
    };
    const std::unique_ptr<FILE, decltype(close)> out(
        options.output.empty() ? stdout : fopen(options.output.c_str(), "we"), close);
    if (out == nullptr)
        return complain(kBadUse, "%s: %s", options.output.c_str(), strerror(errno));
    if (app.got_subcommand("show"))
        show(evidence, options.selection, out.get());
    else if (app.got_subcommand("json"))
        printJson(evidence, options.selection, out.get());
    else if (app.got_subcommand("timeline"))
        printTimeline(evidence, out.get());
    else
        printReport(evidence, out.get());
    if (fflush(out.get()) != 0 || ferror(out.get()) != 0)
        return complain(kRunFailed, "output was lost: %s", strerror(errno));
    return record.problems.empty() ? kSuccess : kRunFailed;
}

int runCommandLine(int argc, char** argv) {
    Options options;
    CLI::App app("Shows what a record of kernel calls holds.\n", "corvane-trace");
    app.footer(
        "A record is made by corvane-stream --record FILE, or of any program by the property\n"
        "persist.vendor.camera.corvane.record.\n\n"
        "Exit codes: 0 success, 1 the record is damaged or incomplete (what can be read is\n"
        "shown), 2 bad use or no record.");
    addVersion(app);
    app.require_subcommand(1);
    addSelection(*addCommand(app, "show", "A line a call, as strace prints it", options),
                 options.selection);
    addSelection(*addCommand(app, "json", "The calls for machines", options), options.selection);
    addCommand(app, "timeline",
               "A timeline for Perfetto's viewer: a track a thread, buffer and request", options);
    addCommand(app, "report", "One page of HTML: rates, latencies, errors, where time went",
               options);
    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& end) {
        return app.exit(end);
    } catch (const CLI::ParseError& error) {
        return complain(kBadUse, "%s; --help tells more", error.what());
    }
    return run(app, options);
}

}  // namespace

}  // namespace NSVista::NSCorvane::tools

int main(int argc, char** argv) {
    NSVista::NSCorvane::tools::setProgramName("corvane-trace");
    return NSVista::NSCorvane::tools::runCommandLine(argc, argv);
}
