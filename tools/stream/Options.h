/**
 * @file
 * What the command line asks for.
 */
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace NSVista::NSCorvane::tools {

struct Options {
    bool list = false;
    std::string model;
    std::string ports = "all";
    uint64_t requests = 100;  ///< 0: until interrupted
    unsigned inFlight = 4;
    unsigned buffers = 0;  ///< per port
    uint32_t width = 0;    ///< 0: the driver's size
    uint32_t height = 0;
    uint32_t format = 0;     ///< fourcc; 0: the driver's
    uint32_t frameRate = 0;  ///< per second; 0: the driver's
    std::optional<uint32_t> offset;
    bool worker = false;

    bool sim = false;
    unsigned latencyUs = 0;
    std::string order;  ///< "in-order", "reversed" or "random"
    unsigned seed = 1;

    std::string snapshot;  ///< paths; empty: none
    std::string trace;
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

}  // namespace NSVista::NSCorvane::tools
