// SPDX-License-Identifier: Apache-2.0
// Buffers of a video node: import, queue and dequeue.
#include <corvane/V4L2VideoDevice.h>

#include <corvane/DequeuedBuffer.h>
#include <corvane/IMediaRequest.h>
#include <corvane/platform/Log.h>
#include <corvane/platform/NoThrow.h>
#include <corvane/platform/System.h>
#include <corvane/platform/Trace.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <utility>

#include "DriverCall.h"
#include "TraceArea.h"

CORVANE_LOG_UNIT("corvane-V4L2VideoDevice")

namespace NSVista::NSCorvane {

namespace {

constexpr int kMaxDequeueCalls = 10;

static_assert(DequeuedBuffer::kMaxPlanes == FrameBuffer::kMaxPlanes);

/**
 * A record of zeroes but for type and memory. Cleared by halves: the whole is just large enough for
 * compilers to take a string instruction, which starts slowly, where halves are plain stores.
 */
void clear(v4l2_buffer& buffer, uint32_t type, uint32_t memory) {
    constexpr size_t kHalf = 48;
    memset(&buffer, 0, kHalf);
    memset(reinterpret_cast<char*>(&buffer) + kHalf, 0, sizeof(buffer) - kHalf);
    buffer.type = type;
    buffer.memory = memory;
}

/** What a buffer's planes hold. */
void tellPlanes(const v4l2_buffer& buffer, DequeuedBuffer& told) {
    if (!v4l2::isMultiPlanar(buffer.type)) {
        told.planeCount = 1;
        told.planes[0] = {buffer.bytesused, 0};
        return;
    }
    told.planeCount = std::min(buffer.length, DequeuedBuffer::kMaxPlanes);
    for (uint32_t i = 0; i < told.planeCount; ++i)
        told.planes[i] = {buffer.m.planes[i].bytesused, buffer.m.planes[i].data_offset};
}

/** The lowest @p count bits; a count of 0 gives all of them. */
uint64_t lowestBits(int count) {
    return ~uint64_t{0} >> (static_cast<unsigned>(-count) % V4L2VideoDevice::kMaxBuffers);
}

}  // namespace

int V4L2VideoDevice::requestBuffers(unsigned int count, unsigned int memoryType,
                                    unsigned int& granted) {
    v4l2_requestbuffers request = {};
    request.count = count;
    request.type = bufType();
    request.memory = memoryType;
    const int ret = driverCall(fd(), VIDIOC_REQBUFS, &request);
    granted = request.count;
    return ret;
}

int V4L2VideoDevice::importBuffer(int count) try {
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
    }
    setStreamEnded(false);
    mLastMemory.forget();
    mLostBuffers.store(0, std::memory_order_relaxed);
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
        return driverRefused("VIDIOC_REQBUFS fail", ret);
    }
    if (granted < static_cast<unsigned>(count)) {
        CORVANE_LOGE("Not enough buffer count: %d", count);
        return -ENOMEM;
    }
    mMemory.store(V4L2_MEMORY_DMABUF, std::memory_order_relaxed);
    return 0;
}
CORVANE_NO_THROW

int V4L2VideoDevice::releaseBuffer() {
    const TraceSection section(area::kStreaming, "V4L2VideoDevice VIDIOC_REQBUFS count=0");
    unsigned int granted = 0;
    if (const int ret = requestBuffers(0, memory(), granted); ret < 0) {
        CORVANE_LOGE("Failed to release buffer: %d", ret);
        return driverRefused("VIDIOC_REQBUFS fail", ret);
    }
    return 0;
}

void V4L2VideoDevice::fillBuffer(const FrameBuffer& from, v4l2_buffer& to,
                                 v4l2_plane* planes) const {
    const bool dmabuf = to.memory == V4L2_MEMORY_DMABUF;
    if (!v4l2::isMultiPlanar(to.type)) {
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
        planes[i] = {};
        if (dmabuf) {
            planes[i].m.fd = from.planes[i].fd;
            // The driver takes a plane's place in its dma-buf from here, not from data_offset.
            planes[i].reserved[2] = from.planes[i].offset;
        }
        if (to.type == V4L2_BUF_TYPE_VIDEO_OUTPUT_MPLANE)
            planes[i].length = from.planes[i].bufsize;
    }
}

