// SPDX-License-Identifier: Apache-2.0
#include "SubDevice.h"

#include <fcntl.h>
#include <linux/ioctl.h>
#include <linux/v4l2-subdev.h>
#include <cerrno>
#include <cstring>

#include <algorithm>
#include <utility>

namespace NSVista::NSCorvane::sim {

namespace {

template <class List>
auto findControl(List& controls, int32_t id) {
    return std::find_if(controls.begin(), controls.end(),
                        [id](const PrivateControlDesc& control) { return control.id == id; });
}

}  // namespace

SubDevice::SubDevice(std::string name, const SubDeviceDesc& desc, std::atomic<size_t>& filesOpen)
    : mName(std::move(name)),
      mFilesOpen(filesOpen),
      mVersion(desc.version),
      mCapabilities(desc.capabilities),
      mSendsFrameSync(desc.sendsFrameSync),
      mIsPrivate(desc.privateControls.has_value()),
      mPrivateControls(desc.privateControls.value_or(std::vector<PrivateControlDesc>())),
      mControls(desc.controls),
      mControlValues(mControls.initial()),
      mPadFormats(desc.pads) {
}

int SubDevice::open(int flags, const std::string& path, FileTable& files) {
    bool nonBlocking = flags & O_NONBLOCK;
    auto file = std::make_shared<SubDeviceFile>(*this, path, nonBlocking);
    int fd = -1;
    {
        const SubDeviceLock lock(mMutex);
        fd = file->mSignal.open(nonBlocking);
        if (fd < 0)
            return fd;
        mFiles.push_back(file.get());
    }
    ++mFilesOpen;
    files.insert(fd, std::move(file));
    return fd;
}

int32_t SubDevice::control(int32_t id) const {
    int32_t value = 0;
    const SubDeviceLock lock(mMutex);
    getControl(id, value);
    return value;
}

int SubDevice::setControl(int32_t id, int32_t value) {
    const auto control = findControl(mPrivateControls, id);
    if (control == mPrivateControls.end())
        return -EINVAL;
    if (value < control->minimum || value > control->maximum)
        return -ERANGE;
    control->value = value;
    return 0;
}

int SubDevice::getControl(int32_t id, int32_t& value) const {
    const auto control = findControl(mPrivateControls, id);
    if (control == mPrivateControls.end())
        return -EINVAL;
    value = control->value;
    return 0;
}

int SubDevice::listedControls(uint32_t code, v4l2_ext_controls& list) {
    if (list.which == V4L2_CTRL_WHICH_REQUEST_VAL)
        return -EINVAL;
    if (code == VIDIOC_G_EXT_CTRLS)
        return mControls.get(
            list, list.which == V4L2_CTRL_WHICH_DEF_VAL ? mControls.defaults() : mControlValues);
    SomeControlValues values(mControls.size());
    const bool set = code == VIDIOC_S_EXT_CTRLS;
    const int result = mControls.set(list, set, values);
    for (size_t i = 0; set && result == 0 && i < values.size(); ++i)
        mControlValues[i] = values[i].value_or(mControlValues[i]);
    return result;
}

void SubDevice::frameDone(uint32_t frame, const timespec& time) {
    const SubDeviceLock lock(mMutex);
    for (SubDeviceFile* file : mFiles) {
        file->queueEvent(frame, time);
        file->mHoldings.signalFences();
    }
    mEventQueued.notify_all();
}

SubDeviceCounts SubDevice::counts() const {
    const SubDeviceLock lock(mMutex);
    SubDeviceCounts counts = mPast;
    for (const SubDeviceFile* file : mFiles) {
        file->mHoldings.addTo(counts);
        counts.subscriptions += file->mSubscribed ? 1 : 0;
    }
    return counts;
}

std::vector<IoctlRecord> SubDevice::takeRecords() {
    const SubDeviceLock lock(mMutex);
    return std::exchange(mRecords, {});
}

void SubDeviceFile::record(uint32_t code, const void* arg) {
    if (_IOC_TYPE(code) != 'V' || _IOC_NR(code) < BASE_VIDIOC_PRIVATE || arg == nullptr)
        return;
    const uint8_t* bytes = static_cast<const uint8_t*>(arg);
    const SubDeviceLock lock(mDevice.mMutex);
    mDevice.mRecords.push_back({code, {bytes, bytes + _IOC_SIZE(code)}});
}

int SubDeviceFile::ioctl(uint32_t code, void* arg) {
    if (arg == nullptr)
        return -EFAULT;
    SubDeviceLock lock(mDevice.mMutex);
    switch (code) {
        case VIDIOC_SUBSCRIBE_EVENT:
            return subscribe(*static_cast<v4l2_event_subscription*>(arg));
        case VIDIOC_UNSUBSCRIBE_EVENT:
            return unsubscribe(*static_cast<v4l2_event_subscription*>(arg));
        case VIDIOC_DQEVENT:
            return dequeueEvent(lock, *static_cast<v4l2_event*>(arg));
        case VIDIOC_SUBDEV_QUERYCAP: {
            auto& capability = *static_cast<v4l2_subdev_capability*>(arg);
            capability = {};
            capability.version = mDevice.mVersion;
            capability.capabilities = mDevice.mCapabilities;
            return 0;
        }
        default:
            if (Controls::isTheirs(code))
                return mDevice.mControls.ioctl(
                    code, arg,
                    [this](uint32_t listCode, v4l2_ext_controls& list) CORVANE_REQUIRES(
                        subDeviceState) { return mDevice.listedControls(listCode, list); });
            if (PadFormats::isTheirs(code))
                return mDevice.mPadFormats.ioctl(code, arg);
            return mDevice.mIsPrivate ? privateIoctl(code, arg) : -ENOTTY;
    }
}

int SubDeviceFile::privateIoctl(uint32_t code, void* arg) {
    switch (code) {
        case KVXDIP_IOC_SET_CONTROL: {
            auto& control = *static_cast<kvxdip_control*>(arg);
            return mDevice.setControl(control.id, control.value);
        }
        case KVXDIP_IOC_GET_CONTROL: {
            auto& control = *static_cast<kvxdip_control*>(arg);
            int32_t value = 0;
            int result = mDevice.getControl(control.id, value);
            if (result == 0)
                control.value = value;
            return result;
        }
        case KVXDIP_IOC_S_INIT_INFO: {
            uint64_t user;
            memcpy(&user, arg, sizeof(user));
            mHoldings.setUser(user);
            return 0;
        }
        case KVXDIP_IOC_ADD_KVA:
            return mHoldings.addKva(*static_cast<kvxdip_kva*>(arg));
        case KVXDIP_IOC_DEL_KVA:
            return mHoldings.deleteKva(*static_cast<kvxdip_kva*>(arg));
        case KVXDIP_IOC_ACQUIRE_IOVA:
            return mHoldings.acquireIova(*static_cast<kvxdip_iova*>(arg));
        case KVXDIP_IOC_RELEASE_IOVA:
            return mHoldings.releaseIova(*static_cast<kvxdip_iova*>(arg));
        case KVXDIP_IOC_ADD_FENCE:
            return mHoldings.addFences(*static_cast<kvxdip_fence*>(arg));
        case KVXDIP_IOC_DEL_FENCE:
            return mHoldings.deleteFences(*static_cast<kvxdip_fence*>(arg));
        case KVXDIP_IOC_ALOC_BUF:
            return mHoldings.allocateMemory(*static_cast<kvxdip_memory*>(arg));
        case KVXDIP_IOC_FREE_BUF:
            return mHoldings.freeMemory(*static_cast<kvxdip_memory*>(arg));
        case KVXDIP_IOC_CLEAR_USER_RESOURCE:
            mHoldings.clear(static_cast<kvxdip_user_resource*>(arg)->user_id);
            ++mDevice.mPast.cleared;
            return 0;
        default:
            return -ENOTTY;
    }
}

int SubDeviceFile::subscribe(const v4l2_event_subscription& subscription) {
    if (!mDevice.mSendsFrameSync || subscription.type != V4L2_EVENT_FRAME_SYNC ||
        subscription.id != 0)
        return -EINVAL;
    mSubscribed = true;
    return 0;
}

int SubDeviceFile::unsubscribe(const v4l2_event_subscription& subscription) {
    // Nothing subscribed under the given type is no error to the kernel.
    if (subscription.type == V4L2_EVENT_ALL ||
        (subscription.type == V4L2_EVENT_FRAME_SYNC && subscription.id == 0)) {
        mSubscribed = false;
        dropEvents();
    }
    return 0;
}

int SubDeviceFile::dequeueEvent(SubDeviceLock& lock, v4l2_event& event) {
    while (mPending == 0) {
        if (mNonBlocking)
            return -ENOENT;
        mDevice.mEventQueued.wait(lock.native());
    }
    event = mEvents[mFirst];
    mFirst = (mFirst + 1) % mEvents.size();
    event.pending = static_cast<uint32_t>(--mPending);
    if (mPending == 0)
        mSignal.lower();
    return 0;
}

void SubDeviceFile::queueEvent(uint32_t frame, const timespec& time) {
    if (!mSubscribed)
        return;
    if (mPending == mEvents.size()) {
        mFirst = (mFirst + 1) % mEvents.size();
        --mPending;
        ++mDevice.mPast.eventsDropped;
    }
    v4l2_event& event = mEvents[(mFirst + mPending++) % mEvents.size()];
    event = {};
    event.type = V4L2_EVENT_FRAME_SYNC;
    event.u.frame_sync.frame_sequence = frame;
    event.sequence = mSequence++;
    event.timestamp = {time.tv_sec, time.tv_nsec};
    mSignal.raise();
}

void SubDeviceFile::dropEvents() {
    mPending = 0;
    mSignal.lower();
}

void SubDeviceFile::released() {
    const SubDeviceLock lock(mDevice.mMutex);
    SubDeviceCounts held;
    mHoldings.addTo(held);
    mDevice.mPast.leftAtClose +=
        held.kva + held.iova + held.fences + held.memory + (mSubscribed ? 1 : 0);
    mHoldings.clear();
    mSubscribed = false;
    mSignal.close();
    std::erase(mDevice.mFiles, this);
    --mDevice.mFilesOpen;
}

}  // namespace NSVista::NSCorvane::sim
