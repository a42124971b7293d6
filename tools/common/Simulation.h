// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The virtual engine in place of the machine's devices.
 */
#pragma once

#include <corvane/sim/Engine.h>

#include <memory>
#include <string>

namespace NSVista::NSCorvane::tools {

/** An engine that is installed while it lives. */
class Simulation {
public:
    /**
     * @param file a device's description, which the engine then poses as; empty: the virtual
     * engine.
     * @return null, with a line on stderr, for a file that cannot be read.
     */
    static std::unique_ptr<Simulation> start(const std::string& file);

    sim::Device& device() { return mEngine.device(); }
    const std::string& model() const { return mModel; }

private:
    explicit Simulation(const sim::DeviceDesc& description);

    sim::VirtualEngine mEngine;
    sim::ScopedKernel mInstalled;
    std::string mModel;
};

}  // namespace NSVista::NSCorvane::tools
