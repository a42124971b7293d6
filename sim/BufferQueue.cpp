// SPDX-License-Identifier: Apache-2.0
#include "BufferQueue.h"

#include <cerrno>
#include <cstring>

#include <algorithm>

#include "DeviceCore.h"
#include "EngineDefaults.h"

namespace NSVista::NSCorvane::sim {

BufferQueue::BufferQueue(DeviceCore& device, const EntityDesc& entity, size_t entityIndex,
                         uint32_t ordinal)
    : mDevice(device),
      mName(entity.name),
      mEntity(entityIndex),
      mVideo(completed(*entity.video)),
      mOrdinal(ordinal),
      mFormat(mVideo),
      mConnectors(mVideo.signal, mName),
      mControls(*mVideo.controls),
      mBrightness(mControls.find(V4L2_CID_BRIGHTNESS)),
      mControlValues(mControls.initial()) {
    if (!mVideo.secondQueue.empty())
        mSecondFormat.emplace(mVideo.secondQueue.front());
}

void BufferQueue::setControls(const SomeControlValues& values) {
    for (size_t i = 0; i < values.size(); ++i)
        mControlValues[i] = values[i].value_or(mControlValues[i]);
}

int32_t BufferQueue::brightness() const {
    if (!mBrightness)
        return 0;
    return static_cast<int32_t>(mControlValues[*mBrightness] -
                                mControls.at(*mBrightness).defaultValue);
}

int BufferQueue::setFormat(v4l2_format& format) {
    if (format.type == mVideo.bufType && !mBuffers.empty())
        return -EBUSY;
    if (isSecond(format.type))
        return mSecondFormat->set(format);
    return mFormat.set(format);
}

/** As many as the queue would grant; there are none, since nothing streams through it. */
int BufferQueue::grantOfSecond(v4l2_requestbuffers& request) const {
    const VideoDesc& second = mVideo.secondQueue.front();
    request.capabilities = second.queueCapabilities.value_or(0);
    request.flags = 0;
    if (request.memory != V4L2_MEMORY_DMABUF)
        return -EINVAL;
    if (request.count > 0)
        request.count = std::clamp(request.count, second.minBuffers, second.maxBuffers);
    return 0;
}

int BufferQueue::requestBuffers(DeviceLock& lock, const void* owner, v4l2_requestbuffers& request) {
    if (isSecond(request.type))
        return grantOfSecond(request);
    request.capabilities = V4L2_BUF_CAP_SUPPORTS_DMABUF | V4L2_BUF_CAP_SUPPORTS_ORPHANED_BUFS;
    if (mVideo.requests != RequestUse::REFUSED)
        request.capabilities |= V4L2_BUF_CAP_SUPPORTS_REQUESTS;
    request.capabilities = mVideo.queueCapabilities.value_or(request.capabilities);
    request.flags = 0;
    if (request.memory != V4L2_MEMORY_DMABUF || request.type != mVideo.bufType ||
        mVideo.bufType == 0)
        return -EINVAL;
    if (busyFor(owner) || mStreaming)
        return -EBUSY;

    cancel(lock);
    mBuffers.clear();
    if (request.count > 0)
        request.count = std::min(std::max(request.count, mVideo.minBuffers), bufferLimit());
    mOwner = request.count ? owner : nullptr;
    mBuffers = std::vector<Buffer>(request.count);
    for (uint32_t i = 0; i < request.count; ++i) {
        mBuffers[i].job.buffers.reserve(1);
        for (uint32_t plane = 0; plane < mFormat.planeCount(); ++plane)
            mBuffers[i].planes[plane].length = mFormat.planeSize(plane);
    }
    return 0;
}

int BufferQueue::checkPlanes(const v4l2_buffer& buffer) const {
    if (!v4l2::isMultiPlanar(mVideo.bufType))
        return 0;
    if (buffer.length > VIDEO_MAX_PLANES)
        return -EINVAL;
    if (buffer.length > 0 && !buffer.m.planes)
        return -EFAULT;
    return buffer.length < mFormat.planeCount() ? -EINVAL : 0;
}

int BufferQueue::checkRequestUse(bool withRequest) const {
    if (withRequest) {
        if (mVideo.requests == RequestUse::REFUSED)
            return -EBADR;
        return mUsesPlain ? -EBUSY : 0;
    }
    if (mVideo.requests == RequestUse::REQUIRED)
        return -EBADR;
    return mUsesRequests ? -EBUSY : 0;
}

int BufferQueue::takePlanes(const v4l2_buffer& buffer, Buffer& into) const {
    std::array<Plane, kPicturePlanes> planes;
    for (uint32_t i = 0; i < mFormat.planeCount(); ++i) {
        if (v4l2::isMultiPlanar(mVideo.bufType)) {
            const v4l2_plane& plane = buffer.m.planes[i];
            planes[i] = {plane.m.fd, plane.length, plane.bytesused, plane.data_offset,
                         plane.reserved[2]};
        } else {
            planes[i] = {buffer.m.fd, buffer.length, buffer.bytesused, 0, buffer.reserved2};
        }
        if (capture()) {
            planes[i].bytesUsed = planes[i].dataOffset = 0;
            continue;
        }
        // A single plane's payload is held against the last length, the kernel's slip.
        uint32_t length =
            v4l2::isMultiPlanar(mVideo.bufType) ? planes[i].length : into.planes[i].length;
        if (planes[i].bytesUsed > length)
            return -EINVAL;
        if (planes[i].bytesUsed == 0)
            planes[i].bytesUsed = planes[i].length;
        if (planes[i].dataOffset > 0 && planes[i].dataOffset >= planes[i].bytesUsed)
            return -EINVAL;
    }
    into.given = planes;
    into.sequence = 0;
    into.timestamp = {};
    into.requestFd = -1;
    return 0;
}

int BufferQueue::queueBuffer(const void* owner, v4l2_buffer& user,
                             std::shared_ptr<Request> request) {
    bool withRequest = user.flags & V4L2_BUF_FLAG_REQUEST_FD;
    if (busyFor(owner))
        return -EBUSY;
    if (user.type != mVideo.bufType || user.index >= mBuffers.size() ||
        user.memory != V4L2_MEMORY_DMABUF)
        return -EINVAL;
    Buffer& buffer = mBuffers[user.index];
    if (int result = checkPlanes(user); result < 0)
        return result;
    if (withRequest && buffer.state != State::DEQUEUED)
        return -EINVAL;
    if (!buffer.prepared) {
        if (int result = takePlanes(user, buffer); result < 0)
            return result;
    }
    if (int result = checkRequestUse(withRequest); result < 0)
        return result;

    if (withRequest) {
        if (!request || &request->device() != &mDevice)
            return -EINVAL;
        if (int result = request->bind({this, user.index}); result < 0)
            return result;
        mUsesRequests = true;
        buffer.state = State::IN_REQUEST;
        buffer.bound = true;
        buffer.request = std::move(request);
        buffer.requestFd = user.request_fd;
    } else {
        mUsesPlain = true;
        if (buffer.state != State::DEQUEUED)
            return -EINVAL;
        if (int result = prepare(user.index); result < 0)
            return result;
        enqueue(user.index);
        buffer.job.buffers.assign(1, {this, user.index});
        mDevice.pipeline().submit(buffer.job);
    }
    fill(buffer, user);
    return 0;
}

int BufferQueue::prepare(uint32_t index) {
    Buffer& buffer = mBuffers[index];
    if (buffer.prepared)
        return 0;
    int result = mapPlanes(buffer);
    if (result < 0) {
        for (Mapping& mapping : buffer.mappings)
            mapping.reset();
        return result;
    }
    buffer.prepared = true;
    return 0;
}

int BufferQueue::mapPlanes(Buffer& buffer) {
    for (uint32_t i = 0; i < mFormat.planeCount(); ++i) {
        const Plane& given = buffer.given[i];
        Mapping& mapping = buffer.mappings[i];
        BufferId id;
        if (int result = identifyBuffer(given.fd, id); result < 0)
            return result;
        size_t length = given.length ? given.length : id.size;
        if (length < mFormat.planeSize(i))
            return -EINVAL;
        if (length > id.size)
            return -EFAULT;
        if (!capture() && given.bytesUsed - given.dataOffset < mFormat.planeSize(i))
            return -EINVAL;
        if (uint64_t{given.offset} + given.dataOffset + mFormat.planeSize(i) > id.size)
            return -EINVAL;
        if (!mapping || mapping.id() != id) {
            mRemaps += mapping ? 1 : 0;
            if (int result = mapping.map(given.fd, id, capture()); result < 0)
                return result;
        }
        buffer.planes[i] = given;
        buffer.planes[i].length = static_cast<uint32_t>(length);
        if (capture())
            buffer.planes[i].bytesUsed = mFormat.planeSize(i);
    }
    return 0;
}

void BufferQueue::enqueue(uint32_t index) {
    mBuffers[index].state = State::QUEUED;
}

void BufferQueue::abandon(uint32_t index) {
    Buffer& buffer = mBuffers[index];
    buffer.state = State::DEQUEUED;
    buffer.bound = false;
    buffer.requestFd = -1;
    buffer.request.reset();
}

int BufferQueue::dequeueBuffer(DeviceLock& lock, const void* owner, v4l2_buffer& user,
                               bool nonBlocking) {
    if (busyFor(owner))
        return -EBUSY;
    if (user.type != mVideo.bufType)
        return -EINVAL;
    while (mStreaming && mDoneCount == 0) {
        if (nonBlocking)
            return -EAGAIN;
        mDevice.waitForBuffer(lock);
    }
    if (!mStreaming)
        return -EINVAL;
    if (int result = checkPlanes(user); result < 0)
        return result;

    uint32_t index = mDone[mDoneFirst];
    mDoneFirst = (mDoneFirst + 1) % kQueueCapacity;
    --mDoneCount;
    Buffer& buffer = mBuffers[index];
    fill(buffer, user);
    user.flags &= ~static_cast<uint32_t>(V4L2_BUF_FLAG_DONE);
    buffer.prepared = false;
    abandon(index);
    return 0;
}

int BufferQueue::streamOn(const void* owner, uint32_t type) {
    if (busyFor(owner))
        return -EBUSY;
    if (type != mVideo.bufType)
        return -EINVAL;
    if (mStreaming)
        return 0;
    if (mBuffers.empty())
        return -EINVAL;
    if (!mDevice.graph().connected(mEntity))
        return -EPIPE;
    mStreaming = true;
    mSequence = 0;
    mDevice.pipeline().queuesChanged();
    return 0;
}

int BufferQueue::streamOff(DeviceLock& lock, const void* owner, uint32_t type) {
    if (busyFor(owner))
        return -EBUSY;
    if (type != mVideo.bufType)
        return -EINVAL;
    cancel(lock);
    return 0;
}

void BufferQueue::release(DeviceLock& lock, const void* owner) {
    if (mOwner != owner)
        return;
    cancel(lock);
    mBuffers.clear();
    mOwner = nullptr;
}

void BufferQueue::cancel(DeviceLock& lock) {
    mDevice.pipeline().waitWhileRunning(*this, lock);
    mStreaming = false;
    mUsesRequests = mUsesPlain = false;
    mDoneCount = 0;
    for (uint32_t i = 0; i < mBuffers.size(); ++i) {
        Buffer& buffer = mBuffers[i];
        buffer.prepared = false;
        buffer.job.buffers.clear();
        if (buffer.bound)
            buffer.request->unbind({this, i});
    }
    mDevice.pipeline().withdrawn();
    // Only now: a buffer may hold the last reference to a request that the pipeline knew.
    for (uint32_t i = 0; i < mBuffers.size(); ++i)
        abandon(i);
    mDevice.buffersChanged();
}

uint8_t* BufferQueue::planeData(uint32_t index, uint32_t plane) const {
    const Buffer& buffer = mBuffers[index];
    const Plane& from = buffer.planes[plane];
    return buffer.mappings[plane].data() + from.offset + from.dataOffset;
}

uint32_t BufferQueue::bufferLimit() const {
    return std::min(mDevice.bufferLimit().value_or(mVideo.maxBuffers), kQueueCapacity);
}

vengine_picture BufferQueue::picture(uint32_t index) const {
    const vengine_layout& layout = mFormat.drawable();
    if (layout.num_planes == 0)
        return {};
    uint8_t* planes[3] = {};
    for (uint32_t i = 0; i < layout.num_planes; ++i)
        planes[i] = planeData(index, i);
    return vengine_map(&layout, planes);
}

void BufferQueue::complete(uint32_t index, bool good, const timespec& time) {
    Buffer& buffer = mBuffers[index];
    good = mDevice.faults().pass(Operation::BUFFER, 0, mName, {}) == 0 && good;
    buffer.state = good ? State::DONE : State::ERROR;
    buffer.sequence = mSequence++;
    buffer.timestamp = {time.tv_sec, time.tv_nsec / 1000};
    buffer.bound = false;
    mDone[(mDoneFirst + mDoneCount) % kQueueCapacity] = index;
    ++mDoneCount;
}

size_t BufferQueue::mappedPlanes() const {
    size_t mapped = 0;
    for (const Buffer& buffer : mBuffers) {
        mapped += static_cast<size_t>(std::count_if(buffer.mappings.begin(), buffer.mappings.end(),
                                                    [](auto& m) { return bool(m); }));
    }
    return mapped;
}

void BufferQueue::fill(const Buffer& buffer, v4l2_buffer& user) const {
    user.memory = V4L2_MEMORY_DMABUF;
    user.index = static_cast<uint32_t>(&buffer - mBuffers.data());
    user.field = V4L2_FIELD_NONE;
    user.timestamp = buffer.timestamp;
    user.timecode = {};
    user.sequence = buffer.sequence;
    user.reserved2 = 0;
    user.request_fd = 0;
    user.bytesused = 0;
    if (v4l2::isMultiPlanar(mVideo.bufType)) {
        user.length = mFormat.planeCount();
        for (uint32_t i = 0; i < user.length; ++i) {
            const Plane& plane = buffer.planes[i];
            v4l2_plane& out = user.m.planes[i];
            memset(&out, 0, sizeof(out));
            out.bytesused = plane.bytesUsed;
            out.length = plane.length;
            out.m.fd = plane.fd;
            out.data_offset = plane.dataOffset;
        }
    } else {
        user.length = buffer.planes[0].length;
        user.bytesused = buffer.planes[0].bytesUsed;
        user.m.fd = buffer.planes[0].fd;
    }
    user.flags = V4L2_BUF_FLAG_TIMESTAMP_MONOTONIC;
    switch (buffer.state) {
        case State::DEQUEUED:
            break;
        case State::IN_REQUEST:
            user.flags |= V4L2_BUF_FLAG_IN_REQUEST;
            break;
        case State::QUEUED:
            user.flags |= V4L2_BUF_FLAG_QUEUED;
            break;
        case State::ERROR:
            user.flags |= V4L2_BUF_FLAG_ERROR;
            [[fallthrough]];
        case State::DONE:
            user.flags |= V4L2_BUF_FLAG_DONE;
            break;
    }
    if (buffer.requestFd >= 0) {
        user.flags |= V4L2_BUF_FLAG_REQUEST_FD;
        user.request_fd = buffer.requestFd;
    }
}

}  // namespace NSVista::NSCorvane::sim
