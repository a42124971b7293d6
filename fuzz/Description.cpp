// SPDX-License-Identifier: Apache-2.0
// Descriptions of devices as a file holds them. What is read can be written and read again.
#include <corvane/sim/DescriptionFile.h>
#include <corvane/sim/Engine.h>

#include <cstdlib>

using namespace NSVista::NSCorvane;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::string error;
    const auto read = sim::readDescription({reinterpret_cast<const char*>(data), size}, error);
    if (!read)
        return 0;
    sim::Engine engine;
    if (engine.addDevice(*read) == nullptr ||
        !sim::readDescription(sim::writeDescription(*read), error))
        abort();
    return 0;
}
