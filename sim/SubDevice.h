// SPDX-License-Identifier: Apache-2.0
/**
 * @file
 * The driver's sub-device: events, controls and the private ioctls.
 */
#pragma once

#include <linux/videodev2.h>
#include <time.h>

#include <array>
#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <corvane/sim/Engine.h>

#include "Controls.h"
#include "File.h"
#include "Holdings.h"
#include "Locks.h"
#include "PadFormats.h"
#include "PriorityFd.h"
#include "vengine-desc.h"

namespace NSVista::NSCorvane::sim {

class SubDeviceFile;

/** State that all openers share. Any thread; its lock is taken inside the device's, and no other
 * inside it. */
class SubDevice {
public:
    /** @param filesOpen the device's count of open descriptors. */
    SubDevice(std::string name, const SubDeviceDesc& desc, std::atomic<size_t>& filesOpen);

    /** @return a new descriptor or the negated errno. */
    int open(int flags, const std::string& path, FileTable& files);

    int32_t control(int32_t id) const;
    /** Sends the event of a completed request and signals the fences taken for it. */
    void frameDone(uint32_t frame, const timespec& time);
    SubDeviceCounts counts() const;
    std::vector<IoctlRecord> takeRecords();

    const std::string& name() const { return mName; }

private:
    friend class SubDeviceFile;
    int setControl(int32_t id, int32_t value) CORVANE_REQUIRES(subDeviceState);
    int getControl(int32_t id, int32_t& value) const CORVANE_REQUIRES(subDeviceState);
    /** Standard controls, of which requests know nothing. */
    int listedControls(uint32_t code, v4l2_ext_controls& list) CORVANE_REQUIRES(subDeviceState);

    mutable Mutex mMutex;
    std::condition_variable mEventQueued;
    const std::string mName;
    std::atomic<size_t>& mFilesOpen;
    const uint32_t mVersion, mCapabilities;
    const bool mSendsFrameSync, mIsPrivate;
    std::vector<PrivateControlDesc> mPrivateControls CORVANE_GUARDED_BY(subDeviceState);
    const Controls mControls;
    ControlValues mControlValues CORVANE_GUARDED_BY(subDeviceState);
    PadFormats mPadFormats CORVANE_GUARDED_BY(subDeviceState);
    std::vector<SubDeviceFile*> mFiles CORVANE_GUARDED_BY(subDeviceState);
    std::vector<IoctlRecord> mRecords CORVANE_GUARDED_BY(subDeviceState);
    SubDeviceCounts mPast CORVANE_GUARDED_BY(
        subDeviceState);  ///< of it only what outlives files: leftAtClose, dropped, cleared
};

/** One opener of the sub-device, with its subscription and what the driver holds for it. */
class SubDeviceFile : public File {
public:
    SubDeviceFile(SubDevice& device, std::string path, bool nonBlocking)
        : mDevice(device), mPath(std::move(path)), mNonBlocking(nonBlocking) {}

    int ioctl(uint32_t code, void* arg) override;
    Mutex* serialiser(uint32_t) const override { return nullptr; }
    std::string_view name() const override { return mDevice.mName; }
    std::string_view path() const override { return mPath; }
    void record(uint32_t code, const void* arg) override;
    void released() override;

private:
    friend class SubDevice;
    int privateIoctl(uint32_t code, void* arg) CORVANE_REQUIRES(subDeviceState);
    int subscribe(const v4l2_event_subscription& subscription) CORVANE_REQUIRES(subDeviceState);
    int unsubscribe(const v4l2_event_subscription& subscription) CORVANE_REQUIRES(subDeviceState);
    int dequeueEvent(SubDeviceLock& lock, v4l2_event& event) CORVANE_REQUIRES(subDeviceState);
    void queueEvent(uint32_t frame, const timespec& time) CORVANE_REQUIRES(subDeviceState);
    void dropEvents() CORVANE_REQUIRES(subDeviceState);

    SubDevice& mDevice;
    const std::string mPath;
    const bool mNonBlocking;
    PriorityFd mSignal CORVANE_GUARDED_BY(subDeviceState);
    bool mSubscribed CORVANE_GUARDED_BY(subDeviceState) = false;
    std::array<v4l2_event, VENGINE_EVENTS> mEvents
        CORVANE_GUARDED_BY(subDeviceState);  ///< ring, oldest at mFirst
    size_t mFirst CORVANE_GUARDED_BY(subDeviceState) = 0;
    size_t mPending CORVANE_GUARDED_BY(subDeviceState) = 0;
    uint32_t mSequence CORVANE_GUARDED_BY(subDeviceState) = 0;  ///< of the next event
    Holdings mHoldings CORVANE_GUARDED_BY(subDeviceState);
};

}  // namespace NSVista::NSCorvane::sim