int V4L2VideoDevice::queueBuffer(const FrameBuffer& buffer, IMediaRequest* request, int) try {
    const TraceSection section(area::kQueue, "V4L2VideoDevice::queueBuffer");
    mQueued.store(true, std::memory_order_relaxed);
    if (buffer.planeCount > FrameBuffer::kMaxPlanes) {
        CORVANE_LOGE("Bad plane count: %zu > %zu", buffer.planeCount, FrameBuffer::kMaxPlanes);
        return -EINVAL;
    }
    const int index = mKeepIndexes.load(std::memory_order_relaxed)
                          ? acquireIndexFor(LastMemory::of(buffer))
                          : acquireBufferIndex();
    if (index < 0) {
        CORVANE_LOGE("%s streamed off while no buffer index was free", mName.c_str());
        return index;
    }
    v4l2_plane planes[VIDEO_MAX_PLANES];  // filled as far as the driver reads
    v4l2_buffer queued;
    clear(queued, bufType(), memory());
    queued.index = static_cast<uint32_t>(index);
    if (request != nullptr) {
        queued.flags = V4L2_BUF_FLAG_REQUEST_FD;
        queued.request_fd = request->getRequestFD();
    }
    fillBuffer(buffer, queued, planes);
    // A successful call rewrites this: what is told to the monitor must not come from there.
    const int32_t requestFd = queued.request_fd;
    mHolders[index].store(requestFd, std::memory_order_relaxed);
    mQueueing.store(true, std::memory_order_relaxed);
    const int ret = System::QueueVideoNodeBuf(fd(), &queued);
    mQueueing.store(false, std::memory_order_relaxed);
    if (ret < 0) {
        mHolders[index].store(~requestFd, std::memory_order_relaxed);
        reportRefusedBuffer(queued, buffer, ret);
        return ret;
    }
    if (const auto monitor = mMonitor.lock()) {
        if (request == nullptr)
            CORVANE_FATAL("Not supported: no V4L2_BUF_FLAG_REQUEST_FD");
        monitor->attachRequestBuffer(requestFd, static_cast<unsigned>(index));
    }
    return 0;
}
CORVANE_NO_THROW

int V4L2VideoDevice::dequeBuffer() try {
    const TraceSection section(area::kDriverCall, "V4L2VideoDevice::dequeBuffer");
    v4l2_plane planes[VIDEO_MAX_PLANES];  // the driver reads none and writes those that it has
    v4l2_buffer dequeued;
    clear(dequeued, bufType(), memory());
    if (v4l2::isMultiPlanar(dequeued.type)) {
        dequeued.m.planes = planes;
        dequeued.length = VIDEO_MAX_PLANES;
        if (mDequeued)
            for (uint32_t i = 0; i < DequeuedBuffer::kMaxPlanes; ++i)
                planes[i].bytesused = planes[i].data_offset = 0;
    }
    int ret = 0;
    int calls = 0;
    mDequeue.store(Standing::kInDriver, std::memory_order_relaxed);
    do {
        ret = System::DQueueVideoNodeBuf(fd(), &dequeued);
        if (ret < 0) {
            mDequeue.store(Standing::kNone, std::memory_order_relaxed);
            mLostBuffers.fetch_add(1, std::memory_order_relaxed);
            CORVANE_LOGE("Failed to dequeue buffer: %d", ret);
            if (mDequeued)
                tellDequeued(dequeued, ret);
            return -1;
        }
    } while (ret == EAGAIN && ++calls < kMaxDequeueCalls);
    mDequeue.store(Standing::kNone, std::memory_order_relaxed);
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
CORVANE_NO_THROW

void V4L2VideoDevice::setDequeuedCallback(std::function<void(const DequeuedBuffer&)> callback) {
    mDequeued = std::move(callback);
}

void V4L2VideoDevice::tellDequeued(const v4l2_buffer& buffer, int result) {
    DequeuedBuffer told;  // only the planes that there are: this is done for every buffer
    told.portIndex = mPortIndex;
    told.result = result;
    if (result < 0) {
        told = {mPortIndex, DequeuedBuffer::kNoIndex, -1, result, 0, 0, 0, {}, 0, {}};
    } else {
        told.bufferIndex = buffer.index;
        told.requestFd = (buffer.flags & V4L2_BUF_FLAG_REQUEST_FD) != 0 ? buffer.request_fd : -1;
        told.flags = buffer.flags;
        told.field = buffer.field;
        told.sequence = buffer.sequence;
        told.timestamp = buffer.timestamp;
        tellPlanes(buffer, told);
    }
    mDequeue.store(Standing::kInCallback, std::memory_order_relaxed);
    mDequeued(told);
    mDequeue.store(Standing::kNone, std::memory_order_relaxed);
}

void V4L2VideoDevice::onNotify(int) {
    const TraceSection section(area::kDriverCall, "V4L2VideoDevice::onNotify");
    dequeBuffer();
}

void V4L2VideoDevice::startToDequeueBuffer() {
    dequeBuffer();
}

}  // namespace NSVista::NSCorvane
