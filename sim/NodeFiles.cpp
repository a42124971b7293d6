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
        case VIDIOC_G_FMT: {
            auto& format = *static_cast<v4l2_format*>(arg);
            return mQueue.formatOf(format.type).get(format);
        }
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
        case VIDIOC_TRY_FMT: {
            auto& format = *static_cast<v4l2_format*>(arg);
            return mQueue.formatOf(format.type).tryOut(format);
        }
        case VIDIOC_ENUM_FMT: {
            auto& format = *static_cast<v4l2_fmtdesc*>(arg);
            return mQueue.formatOf(format.type).enumerate(format);
        }
        case VIDIOC_ENUM_FRAMESIZES: {
            auto& size = *static_cast<v4l2_frmsizeenum*>(arg);
            return mQueue.formatWith(size.pixel_format).enumerateSizes(size);
        }
        case VIDIOC_ENUM_FRAMEINTERVALS: {
            auto& interval = *static_cast<v4l2_frmivalenum*>(arg);
            return mQueue.formatWith(interval.pixel_format).enumerateIntervals(interval);
        }
        case VIDIOC_G_PARM: {
            auto& parameters = *static_cast<v4l2_streamparm*>(arg);
            return mQueue.formatOf(parameters.type).getParameters(parameters);
        }
        case VIDIOC_S_PARM:
            return mQueue.setParameters(*static_cast<v4l2_streamparm*>(arg));
        default:
            if (Connectors::isTheirs(code))
                return mQueue.connectors().ioctl(code, arg);
            if (!Controls::isTheirs(code))
                return -ENOTTY;
            return mQueue.controls().ioctl(
                code, arg,
                [this](uint32_t listCode, v4l2_ext_controls& list)
                    CORVANE_REQUIRES(deviceState) { return listedControls(listCode, list); });
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

int VideoFile::listedControls(uint32_t code, v4l2_ext_controls& list) {
    const bool get = code == VIDIOC_G_EXT_CTRLS, set = code == VIDIOC_S_EXT_CTRLS;
    const Controls& controls = mQueue.controls();
    list.error_idx = list.count;
    std::shared_ptr<Request> request;
    const SomeControlValues* requested = nullptr;
    if (list.which == V4L2_CTRL_WHICH_REQUEST_VAL) {
        request = findRequest(list.request_fd);
        if (request == nullptr || &request->device() != &mDevice)
            return -EINVAL;
        if (get ? !request->complete() : !request->idle())
            return get ? -EACCES : -EBUSY;
        requested = request->controls(mQueue);
        // A request without the node's controls can be given some, but not asked whether it would.
        if (!get && !set && requested == nullptr)
            return -ENOMEM;
    }
    if (get) {
        ControlValues values =
            list.which == V4L2_CTRL_WHICH_DEF_VAL ? controls.defaults() : mQueue.controlValues();
        for (size_t i = 0; requested != nullptr && i < values.size(); ++i)
            values[i] = (*requested)[i].value_or(values[i]);
        return controls.get(list, values);
    }
    SomeControlValues values =
        requested != nullptr ? *requested : SomeControlValues(controls.size());
    const int result = controls.set(list, set, values);
    if (!set || result < 0)
        return result;
    if (request != nullptr)
        request->setControls(mQueue, values);
    else
        mQueue.setControls(values);
    return result;
}

void VideoFile::queryCapabilities(v4l2_capability& capability) const {
    const VideoDesc& video = mQueue.video();
    const media_device_info& info = mDevice.info();
    const auto put = [](const std::string& text, auto& field) {
        text.copy(reinterpret_cast<char*>(field), sizeof(field) - 1);
    };
    memset(&capability, 0, sizeof(capability));
    put(video.driver.empty() ? v4l2::fixedText(info.driver) : video.driver, capability.driver);
    put(video.card.empty() ? std::string(mQueue.name()) : video.card, capability.card);
    put(video.bus.empty() ? v4l2::fixedText(info.bus_info) : video.bus, capability.bus_info);
    capability.version = video.version != 0 ? video.version : info.driver_version;
    capability.device_caps = *video.deviceCaps;
    capability.capabilities = *video.capabilities;
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
        case MEDIA_IOC_G_TOPOLOGY:
            return mDevice.graph().topology(*static_cast<media_v2_topology*>(arg));
        case MEDIA_IOC_SETUP_LINK:
            return mDevice.setupLink(*static_cast<media_link_desc*>(arg));
        default:
            return -ENOTTY;
    }
}

}  // namespace NSVista::NSCorvane::sim
