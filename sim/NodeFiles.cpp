// SPDX-License-Identifier: Apache-2.0
#include "NodeFiles.h"

#include <linux/media.h>
#include <cerrno>
#include <cstring>

#include <corvane/V4L2.h>

namespace NSVista::NSCorvane::sim {

int VideoFile::ioctl(uint32_t code, void* arg) {
    if (arg == nullptr)
        return -EFAULT;
    DeviceLock lock(mDevice.mutex());
    switch (code) {
        case VIDIOC_QUERYCAP:
            queryCapabilities(*static_cast<v4l2_capability*>(arg));
            return 0;
        case VIDIOC_G_FMT:
            return mQueue.format().get(*static_cast<v4l2_format*>(arg));
        case VIDIOC_S_FMT:
            return mQueue.setFormat(*static_cast<v4l2_format*>(arg));
        case VIDIOC_REQBUFS:
            return mQueue.requestBuffers(lock, this, *static_cast<v4l2_requestbuffers*>(arg));
        case VIDIOC_QBUF:
            return queueBuffer(lock, *static_cast<v4l2_buffer*>(arg));
        case VIDIOC_DQBUF:
            return mQueue.dequeueBuffer(lock, this, *static_cast<v4l2_buffer*>(arg), mNonBlocking);
        case VIDIOC_STREAMON: {
            int result = mQueue.streamOn(this, *static_cast<uint32_t*>(arg));
            mDevice.pipeline().queued(lock);
            return result;
        }
        case VIDIOC_STREAMOFF:
            return mQueue.streamOff(lock, this, *static_cast<uint32_t*>(arg));
        case VIDIOC_ENUM_FRAMESIZES:
            return enumFrameSize(*static_cast<v4l2_frmsizeenum*>(arg));
        case VIDIOC_QUERYCTRL:
        case VIDIOC_QUERY_EXT_CTRL:
        case VIDIOC_QUERYMENU:
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL:
        case VIDIOC_G_EXT_CTRLS:
        case VIDIOC_S_EXT_CTRLS:
        case VIDIOC_TRY_EXT_CTRLS:
            return controls(code, arg);
        default:
            return -ENOTTY;
    }
}

std::shared_ptr<Request> VideoFile::findRequest(int fd) const {
    auto file = std::dynamic_pointer_cast<RequestFile>(mDevice.files().find(fd));
    return file != nullptr ? file->request() : nullptr;
}

int VideoFile::queueBuffer(DeviceLock& lock, v4l2_buffer& buffer) {
    std::shared_ptr<Request> request;
    bool withRequest = buffer.flags & V4L2_BUF_FLAG_REQUEST_FD;
    if (withRequest)
        request = findRequest(buffer.request_fd);
    int result = mQueue.queueBuffer(this, buffer, std::move(request));
    if (result == 0 && !withRequest)
        mDevice.pipeline().queued(lock);
    return result;
}

int VideoFile::enumFrameSize(v4l2_frmsizeenum& size) const {
    if (v4l2::isMeta(mQueue.video().bufType))
        return -ENOTTY;
    if (size.index > 0 || !Format::known(mQueue.video().bufType, size.pixel_format))
        return -EINVAL;
    size.type = V4L2_FRMSIZE_TYPE_STEPWISE;
    size.stepwise = {VENGINE_MIN_WIDTH,  VENGINE_MAX_WIDTH,  2,
                     VENGINE_MIN_HEIGHT, VENGINE_MAX_HEIGHT, 2};
    return 0;
}

int VideoFile::controls(uint32_t code, void* arg) {
    if (!mQueue.hasControls())
        return -ENOTTY;
    switch (code) {
        case VIDIOC_QUERYCTRL:
            return queryControl(*static_cast<v4l2_queryctrl*>(arg));
        case VIDIOC_QUERY_EXT_CTRL:
            return queryControl(*static_cast<v4l2_query_ext_ctrl*>(arg));
        case VIDIOC_QUERYMENU:
            return -EINVAL;  // of no menu
        case VIDIOC_G_CTRL:
        case VIDIOC_S_CTRL: {
            auto& control = *static_cast<v4l2_control*>(arg);
            v4l2_ext_control one = {};
            one.id = control.id;
            one.value = control.value;
            v4l2_ext_controls list = {};
            list.count = 1;
            list.controls = &one;
            const int result = listedControls(
                code == VIDIOC_G_CTRL ? VIDIOC_G_EXT_CTRLS : VIDIOC_S_EXT_CTRLS, list);
            if (result == 0)
                control.value = one.value;
            return result;
        }
        default:
            return listedControls(code, *static_cast<v4l2_ext_controls*>(arg));
    }
}

int VideoFile::listedControls(uint32_t code, v4l2_ext_controls& list) {
    const bool get = code == VIDIOC_G_EXT_CTRLS, set = code == VIDIOC_S_EXT_CTRLS;
    list.error_idx = list.count;
    std::shared_ptr<Request> request;
    if (list.which == V4L2_CTRL_WHICH_REQUEST_VAL) {
        request = findRequest(list.request_fd);
        if (request == nullptr || &request->device() != &mDevice)
            return -EINVAL;
        if (get ? !request->complete() : !request->idle())
            return get ? -EACCES : -EBUSY;
        // A request without the node's controls can be given some, but not asked whether it would.
        if (!get && !set && !request->control(mQueue))
            return -ENOMEM;
    }
    if (get) {
        const bool initial = list.which == V4L2_CTRL_WHICH_DEF_VAL;
        const int32_t current =
            request != nullptr ? *request->control(mQueue) : mQueue.brightness();
        return getControls(list, initial ? kDefaultBrightness : current);
    }
    std::optional<int32_t> brightness;
    const int result = setControls(list, set, brightness);
    if (!set || !brightness)
        return result;
    if (request != nullptr)
        request->setControl(mQueue, *brightness);
    else
        mQueue.setBrightness(*brightness);
    return result;
}

void VideoFile::queryCapabilities(v4l2_capability& capability) const {
    memset(&capability, 0, sizeof(capability));
    memcpy(capability.driver, mDevice.info().driver, sizeof(capability.driver) - 1);
    mQueue.name().copy(reinterpret_cast<char*>(capability.card), sizeof(capability.card) - 1);
    memcpy(capability.bus_info, mDevice.info().bus_info, sizeof(capability.bus_info) - 1);
    capability.version = mDevice.info().driver_version;
    const VideoDesc& video = mQueue.video();
    const v4l2::BufferType* type = v4l2::findBufferType(video.bufType);
    uint32_t own = (type != nullptr ? type->caps : 0) | V4L2_CAP_STREAMING |
                   V4L2_CAP_EXT_PIX_FORMAT | V4L2_CAP_IO_MC;
    capability.device_caps = video.deviceCaps.value_or(own);
    capability.capabilities = video.capabilities.value_or(own | V4L2_CAP_DEVICE_CAPS);
}

Mutex* VideoFile::serialiser(uint32_t code) const {
    bool serialised = code == VIDIOC_REQBUFS || code == VIDIOC_STREAMON || code == VIDIOC_STREAMOFF;
    return serialised ? &mDevice.requestMutex() : nullptr;
}

void VideoFile::released() {
    const MutexLock serial(mDevice.requestMutex());
    DeviceLock lock(mDevice.mutex());
    mQueue.release(lock, this);
    --mDevice.filesOpen;
}

int MediaFile::ioctl(uint32_t code, void* arg) {
    if (arg == nullptr && _IOC_SIZE(code) > 0)
        return -EFAULT;
    if (code == MEDIA_IOC_REQUEST_ALLOC) {
        int fd = RequestFile::open(mDevice);
        if (fd < 0)
            return fd;
        *static_cast<int*>(arg) = fd;
        return 0;
    }
    const DeviceLock lock(mDevice.mutex());
    switch (code) {
        case MEDIA_IOC_DEVICE_INFO:
            *static_cast<media_device_info*>(arg) = mDevice.info();
            return 0;
        case MEDIA_IOC_ENUM_ENTITIES:
            return mDevice.graph().enumEntity(*static_cast<media_entity_desc*>(arg));
        case MEDIA_IOC_ENUM_LINKS:
            return mDevice.graph().enumLinks(*static_cast<media_links_enum*>(arg));
        case MEDIA_IOC_SETUP_LINK:
            return mDevice.setupLink(*static_cast<media_link_desc*>(arg));
        default:
            return -ENOTTY;
    }
}

}  // namespace NSVista::NSCorvane::sim
