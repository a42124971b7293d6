// SPDX-License-Identifier: Apache-2.0
#include "Request.h"

#include <linux/media.h>
#include <cerrno>

#include <algorithm>

#include "BufferQueue.h"
#include "DeviceCore.h"

namespace NSVista::NSCorvane::sim {

Request::Request(DeviceCore& device) : mDevice(device) {
    mJob.request = this;
    mJob.buffers.reserve(device.queues().size());
    mControls.reserve(device.queues().size());
    ++mDevice.requestsAlive;
}

Request::~Request() {
    --mDevice.requestsAlive;
}

int Request::queue() {
    if (mState != State::IDLE)
        return -EBUSY;
    if (mJob.buffers.empty())
        return -ENOENT;
    // What was prepared before the refusal stays prepared, as the kernel leaves it.
    for (const BufferRef& buffer : mJob.buffers) {
        int result = buffer.queue->prepare(buffer.index);
        if (result < 0)
            return result;
    }
    for (const BufferRef& buffer : mJob.buffers)
        buffer.queue->enqueue(buffer.index);
    mState = State::QUEUED;
    mDevice.pipeline().submit(mJob);
    return 0;
}

int Request::reinit() {
    if (mState == State::QUEUED)
        return -EBUSY;
    for (const BufferRef& buffer : mJob.buffers)
        buffer.queue->abandon(buffer.index);
    mJob.buffers.clear();
    mControls.clear();
    mState = State::IDLE;
    mSignal.lower();
    return 0;
}

int Request::bind(const BufferRef& buffer) {
    if (!idle())
        return -EBUSY;
    mJob.buffers.push_back(buffer);
    return 0;
}

void Request::unbind(const BufferRef& buffer) {
    std::erase_if(mJob.buffers, [&](const BufferRef& bound) {
        return bound.queue == buffer.queue && bound.index == buffer.index;
    });
    if (mState == State::QUEUED && mJob.buffers.empty())
        finish();
}

void Request::setControl(BufferQueue& queue, int32_t brightness) {
    std::erase_if(mControls, [&](const ControlValue& value) { return value.queue == &queue; });
    mControls.push_back({&queue, brightness});
}

std::optional<int32_t> Request::control(const BufferQueue& queue) const {
    for (const ControlValue& value : mControls)
        if (value.queue == &queue)
            return value.brightness;
    return std::nullopt;
}

void Request::applyControls() {
    for (const ControlValue& value : mControls)
        value.queue->setBrightness(value.brightness);
}

void Request::finish() {
    mJob.buffers.clear();
    for (const auto& queue : mDevice.queues())
        if (!control(*queue))
            mControls.push_back({queue.get(), queue->brightness()});
    mState = State::COMPLETE;
    mSignal.raise();
}

int RequestFile::open(DeviceCore& device) {
    auto file = std::make_shared<RequestFile>(device);
    const DeviceLock lock(device.mutex());
    int fd = file->mRequest->signal().open(false);
    if (fd >= 0) {
        ++device.filesOpen;
        device.files().insert(fd, std::move(file));
    }
    return fd;
}

int RequestFile::ioctl(uint32_t code, void*) {
    DeviceLock lock(mRequest->device().mutex());
    switch (code) {
        case MEDIA_REQUEST_IOC_QUEUE: {
            int result = mRequest->queue();
            if (result == 0)
                mRequest->device().pipeline().queued(lock);
            return result;
        }
        case MEDIA_REQUEST_IOC_REINIT:
            return mRequest->reinit();
        default:
            return -ENOTTY;
    }
}

Mutex* RequestFile::serialiser(uint32_t) const {
    return &mRequest->device().requestMutex();
}

void RequestFile::released() {
    const DeviceLock lock(mRequest->device().mutex());
    mRequest->signal().close();
    --mRequest->device().filesOpen;
}

}  // namespace NSVista::NSCorvane::sim
