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
    for (const auto& queue : device.queues())
        mControls.push_back({false, SomeControlValues(queue->controls().size())});
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
    for (NodeControls& node : mControls) {
        node.isThere = false;
        std::fill(node.values.begin(), node.values.end(), std::nullopt);
    }
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

void Request::setControls(const BufferQueue& queue, const SomeControlValues& values) {
    mControls[queue.ordinal()] = {true, values};
}

const SomeControlValues* Request::controls(const BufferQueue& queue) const {
    const NodeControls& node = mControls[queue.ordinal()];
    return node.isThere ? &node.values : nullptr;
}

void Request::applyControls() {
    for (size_t i = 0; i < mControls.size(); ++i)
        if (mControls[i].isThere)
            mDevice.queues()[i]->setControls(mControls[i].values);
}

void Request::finish() {
    mJob.buffers.clear();
    for (size_t i = 0; i < mControls.size(); ++i) {
        NodeControls& node = mControls[i];
        node.isThere = true;
        const ControlValues& current = mDevice.queues()[i]->controlValues();
        for (size_t n = 0; n < current.size(); ++n)
            node.values[n] = node.values[n].value_or(current[n]);
    }
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
