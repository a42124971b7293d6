// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * What the command line asks for.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "ControlPlan.h"

namespace NSVista::NSCorvane::tools {

/** A format or a size, for one port or for all video ports. */
struct FormatWish {
    std::string entity;  ///< empty: all
    uint32_t format;     ///< fourcc; 0: not wished
    uint32_t width, height;
};

struct Options {
    bool list = false;
    std::string model;
    std::string ports = "all";
    uint64_t requests = 100;  ///< 0: until interrupted
    unsigned inFlight = 4;
    unsigned buffers = 0;             ///< per port
    std::vector<FormatWish> formats;  ///< the later one counts
    std::vector<ControlWish> controls;
    std::vector<std::pair<std::string, std::string>> inputs;  ///< entity and file
    uint64_t skip = 0;       ///< requests at the beginning that are not looked at
    uint32_t frameRate = 0;  ///< per second; 0: the driver's
    std::optional<uint32_t> offset;
    bool worker = false;
    unsigned stallAfter = 10;  ///< seconds without a completed request

    std::optional<std::string> sim;  ///< a device's description, empty for the virtual engine
    unsigned latencyUs = 0;
    std::string order;  ///< "in-order", "reversed" or "random"
    unsigned seed = 1;

    std::string snapshot;  ///< paths; empty: none
    std::string trace;
    std::string save;    ///< folder
    bool split = false;  ///< saves each frame in a file of its own
    std::string record;  ///< file
    std::string replay;  ///< file
    bool fast = false;
    bool json = false;
    bool dump = false;
    bool events = false;
    unsigned verbose = 0;
    bool quiet = false;
};

/**
 * Reads the command line; prints help, or one line about what is wrong.
 * @return an exit code when the program is to end, else nothing.
 */
std::optional<int> parseOptions(int argc, char** argv, Options& options);

/** A command line as a record keeps it, a line an argument; without what asks for the record. */
std::string noteOf(int argc, char** argv);
/**
 * Reads the command line of a replay again, behind that of the recorded run: what both say counts
 * as said now.
 * @return as parseOptions().
 */
std::optional<int> parseReplayOptions(const std::string& note, int argc, char** argv,
                                      Options& options);

}  // namespace NSVista::NSCorvane::tools
