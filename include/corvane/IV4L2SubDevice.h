// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The driver's sub-device.
 */
#pragma once

#include <linux/videodev2.h>

#include <cstdint>
#include <string>
#include <unordered_set>
#include <vector>

#include <corvane/platform/Export.h>

/** The driver's initialisation record; its first 8 bytes reach the driver. Opaque here. */
struct init_info;

namespace NSVista {
class IPrinter;
}

namespace NSVista::NSCorvane {

/**
 * The driver's sub-device, shared by all its users.
 *
 * Every operation but the first three makes ioctls on one descriptor, without a lock: any thread,
 * concurrently. Results are the negated errno of a refused ioctl, else 0; queryEvent(),
 * setControl() and getControl() hand on what the driver returned, 0 or more. Every refusal but
 * queryEvent()'s is logged; one that "ends the service" is reported as well, and terminateService()
 * is called before the operation returns.
 */
class CORVANE_EXPORT IV4L2SubDevice {
public:
    /** Which working memory the driver allocates or frees. */
    struct RequestMemory {
        bool is_alloc;       ///< allocate, else free
        uint8_t is_smvr;     ///< slow-motion video recording
        uint8_t is_capture;  ///< still capture
    };

    virtual ~IV4L2SubDevice();
    virtual std::string toString() const = 0;
    virtual void dumpState(IPrinter* printer) const = 0;
    /** The descriptor, or -1; poll it for EPOLLPRI to learn of events. */
    virtual int getDeviceFd() const = 0;
    /** VIDIOC_DQEVENT. @return also -ENOENT while none is pending. */
    virtual int queryEvent(v4l2_event& event) = 0;
    /** KVXDIP_IOC_S_INIT_INFO: the driver reads 8 bytes. A refusal ends the service. */
    virtual int setInitInfo(init_info* info) = 0;
    /**
     * KVXDIP_IOC_CLEAR_USER_RESOURCE: gives back what the driver holds for one user's instance. A
     * refusal is only logged.
     */
    virtual int releaseUserResource(unsigned long userId, unsigned long instance) = 0;
    /** KVXDIP_IOC_SET_CONTROL: a refusal is only logged. */
    virtual int setControl(int id, int value) = 0;
    /** KVXDIP_IOC_GET_CONTROL. @param[out] value may be null; untouched on failure. */
    virtual int getControl(int id, int* value) = 0;
    /** KVXDIP_IOC_ALOC_BUF or _FREE_BUF, under a time guard. A refusal ends the service. */
    virtual int requestMemory(const RequestMemory& request) = 0;
    /**
     * KVXDIP_IOC_ADD_KVA in batches of 32, in the set's order. The first refused batch ends the
     * call and the service; batches sent before stay.
     */
    virtual int mapKVA(const std::unordered_set<int>& fds) = 0;
    /** KVXDIP_IOC_DEL_KVA, like mapKVA(). */
    virtual int unmapKVA(const std::unordered_set<int>& fds) = 0;
    /**
     * KVXDIP_IOC_ACQUIRE_IOVA. A refusal ends the service.
     * @param fd a dma-buf.
     * @param coherence the device's view of it is coherent with the processor's.
     */
    virtual int mapIOVA(int fd, bool coherence) = 0;
    /** KVXDIP_IOC_RELEASE_IOVA: a refusal is only logged. */
    virtual int unmapIOVA(int fd, bool coherence) = 0;
    /**
     * KVXDIP_IOC_ADD_FENCE. A refusal ends the service.
     * @param[in,out] fences sized by the caller; filled with descriptors that are the caller's to
     *        close. The driver keeps a reference of its own until releaseFenceFd().
     */
    virtual int acquireFenceFd(std::vector<int>& fences) = 0;
    /**
     * KVXDIP_IOC_DEL_FENCE: the driver drops its references; the descriptors stay the caller's.
     * The count is sent modulo 256. A refusal ends the service.
     */
    virtual int releaseFenceFd(const std::vector<int>& fences) = 0;
};

}  // namespace NSVista::NSCorvane
