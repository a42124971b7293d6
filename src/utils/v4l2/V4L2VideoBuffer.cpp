// Buffers of a video node: import, queue and dequeue.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/DequeuedBuffer.h>
#include <corvane/IMediaRequest.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

namespace {

constexpr int kMaxDequeueCalls = 10;
constexpr unsigned kMaxPlanes = VIDEO_MAX_PLANES;

/** The lowest @p count bits; a count of 0 gives all of them. */
uint64_t lowestBits(int count) {
    return ~uint64_t{0} >> (static_cast<unsigned>(-count) % V4L2VideoDevice::kMaxBuffers);
}

}  // namespace

int V4L2VideoDevice::requestBuffers(unsigned int count, unsigned int memory,
                                    unsigned int& granted) {
    v4l2_requestbuffers request = {};
    request.count = count;
    request.type = mBufType;
    request.memory = memory;
    const int ret = System::Ioctl(mFd, static_cast<int>(VIDIOC_REQBUFS), &request, 3);
    granted = request.count;
    return ret;
}

int V4L2VideoDevice::importBuffer(int count) {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice::importBuffer");
    if (count > kMaxBuffers)
        CORVANE_FATAL("Not support count=%d > %d", count, kMaxBuffers);
    if (count < 0) {
        CORVANE_LOGE("Bad count=%d", count);
        return -EINVAL;
    }
    {
        const MutexLock lock(mFreeMutex);
        mFreeBits.store(lowestBits(count));
        mLastMemory.forget();
    }
    {
        auto slots = std::make_unique<uint64_t[]>(static_cast<size_t>(count));
        const MutexLock lock(mSlotsMutex);
        mSlots = std::move(slots);
        mReqBufCount.store(static_cast<uint32_t>(count), std::memory_order_relaxed);
    }
    unsigned int granted = 0;
    int ret = 0;
    {
        const TraceSection call(area::kStreaming, "VIDIOC_REQBUFS");
        ret = requestBuffers(static_cast<unsigned>(count), V4L2_MEMORY_DMABUF, granted);
    }
    if (ret < 0) {
        CORVANE_LOGE("VIDIOC_REQBUFS count=%d ret=%d): ", count, ret);
        CORVANE_DRIVER_EXCEPTION("VIDIOC_REQBUFS fail err=%d(%s)", ret, strerror(-ret));
        return ret;
    }
    if (granted < static_cast<unsigned>(count)) {
        CORVANE_LOGE("Not enough buffer count: %d", count);
        return -ENOMEM;
    }
    mMemory = V4L2_MEMORY_DMABUF;
    return 0;
}

int V4L2VideoDevice::releaseBuffer() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice VIDIOC_REQBUFS count=0");
    unsigned int granted = 0;
    if (const int ret = requestBuffers(0, mMemory, granted); ret < 0) {
        CORVANE_LOGE("Failed to release buffer: %d", ret);
        CORVANE_DRIVER_EXCEPTION("VIDIOC_REQBUFS fail err=%d(%s)", ret, strerror(-ret));
        return ret;
    }
    return 0;
}

void V4L2VideoDevice::fillBuffer(const FrameBuffer& from, v4l2_buffer& to,
                                 v4l2_plane* planes) const {
    const bool dmabuf = mMemory == V4L2_MEMORY_DMABUF;
    if (!isMultiPlanar()) {
        to.length = from.planes[0].bufsize;
        if (dmabuf) {
            to.m.fd = from.planes[0].fd;
            to.reserved2 = from.planes[0].offset;
        }
        return;
    }
    to.length = static_cast<uint32_t>(from.planeCount);
    to.m.planes = planes;
    for (size_t i = 0; i < from.planeCount; ++i) {
        if (dmabuf) {
            planes[i].m.fd = from.planes[i].fd;
            // The driver takes a plane's place in its dma-buf from here, not from data_offset.
            planes[i].reserved[2] = from.planes[i].offset;
        }
        if (mBufType == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE) {
            planes[i].bytesused = 0;
            planes[i].length = from.planes[i].bufsize;
        }
    }
}

int V4L2VideoDevice::queueBuffer(const FrameBuffer& buffer, IMediaRequest* request, int) {
    const TraceSection section(area::kQueue, "V4L2VideoDevice::queueBuffer");
    mQueued.store(true, std::memory_order_relaxed);
    if (buffer.planeCount > FrameBuffer::kMaxPlanes) {
        CORVANE_LOGE("Bad plane count: %zu > %zu", buffer.planeCount, FrameBuffer::kMaxPlanes);
        return -EINVAL;
    }
    v4l2_plane planes[kMaxPlanes] = {};
    v4l2_buffer queued = {};
    if (mKeepIndexes.load(std::memory_order_relaxed)) {
        const uint64_t memory = LastMemory::of(buffer);
        queued.index = static_cast<uint32_t>(acquireIndexFor(memory));
        mLastMemory.note(queued.index, memory);
    } else {
        queued.index = static_cast<uint32_t>(acquireBufferIndex());
    }
    queued.type = mBufType;
    queued.memory = mMemory;
    if (request != nullptr) {
        queued.flags = V4L2_BUF_FLAG_REQUEST_FD;
        queued.request_fd = request->getRequestFD();
    }
    // A successful call rewrites these: what is told to the monitor must not come from there.
    const uint32_t index = queued.index;
    const uint32_t flags = queued.flags;
    const int32_t requestFd = queued.request_fd;
    fillBuffer(buffer, queued, planes);
    if (const int ret = System::QueueVideoNodeBuf(mFd, &queued); ret < 0) {
        reportRefusedBuffer(queued, buffer, ret);
        return ret;
    }
    if (const auto monitor = mMonitor.lock()) {
        if ((flags & V4L2_BUF_FLAG_REQUEST_FD) == 0)
            CORVANE_FATAL("Not supported: no V4L2_BUF_FLAG_REQUEST_FD");
        monitor->attachRequestBuffer(requestFd, index);
    }
    return 0;
}

