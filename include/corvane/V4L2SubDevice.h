// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The driver's sub-device and its provider.
 */
#pragma once

#include <fcntl.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_set>
#include <vector>

#include <corvane/IDefaultSubDeviceProvider.h>
#include <corvane/IV4L2SubDevice.h>
#include <corvane/platform/Export.h>
#include <corvane/platform/Mutex.h>

namespace NSVista::NSCorvane {

/**
 * A sub-device node and the driver's private ioctls on it.
 *
 * Its owner opens, subscribes, unsubscribes and closes it, one call at a time and none while a user
 * is inside an operation of IV4L2SubDevice that makes an ioctl; toString(), dumpState() and
 * getDeviceFd() may run beside anything. Nothing checks their order: an ioctl on a closed
 * sub-device fails in the system layer. Destroying an open one leaves its descriptor open.
 */
class CORVANE_EXPORT V4L2SubDevice : public IV4L2SubDevice {
public:
    /**
     * @param devnodePath path of the node.
     * @param entityName media entity of the node, for messages.
     */
    V4L2SubDevice(const std::string& devnodePath, const std::string& entityName)
        : mDevnodePath(devnodePath), mEntityName(entityName) {}
    V4L2SubDevice(const V4L2SubDevice&) = delete;
    V4L2SubDevice& operator=(const V4L2SubDevice&) = delete;

    std::string toString() const override;
    void dumpState(IPrinter* printer) const override;
    int getDeviceFd() const override { return mFd; }
    int queryEvent(v4l2_event& event) override;
    int setInitInfo(init_info* info) override;
    int releaseUserResource(unsigned long userId, unsigned long instance) override;
    int setControl(int id, int value) override;
    int getControl(int id, int* value) override;
    int requestMemory(const RequestMemory& request) override;
    int mapKVA(const std::unordered_set<int>& fds) override;
    int unmapKVA(const std::unordered_set<int>& fds) override;
    int mapIOVA(int fd, bool coherence) override;
    int unmapIOVA(int fd, bool coherence) override;
    int acquireFenceFd(std::vector<int>& fences) override;
    int releaseFenceFd(const std::vector<int>& fences) override;

    /** Opens the node. @return 0, -EEXIST when it is open, or the negated errno (logged only). */
    int openDevice();
    /** VIDIOC_SUBSCRIBE_EVENT for frame-sync events. A refusal is reported and ends the service. */
    int subscribe();
    /** VIDIOC_UNSUBSCRIBE_EVENT. A refusal is reported and ends the service. */
    int unsubscribe();
    /** @return 0, -EINVAL when it is closed, or the negated errno, and it stays open. */
    int closeDevice();

private:
    std::string mDevnodePath;
    std::string mEntityName;
    int32_t mFlags = O_RDWR | O_NONBLOCK;
    std::atomic<int32_t> mFd{-1};
};

/** The process's owner of the default sub-device. Its end does not close the node. */
class CORVANE_EXPORT DefaultSubDeviceProvider : public IDefaultSubDeviceProvider {
public:
    DefaultSubDeviceProvider() = default;
    DefaultSubDeviceProvider(const DefaultSubDeviceProvider&) = delete;
    DefaultSubDeviceProvider& operator=(const DefaultSubDeviceProvider&) = delete;

    void dumpState(IPrinter* printer) const override CORVANE_EXCLUDES(mLock);
    std::shared_ptr<IV4L2SubDevice> acquire(const EIGHTCC& user) override CORVANE_EXCLUDES(mLock);
    void release(const EIGHTCC& user, std::shared_ptr<IV4L2SubDevice>& subDevice) override
        CORVANE_EXCLUDES(mLock);

private:
    bool initSubDevice() CORVANE_REQUIRES(mLock);
    void deinitSubDevice() CORVANE_REQUIRES(mLock);

    mutable Mutex mLock;
    std::shared_ptr<V4L2SubDevice> mSubDev CORVANE_GUARDED_BY(mLock);
    std::unordered_set<EIGHTCC> mUsers CORVANE_GUARDED_BY(mLock);
};

}  // namespace NSVista::NSCorvane
