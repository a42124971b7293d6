// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * A media controller device.
 */
#pragma once

#include <linux/media.h>

#include <memory>
#include <string>

#include <corvane/platform/Export.h>

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

class IMediaRequest;

/**
 * A media controller device node with its topology. Found by IDeviceEnumerator; its user acquires
 * it before scenes run on it and releases it after their uninit. Not locked.
 */
class CORVANE_EXPORT IMediaDevice {
public:
    virtual ~IMediaDevice();
    /** @param detail not used; 'I' or 'V' as for a topology. */
    virtual void dumpState(IPrinter* printer, signed char detail) const = 0;
    virtual std::shared_ptr<media_device_info> getDeviceInfo() const = 0;
    virtual bool hasEntity(const std::string& name) const = 0;
    /** The device node of an entity, through sysfs; empty when there is none. */
    virtual std::string getEntityDevnodePath(const std::string& name) const = 0;
    /** Opens the node; 0 when it is open already. @return 0 or the negated errno. */
    virtual int acquire() = 0;
    /** Closes the node, however often it was acquired. @return the result of close, or 0. */
    virtual int release() = 0;
    /**
     * Sets or clears a link's enabled flag (MEDIA_IOC_SETUP_LINK).
     *
     * The link is the first one with these two pad numbers; the entity names appear in messages
     * only. A refusal by the driver is reported and ends the service.
     * @return false when the driver refuses; true otherwise, also for an unknown or an immutable
     *         link, which are warned of.
     */
    virtual bool enableLink(bool enable, const char* sourceEntity, unsigned int sourcePad,
                            const char* sinkEntity, unsigned int sinkPad) = 0;
    /** MEDIA_IOC_REQUEST_ALLOC. Fatal when the device is not acquired or has none to give. */
    virtual std::shared_ptr<IMediaRequest> makeRequest() = 0;
};

}  // namespace NSVista::NSCorvane
