// SPDX-License-Identifier: Apache-2.0
#include "Simulation.h"

#include <corvane/V4L2.h>
#include <corvane/sim/DescriptionFile.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "Console.h"

namespace NSVista::NSCorvane::tools {

namespace {

/** @return false, with a line on stderr. */
bool readFile(const std::string& path, std::string& text) {
    FILE* const file = fopen(path.c_str(), "re");
    if (file == nullptr) {
        say("%s: %s", path.c_str(), strerror(errno));
        return false;
    }
    char part[1U << 16];
    size_t length = 0;
    while ((length = fread(part, 1, sizeof(part), file)) > 0)
        text.append(part, length);
    const bool isRead = ferror(file) == 0;
    if (!isRead)
        say("%s: %s", path.c_str(), strerror(errno));
    fclose(file);
    return isRead;
}

}  // namespace

Simulation::Simulation(const sim::DeviceDesc& description)
    : mEngine(description), mInstalled(mEngine), mModel(v4l2::fixedText(description.info.model)) {
}

std::unique_ptr<Simulation> Simulation::start(const std::string& file) {
    if (file.empty())
        return std::unique_ptr<Simulation>(new Simulation(sim::describeVirtualEngine()));
    std::string text, error;
    if (!readFile(file, text))
        return nullptr;
    const auto description = sim::readDescription(text, error);
    if (!description) {
        say("%s: %s", file.c_str(), error.c_str());
        return nullptr;
    }
    return std::unique_ptr<Simulation>(new Simulation(*description));
}

}  // namespace NSVista::NSCorvane::tools
