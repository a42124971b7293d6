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
        default:
            return -ENOTTY;
    }
}

int VideoFile::queueBuffer(DeviceLock& lock, v4l2_buffer& buffer) {
    std::shared_ptr<Request> request;
    bool withRequest = buffer.flags & V4L2_BUF_FLAG_REQUEST_FD;
    if (withRequest) {
        auto file = std::dynamic_pointer_cast<RequestFile>(mDevice.files().find(buffer.request_fd));
        if (file)
            request = file->request();
    }
    int result = mQueue.queueBuffer(this, buffer, std::move(request));
    if (result == 0 && !withRequest)
        mDevice.pipeline().queued(lock);
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
