// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * Where media devices come from.
 */
#pragma once

#include <memory>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IMediaDevice;

/** The process's default media configuration. */
struct DefaultMediaConfigs {
    std::string mediadevice_model_name;  ///< model of the default media device
    std::string subdevice_entity_name;   ///< entity of the default driver sub-device within it
};

/**
 * Registers the default configuration; the last call wins.
 * @param configs must not be null; copied. Any thread.
 */
CORVANE_EXPORT void registerDefaultMediaConfigs(const DefaultMediaConfigs* configs);

/** Finds media devices by model and caches what it found. Any thread. */
class CORVANE_EXPORT IDeviceEnumerator {
public:
    /** The process's one. */
    static IDeviceEnumerator& instance();

    virtual ~IDeviceEnumerator();
    virtual void dumpState(IPrinter* printer) const = 0;
    /**
     * Finds a media device; of several of one model, the first met.
     * @return a new object over the device, not acquired; never empty (a failed search is fatal).
     */
    virtual std::shared_ptr<IMediaDevice> search(const std::string& modelName) = 0;
    virtual std::string getDefaultSubDevEntityName() const = 0;
    /** The node of the default sub-device; never empty (fatal). One media device a process. */
    virtual std::string determineDefaultSubDevnodePath() = 0;
    /** search() for the registered model; an empty model is fatal. */
    virtual std::shared_ptr<IMediaDevice> makeDefaultMediaDevice() = 0;
};

}  // namespace NSVista::NSCorvane