void V4L2VideoDevice::reportRefusedBuffer(const v4l2_buffer& refused, const FrameBuffer& buffer,
                                          int ret) const {
    constexpr const char* kOperation = "queueBuffer";
    const bool multiPlanar = isMultiPlanar();
    CORVANE_LOGE_AS(kOperation, "Failed to queue buffer %s: %d", mName.c_str(), ret);
    CORVANE_LOGE_AS(kOperation, "buffer index(%d), type(%d), memory(%d), flags(0x%x), request(%d)",
                    refused.index, refused.type, refused.memory, refused.flags, refused.request_fd);
    if (mMemory == V4L2_MEMORY_DMABUF && multiPlanar)
        for (size_t i = 0; i < buffer.planeCount; ++i)
            CORVANE_LOGE_AS(kOperation, "multi buffer plane(%d), fd(%d), offset(%d)",
                            static_cast<int>(i), buffer.planes[i].fd, buffer.planes[i].offset);
    else if (mMemory == V4L2_MEMORY_DMABUF)
        CORVANE_LOGE_AS(kOperation, "single buffer plane(0), fd(%d), offset(%d)",
                        buffer.planes[0].fd, buffer.planes[0].offset);
    if (multiPlanar)
        CORVANE_LOGE_AS(kOperation, "buffer length(%d), multi planes(%p)", refused.length,
                        static_cast<void*>(refused.m.planes));
    else
        CORVANE_LOGE_AS(kOperation, "buffer length(%d), single plane", refused.length);
    if (!V4L2_TYPE_IS_OUTPUT(mBufType))
        return;
    if (multiPlanar)
        for (size_t i = 0; i < buffer.planeCount; ++i)
            CORVANE_LOGE_AS(kOperation, "multi buffer plane(%d), used(%d), length(%d)",
                            static_cast<int>(i), refused.m.planes[i].bytesused,
                            refused.m.planes[i].length);
    else
        CORVANE_LOGE_AS(kOperation, "single buffer plane(0), used(%d)", refused.bytesused);
}

int V4L2VideoDevice::dequeBuffer() {
    const TraceSection section(area::kDriverCall, "V4L2VideoDevice::dequeBuffer");
    v4l2_plane planes[kMaxPlanes] = {};
    v4l2_buffer dequeued = {};
    dequeued.type = mBufType;
    dequeued.memory = mMemory;
    if (isMultiPlanar()) {
        dequeued.m.planes = planes;
        dequeued.length = kMaxPlanes;
    }
    int ret = 0;
    int calls = 0;
    do {
        ret = System::DQueueVideoNodeBuf(mFd, &dequeued);
        if (ret < 0) {
            CORVANE_LOGE("Failed to dequeue buffer: %d", ret);
            if (mDequeued)
                tellDequeued(dequeued, ret);
            return -1;
        }
    } while (ret == EAGAIN && ++calls < kMaxDequeueCalls);
    if (const auto monitor = mMonitor.lock()) {
        if ((dequeued.flags & V4L2_BUF_FLAG_REQUEST_FD) == 0)
            CORVANE_FATAL("Not supported: no V4L2_BUF_FLAG_REQUEST_FD");
        monitor->detachRequestBuffer(dequeued.request_fd, dequeued.index);
    }
    releaseBufferIndex(dequeued.index);
    const bool broken = (dequeued.flags & V4L2_BUF_FLAG_ERROR) != 0;
    if (mDequeued)
        tellDequeued(dequeued, ret == EAGAIN ? -EAGAIN : broken ? DequeuedBuffer::kBroken : 0);
    return broken ? -1 : 0;
}

void V4L2VideoDevice::setDequeuedCallback(std::function<void(const DequeuedBuffer&)> callback) {
    mDequeued = std::move(callback);
}

void V4L2VideoDevice::tellDequeued(const v4l2_buffer& buffer, int result) const {
    DequeuedBuffer told = {};
    told.portIndex = mPortIndex;
    told.bufferIndex = DequeuedBuffer::kNoIndex;
    told.requestFd = -1;
    told.result = result;
    if (result >= 0) {
        told.bufferIndex = buffer.index;
        if ((buffer.flags & V4L2_BUF_FLAG_REQUEST_FD) != 0)
            told.requestFd = buffer.request_fd;
        told.flags = buffer.flags;
        told.field = buffer.field;
        told.sequence = buffer.sequence;
        told.timestamp = buffer.timestamp;
        if (isMultiPlanar()) {
            told.planeCount = std::min(buffer.length, DequeuedBuffer::kMaxPlanes);
            for (uint32_t i = 0; i < told.planeCount; ++i)
                told.planes[i] = {buffer.m.planes[i].bytesused, buffer.m.planes[i].data_offset};
        } else {
            told.planeCount = 1;
            told.planes[0] = {buffer.bytesused, 0};
        }
    }
    mDequeued(told);
}

void V4L2VideoDevice::onNotify(int) {
    const TraceSection section(area::kDriverCall, "V4L2VideoDevice::onNotify");
    dequeBuffer();
}

void V4L2VideoDevice::startToDequeueBuffer() {
    dequeBuffer();
}

}  // namespace NSVista::NSCorvane
